#ifndef NUBO_CLIENT_CLIENTLIB_H
#define NUBO_CLIENT_CLIENTLIB_H

#include <Nubo/Client/IClientLibInterface.h>
#include <Nubo/Client/IMessageSyncInterface.h>
#include <Nubo/Client/SRServiceHandler.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/BasicEvent.h>
#include <Poco/JSON/Object.h>
#include <Poco/Mutex.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/SharedPtr.h>
#include <Poco/Types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Poco {
class URI;
}
namespace Nubo::Net {
class Cancellation;
}

namespace Nubo::Client {

class WorkerTable;
class HttpRequests;
class WaitBounds;

/// The one object that an application makes to use the service platform: it owns the connection manager, the
/// registry's handler, the table of service handlers and the list of open connections.
///
/// Order of use, all on the application's thread: construct, startup(), addService() for each service, use,
/// shutdown(), destroy. It is started and shut down once. It outlives every handler and listener that uses
/// it, and is outlived by the message sink.
class ZOL_EXPORT ClientLib : public IClientLibInterface {
public:
    /// The configuration. The library supplies no defaults: the caller sets every field.
    struct ClientLibParameters {
        std::string useragent;                      ///< "User-Agent" of HTTP requests; empty: none is sent
        uint32_t timeoutBeforePingServiceRegistry;  ///< ms of silence before the registry is pinged; 0: never
        bool tcp_keepalive_enabled;                 ///< whether TCP keep-alive is set on new WebSockets
        uint32_t tcp_keepalive_count_local;      ///< TCP_KEEPCNT, peer on this host (127.0.0.1, ::1, [::1])
        uint32_t tcp_keepalive_time_local;       ///< TCP_KEEPIDLE in seconds, peer on this host
        uint32_t tcp_keepalive_intval_local;     ///< TCP_KEEPINTVL in seconds, peer on this host
        uint32_t tcp_keepalive_count_external;   ///< TCP_KEEPCNT, any other peer
        uint32_t tcp_keepalive_time_external;    ///< TCP_KEEPIDLE in seconds, any other peer
        uint32_t tcp_keepalive_intval_external;  ///< TCP_KEEPINTVL in seconds, any other peer
        uint8_t countConnectService_Retry;       ///< ServiceHandler::setReconnectParameters, count
        uint32_t delayConnectService_Retry;      ///< ServiceHandler::setReconnectParameters, milliseconds
    };
    using services_t = std::map<std::string, ServiceHandler::Ptr>;                       ///< by name
    using WebsocketRequestHandlerContainer = std::vector<WebSocketRequestHandler::Ptr>;  ///< open sockets

    /// Raised for each JSON object that came in on any connection, after its worker has it.
    /// Runs on: the connection manager's thread, which serves every socket. Called: once per object.
    /// Holding: no lock. Must not: block; shut the ClientLib down (an Error line, nothing else happens);
    /// destroy it (the process ends).
    Poco::BasicEvent<const Nubo::Net::WebsocketDataEventPayload, Poco::FastMutex> SocketDataAvailable;

    /// Raised when a connection has ended, after its worker was told.
    /// Runs on, Holding, Must not: as SocketDataAvailable. Called: once per connection that the peer or the
    /// manager ended.
    Poco::BasicEvent<const Nubo::Net::WebsocketEventPayload, Poco::FastMutex> SocketClosed;

    /// Connects nothing and starts no thread.
    /// @param msgSync the application's sink, not owned; it outlives the ClientLib
    /// @param params copied
    /// @throws Poco::SystemException when the system has no descriptor left
    ClientLib(IMessageSyncInterface* msgSync, const ClientLibParameters& params);

    /// The handler registered under exactly that name. Caller's thread.
    /// @return null, after an Error line, when there is none
    ServiceHandler::Ptr getServiceHandler(const std::string& serviceName) const override;

    /// The registry's connection; null while there is none. Caller's thread.
    /// @throws Poco::NullPointerException after shutdown()
    WebSocketRequestHandler::Ptr getServiceRegistryWebSocket() const override;

    /// Opens a WebSocket by a GET on "/" and the service's name, and registers it with the connection
    /// manager. Any thread. Blocks for the connection attempt (30 s with the look-up of a name) and the
    /// upgrade (60 s from then on), on a handler's attempt for as long as the handler has said; shutdown()
    /// ends it at once. A name's addresses are tried in turn.
    /// @param service the service's name, the path's only segment; may be empty (the registry)
    /// @param address host name or address; an IPv6 literal with or without brackets
    /// @param port TCP port
    /// @param timeoutBeforePing ms of silence before a ping, and again before the connection is given up; 0:
    ///        never
    /// @return the connection's worker, never null. Whoever asked for it calls its shutdown(), and then
    ///         destroyWebsocket(), before the last pointer goes. A thread that the system refuses is an Error
    ///         line.
    /// @throws Poco::NullPointerException before startup() and after shutdown();
    ///         Poco::InvalidArgumentException, with nothing sent, for what cannot be a path, a host or a
    ///         port, a space or a control character for example; Poco::TimeoutException when the time is
    ///         over; Poco::Net::ConnectionAbortedException when shutdown() has ended it; otherwise what POCO
    ///         throws when connecting or the upgrade fails. Nothing is kept then.
    WebSocketRequestHandler::Ptr createNewWebsocket(const std::string& service, const std::string& address,
                                                    int port, uint32_t timeoutBeforePing) override;

    /// Forgets a worker: neither its socket nor its thread is stopped; WebSocketRequestHandler::shutdown()
    /// does that. Null or unknown: nothing. Any thread.
    void destroyWebsocket(WebSocketRequestHandler::Ptr wsReqHandler) override;

    /// One HTTP exchange with the registry, following one redirection (307 with a Location, or 300 with the
    /// address in the body's data). The redirection may lead to any host, and takes method and content along.
    /// Any thread; blocks for the time of setRequestTimeout() at most, and until shutdown(), which ends it.
    /// @param response status, reason and headers of the last answer; interim ones (1xx) are left out
    /// @param body the last body that was read, also a part of one that is not whole; that of a 307 is not.
    ///        A body of more than 64 MiB, as received or as decoded, fails the request.
    /// @param method as it goes into the request line
    /// @param uri path and query; a '/' in front is added, with a Warning line; empty: false, with an Error
    /// line
    /// @param content request body, JSON; may be empty
    /// @return true for a status below 400 with a whole body (RFC 9112, 6 and 7); false otherwise, after an
    ///         Error line, except for a 300 that names no address. A method, path, host, user agent or
    ///         redirection that cannot stand in a request, having a space or a control character for example,
    ///         is not sent. Never throws.
    bool sendRequest(Poco::Net::HTTPResponse& response, std::string& body, const std::string& method,
                     const std::string& uri, const std::string& content) const override;

    /// Reads one resource through the registry. Any thread; blocks as sendRequest().
    /// @return the parsed object; null, after a log line, unless the answer is 200 with a JSON object
    Poco::JSON::Object::Ptr getResourceElement(const std::string& uri) const override;

    /// Asks a resource list for an element by name. Any thread; blocks as sendRequest().
    /// @param name goes into the query as it is, not encoded
    /// @return the first match, or null
    Poco::JSON::Object::Ptr findElementByName(const std::string& resource,
                                              const std::string& name) const override;

    /// Makes the transport and connects to the registry; the first attempt is made before it returns.
    /// @throws Poco::NullPointerException after shutdown(); what creating the transport throws
    void startup() override;

    /// Shuts every handler down, closes every connection and ends every thread of the library, except one
    /// that the system's look-up of a name keeps: it touches nothing of the ClientLib, and ends by itself.
    /// Connection attempts and calls of sendRequest() that are in progress on other threads are ended and
    /// waited for; later ones fail at once. A second call does nothing. Not from inside a callback: it would
    /// wait for itself for ever, which an Error line says.
    /// It does not end the threads of workers that the application made by createNewWebsocket(), or still
    /// holds. Blocks as ServiceHandler::shutdown() for each handler; sends are ended first, for all.
    void shutdown() override;

    /// Calls shutdown(), then releases the handlers. Not from inside a callback.
    virtual ~ClientLib();
    ClientLib(const ClientLib&) = delete;
    ClientLib& operator=(const ClientLib&) = delete;

    /// Delegate of the splitter; passes the object to the worker of its connection. Manager's thread.
    /// @throws Poco::NullPointerException when the payload has no socket
    virtual void DataAvailableHandler(const Nubo::Net::WebsocketDataEventPayload& data);
    /// Delegate of the connection manager; forgets the connection's worker and tells it. Manager's thread.
    /// @throws Poco::NullPointerException when the payload has no socket
    virtual void SocketClosedHandler(const Nubo::Net::WebsocketEventPayload& payload);

    /// How long a call of sendRequest(), getResourceElement() or findElementByName() that begins from now on
    /// may take in all: name look-up, connection, request, answer and redirection. Any thread.
    /// @param total a minute unless it is set; less than 1 ms counts as 1 ms, more than a day as a day
    void setRequestTimeout(std::chrono::milliseconds total);

    /// sendRequest() to any host and port, following one redirection; in all else as the one above.
    /// @param hostAddress name or address, an IPv6 literal with or without brackets
    bool sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber,
                     Poco::Net::HTTPResponse& response, std::string& body, const std::string& method,
                     const std::string& uri, const std::string& content) const;
    /// As the one above, but one exchange, that follows nothing.
    /// @param redirection set when the answer redirects, else left as it is
    bool sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber,
                     Poco::Net::HTTPResponse& response, std::string& body, const std::string& method,
                     const std::string& uri, const std::string& content, Poco::URI& redirection) const;

    /// Builds a request path: `uri` with a leading '/', then "?$fields=...&$expand=...&filter".
    /// @param fields member names separated by commas, or a text that has its own key; may be empty
    /// @param expansionLevel 0: none
    /// @param filter appended as it is; may be empty
    /// @return empty when `uri` is; a '?' in `uri` is not noticed
    static std::string createQuery(const std::string& uri, const std::string& fields, uint8_t expansionLevel,
                                   const std::string& filter);

    /// Takes every record separator (byte 1E hexadecimal, RFC 7464) out of `value`.
    static void cleanJsonString(std::string& value);

    /// Registers a handler under its service's name and starts it. A handler of that name is replaced:
    /// released, not shut down. It leaves its connections, its delegates are removed, and it announces
    /// nothing (held by others, it may be added again); listeners of it must be started again. May be called
    /// inside a callback, also of the handler that it replaces, which lives until that has returned. Ends
    /// a connection attempt of the replaced one.
    /// @throws Poco::NullPointerException when `handler` is null
    ServiceHandler::Ptr addService(ServiceHandler::Ptr handler);

    /// Sets an integer socket option and reads it back.
    /// @return true when the option then has that value; false also for a null socket. Never throws.
    static bool setSocketOption(Poco::SharedPtr<Poco::Net::WebSocket>& webSocket, int level, int option,
                                unsigned int value);

    /// Delegate of the registry's handler: starts or shuts down every handler. Caller's thread.
    void HandleServiceRegistryAvailabilityChanged(const ServiceHandler::ServiceRegistrationEventData_t& data);

private:
    friend class ServiceHandler;  // callLater()

    /// Runs `action` on the manager's thread after `delay`; never, when there is no manager then. Any thread.
    void callLater(std::chrono::milliseconds delay, std::function<void()> action);
    void setTcpKeepaliveParameters(Poco::SharedPtr<Poco::Net::WebSocket>& webSocket, bool isLocal);
    void setKeepaliveOptions(Poco::SharedPtr<Poco::Net::WebSocket>& webSocket, bool isLocal);
    Poco::SharedPtr<Poco::Net::WebSocket> upgrade(const std::string& service, const std::string& address,
                                                  int port);
    WebSocketRequestHandler::Ptr registerConnection(Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                                                    long timeoutMs);
    Poco::SharedPtr<Nubo::Net::WebsocketConnectionManager> connectionManager() const;
    WebSocketRequestHandler::Ptr startWorker(Poco::SharedPtr<Poco::Net::WebSocket>& socket);
    void IncompleteDroppedHandler(const Nubo::Net::WebsocketDataEventPayload& dropped);
    void exchangeConnectionManager(Poco::SharedPtr<Nubo::Net::WebsocketConnectionManager> manager);
    bool tryShutdown();
    void shutdownAll();
    void unwireTransport();
    void endAttemptsAndSends();
    void wakeReconnectThreads();
    void closeAhead();
    void closeConnections();
    bool isRaisingHere() const;
    std::shared_ptr<WaitBounds> requestBounds() const;
    void releaseReplacedHandlers();
    std::vector<ServiceHandler::Ptr> handlers() const;

    IMessageSyncInterface* const _iMsgSync;  // the application's; handed to the registry's handler
    std::atomic<bool> m_disposing;
    const ClientLibParameters _params;
    services_t _services;  // application's thread only
    Poco::SharedPtr<Nubo::Net::WebsocketConnectionManager> _wsConnectionManager ZOL_GUARDED_BY(_mutexManager);
    Poco::SharedPtr<Nubo::Net::WebsocketDataObjectSplitter> _wsOjectSplitter;  // application's thread only
    WebsocketRequestHandlerContainer _connections;                             // guarded by _mutexConnections
    Poco::Mutex _mutexConnections;  // for search and change only, never held while calling out
    SRServiceHandler::Ptr _srServiceHandler;

    // Leaf: shutdown() resets the manager while a reconnect thread may be opening a socket.
    mutable Nubo::Util::Mutex _mutexManager;
    // Handlers that were replaced from inside one of their own callbacks; released once they have returned.
    std::vector<ServiceHandler::Ptr> _replacedHandlers;
    // _connections and its index.
    const std::unique_ptr<WorkerTable> _workers;
    // What shutdown() ends on other threads: connection attempts and HTTP requests.
    const std::shared_ptr<Nubo::Net::Cancellation> _stop;  // locks itself
    const std::unique_ptr<HttpRequests> _requests;         // locks itself
};

}  // namespace Nubo::Client

#endif
