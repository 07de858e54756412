#ifndef NUBO_CLIENT_SERVICEHANDLER_H
#define NUBO_CLIENT_SERVICEHANDLER_H

#include <Nubo/Client/IMessageSyncInterface.h>
#include <Nubo/Client/IWebSocketClosedHandlerImpl.h>
#include <Nubo/Client/IWebSocketDataAvailableImpl.h>
#include <Nubo/Client/IWebSocketOpenedHandlerImpl.h>
#include <Nubo/Client/MultiThreadingObject.h>
#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/BasicEvent.h>
#include <Poco/Event.h>
#include <Poco/JSON/Object.h>
#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/SharedPtr.h>
#include <Poco/Thread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Logging {
class LineLimit;
}

namespace Nubo::Client {

class IClientLibInterface;
class LossRate;
class ReconnectThread;
struct RetryTicket;
class SubscriptionBook;
struct ParsedText_t;

/// The library's representative of one micro service: it follows the service's registration, keeps the
/// WebSocket to it while it is registered, reconnects, multiplexes subscriptions and delivers notifications.
///
/// The application makes one per service and hands it to ClientLib::addService(), which starts it.
/// Unless said otherwise operations belong to the caller's thread: the one that runs the posted messages and
/// that starts and stops the ClientLib. Nothing throws to the caller; failures are log lines.
///
/// What the handler does by itself: a lost connection is rebuilt at once and, failing that, or after ten in a
/// row that have not lasted a second, retried from a thread of its own until it works or the service is
/// withdrawn; after each new connection every live subscription is sent again exactly once. An application
/// need not subscribe again after an outage (if it does, it removes the old subscription first).
///
/// A service name must not contain '-': notifications are matched by the part of the event's fragment between
/// its first two dashes. ClientLib::addService() warns of one that does.
class ZOL_EXPORT ServiceHandler : public MultiThreadingObject,
                                  public IWebSocketOpenedHandlerImpl,
                                  public IWebSocketClosedHandlerImpl,
                                  public IWebSocketDataAvailableImpl,
                                  public Poco::Runnable {
public:
    using Ptr = Poco::SharedPtr<ServiceHandler>;  ///< counted; made from `new`

    /// Argument of MicroServiceRegistrationChanged: whose availability changed. The handler knows the state.
    struct ServiceRegistrationEventData_t {
        ServiceHandler* handler;  ///< never null, valid during the call
    };

    /// One notification for one subscriber.
    struct ZOL_EXPORT ServiceHandlerNotificationData_t {
        ServiceHandler* handler;            ///< who raises it; never null, valid during the call
        std::string event;                  ///< the subscriber's URI, as addSubscription() returned it
        Poco::JSON::Object::Ptr container;  ///< the notification as received; shared: read only
        std::string additionalFragment;     ///< the subscriber's tag
        std::string type;                   ///< Nubo::Command::WebSocketResponseObject::TYPE_...

        /// @return true when the service says that the resource no longer exists (an error with code 410).
        /// @throws Poco::Exception when the code is there but no number (empty: InvalidAccessException).
        bool hasElementGone() const;
    };

    /// What a handler knows of one subscribed resource.
    struct SubscriptionUriValue_t {
        std::string subscrUri;          ///< the first subscriber's URI: the one subscribed at the service
        Poco::JSON::Object::Ptr Value;  ///< the last message for it, an error too; null before the first
        bool autosubscribe;             ///< as the first subscriber asked
    };

    /// How many subscriptions there are with each tag.
    using SubscCounterMapType = std::map<std::string, unsigned int>;
    /// The URIs of the subscribers of each resource, as they came.
    using SubscripersMapType = std::map<std::string, std::list<std::string>>;
    /// What is known of each resource.
    using SubscrUriValueMapType = std::map<std::string, SubscriptionUriValue_t>;

    /// Raised for each notification, once per subscriber.
    /// Runs on: the caller's thread, while it runs a posted message. Holding: no lock.
    /// Called: in the order in which the subscribers subscribed. A delegate may subscribe, unsubscribe and
    /// throw. Must not: shut this handler or the ClientLib down, or destroy either (they wait for the call to
    /// end); run further messages of the sink.
    Poco::BasicEvent<const ServiceHandlerNotificationData_t, Poco::FastMutex> SocketDataAvailable;

    /// Raised when isAvailable() has changed.
    /// Runs on: the caller's thread, within start(), shutdown() or a posted message. Holding: no lock.
    /// Called: once per change. Must not: as SocketDataAvailable.
    Poco::BasicEvent<const ServiceRegistrationEventData_t, Poco::FastMutex> MicroServiceRegistrationChanged;

    /// Does no I/O.
    /// @param serviceName the name under which the service is registered; fixed
    /// @param clientLib, messageSync not owned, both outlive the handler. Null is tolerated: nothing works
    ///        then, and the lines that say so name a null pointer or a refused message.
    /// @param timeoutBeforePing milliseconds of silence on the service's connection before it is pinged; no
    ///        answer for the same time again closes it. 0: never.
    /// @param autoReconnect false: a lost connection is torn down and stays so, also one that is lost at
    /// once,
    ///        and also when the registry's connection is lost. It comes back when the registry reports
    ///        another address, or the service as withdrawn and registered again, and with the registry's
    ///        first answer after start(), which the ClientLib calls on each new connection to the registry.
    ServiceHandler(const std::string& serviceName, IClientLibInterface* clientLib,
                   IMessageSyncInterface* messageSync, uint32_t timeoutBeforePing, bool autoReconnect);

    /// Takes the handler off every connection and waits for its reconnect thread. Does not announce anything;
    /// call shutdown() for that. Not from inside a callback of this handler. Blocks like shutdown().
    ~ServiceHandler() override;

    /// Announces the loss of the service, if it was available, closes its connection and refuses further
    /// messages. Its reconnect thread has ended then. Not from inside a callback of this handler: it would
    /// wait for itself for ever, which an Error line says. Blocks for up to 1 s per thread that is in the
    /// sink or in a delegate. Attempts to connect, and a send that lasts 100 ms, are ended.
    void shutdown() override;

    /// Subscribes to this service's entry at the registry, whose answers then make the handler connect.
    /// Called by the ClientLib; repeated calls replace the earlier ones. Without a registry: an Error line.
    virtual void start();

    /// Subscribes to a resource. The service sees one subscription per resource, however many subscribers.
    /// @param uri the resource; scheme, host and port are dropped, the rest is normalised (normalizeUrl)
    ///        The path "/" is refused, except by the registry's handler.
    /// @param tag comes back as `additionalFragment` of each notification; may be empty, may contain '-'
    /// @param autosubscribe passed to the service by the first subscriber of the resource
    /// @return the subscriber's own URI: it names the subscriber in notifications and removes the
    ///         subscription. Empty when it failed (an Error line).
    ///
    /// If the resource's current data is known it is posted to the new subscriber at once (the last message,
    /// whatever it was). While the service is away the subscription is kept and sent when it comes back.
    virtual std::string addSubscription(const std::string& uri, const std::string& tag, bool autosubscribe);

    /// Undoes one addSubscription(); the service is told when the last subscriber of the resource has left.
    /// The subscriber hears nothing more, also of what has been received or posted before.
    /// @param virtualUri what addSubscription() returned. Unknown: an Error line, nothing changes.
    virtual void removeSubscription(const std::string& virtualUri);

    /// @return true when the registry has reported an address and a connection exists. Any thread.
    virtual bool isAvailable() const;

    std::string getServiceName() const;  ///< as constructed. Any thread.
    /// As the registry reported it last, also after shutdown(); 0 before that and once withdrawn. Any thread.
    int getServicePort() const;

    /// The connection's worker, null when there is none. Any thread; never blocks.
    WebSocketRequestHandler::Ptr getWebSocket() const;

    /// How the reconnect thread works: series of `count` attempts, `delayMs` milliseconds (plus 0 to 99 at
    /// random) apart, with a pause of twenty delays between two series. Takes effect when that starts next.
    void setReconnectParameters(uint8_t count, uint32_t delayMs);

    /// Sends a request over the service's connection; an Error line when there is none. Does not block.
    void operator<<(const Nubo::Command::WebSocketRequestObject& request);

    /// Brings a URI into the one form under which its resource is known: path, query and fragment only,
    /// encoded; a collection ends in one '/', an element in none. What it has written stays as it is:
    /// normalizeUrl(normalizeUrl(x)) == normalizeUrl(x). %26 and %2B in a query stay encoded, since services
    /// read a plain '&' and '+' otherwise. Limits: %2F in a path becomes '/', %3D in a query is not kept
    /// apart from '='.
    /// @throws Poco::SyntaxException when `url` is not a URI; when its query cannot be decoded; when its path
    /// does not begin with '/' and what stands before a ':' is or would become a scheme ("mailto:x")
    std::string normalizeUrl(const std::string& url);

    /// A number in decimal that no other handler of the process has got; the first one is 11.
    std::string getUniqueId();

    /// Delegates of the workers that the handler listens on. Each runs on the worker's thread, holds no lock,
    /// posts to the sink, and is not to be called by applications.
    void WebSocketDataAvailableHandler(const Nubo::Net::WebsocketDataEventPayload& payload);
    /// @copydoc WebSocketDataAvailableHandler()
    void WebSocketClosedHandler(const Nubo::Net::WebsocketEventPayload& payload);

protected:
    /// Raises SocketDataAvailable; every delegate is served, also when one throws. Caller's thread.
    virtual void RaiseSocketDataAvailable(const ServiceHandlerNotificationData_t& data);
    /// Announces availability: the place for a subclass to intercept it. Caller's thread.
    virtual void RaiseMicroServiceRegistrationChanged(const ServiceRegistrationEventData_t& data);
    /// Writes the Info line that says whether the service is available. Caller's thread.
    virtual void LogServiceAvailability() const;

public:
    /// Name and address for log lines: "Media (10.0.0.5)". Any thread.
    virtual std::string getServiceDescription() const;

    void WebSocketDataAvailableHandlerSync(const Poco::JSON::Object::Ptr& data) override;
    void WebSocketClosedHandlerSync(const Nubo::Net::WebsocketEventPayload& payload) override;
    void WebSocketOpenedHandlerSync() override;

    /// The reconnect thread's body; not to be called by users.
    void run() override;

protected:
    /// Called, on the caller's thread, when the connection was replaced while the service stayed available,
    /// so that no event says so. The default does nothing.
    virtual void HandleConnectionReplaced();

    /// Takes over what the registry says; an empty address: not registered.
    void setNewServiceAddress(std::string address, uint16_t port);
    /// RaiseMicroServiceRegistrationChanged() for this handler, past the virtual.
    void TriggerMicroServiceRegistrationChanged();
    /// Raises MicroServiceRegistrationChanged; what the virtual does unless it is overridden.
    void RaiseMicroServiceRegistrationChangedInternal(const ServiceRegistrationEventData_t& data);
    /// Moves one subscription to another resource; nothing happens when the URI stays the same.
    /// @param currentUri, subscriptionId the caller's record, updated; an empty `newUri` only unsubscribes
    void RefreshSubscription(std::string& currentUri, std::string& subscriptionId, const std::string& newUri);
    /// Splits the fragment "id-first-second" of a URI; both are empty when it has no dash.
    /// @throws Poco::SyntaxException when `uri` is no URI
    void parseUriFragments(const std::string& uri, std::string& first, std::string& second);
    /// Takes the delegates off the connection and gives it back to the ClientLib. Any thread.
    /// @return true
    bool destroyWebsocket();
    /// Has the reconnect thread end, and ends its attempt in progress. Does not wait.
    void wakeReconnectThread();
    /// Waits up to 1 s. @return true when the reconnect thread has ended or never ran
    bool stopReconnectThread();
    /// Stops the reconnect thread for good; for destructors, since the thread makes virtual calls.
    void endReconnectThread();

private:
    // Retires the handlers that are replaced, and wakes all reconnect threads before it ends one.
    friend class ClientLib;

    struct ServiceAddress_t {
        std::string host;
        int port;
    };
    /// One connection and its number: no two connections of a handler have the same one.
    struct Connection_t {
        WebSocketRequestHandler::Ptr worker;
        uint64_t generation;
    };

    // registry (ServiceHandler.cpp)
    void subscribeAtRegistry(WebSocketRequestHandler::Ptr registry, const std::string& uri);
    void attachToRegistry(WebSocketRequestHandler::Ptr registry);
    void detachFromRegistry();
    using DataHandler = void (ServiceHandler::*)(const Nubo::Net::WebsocketDataEventPayload&);
    void addDelegates(WebSocketRequestHandler& worker, DataHandler onData);
    void removeDelegates(WebSocketRequestHandler& worker);
    void retire();
    void leaveRegistryAndService();
    void closeServiceConnection();
    ServiceAddress_t serviceAddress() const;

    // connection (ServiceHandlerConnection.cpp)
    void ServiceAvailabilityChanged(bool available);
    void react(bool available);
    bool noteLoss();
    bool connectAtOnce();
    void tearDownConnection();
    void announceAvailability();
    void checkReconnected();
    bool reconnectServiceSocket();
    bool reconnectUnlessConnected(uint64_t& own);
    bool tryReconnect(uint64_t& own);
    void startOver() noexcept;
    void askRegistryAgain();
    bool connectToService();
    void startReconnectThread();
    void startReconnectThreadLater();
    bool joinReconnectThread();
    bool isReconnectPossible() const;
    void runSeries(uint8_t count, uint32_t baseDelayMs);
    void retryUntilConnected(uint8_t count, uint32_t baseDelayMs);
    bool waitForNextSeries(long delayMs);
    bool postOpened();
    bool shutdownWebSocket();
    void closeAhead();
    Connection_t connection() const;
    void setConnection(const WebSocketRequestHandler::Ptr& worker);
    bool post(Nubo::Util::DataMessageBase* message);

    // subscriptions (ServiceHandlerSubscriptions.cpp)
    void checkExpansionLevel(const std::string& realUri);
    void serveCurrentData(const SubscriptionUriValue_t& resource, const std::string& virtualUri);
    void countSubscription(const std::string& virtualUri, const std::string& tag);
    void countRemoval(const std::string& virtualUri);
    uint64_t subscribeAtService(const SubscriptionUriValue_t& resource);
    void unsubscribeAtService(const SubscriptionUriValue_t& resource);
    void resubscribeAll();
    uint64_t sendToService(const Nubo::Command::WebSocketRequestObject& request);

    // notifications (ServiceHandlerNotifications.cpp)
    enum class Origin { OwnConnection, Elsewhere };
    void OwnConnectionDataHandler(const Nubo::Net::WebsocketDataEventPayload& payload);
    void receive(const Nubo::Net::WebsocketDataEventPayload& payload, Origin origin);
    bool concerns(const std::vector<ParsedText_t>& texts) const;
    void postNotification(const ParsedText_t& parsed, Origin origin,
                          const std::shared_ptr<const void>& receipt);
    void handleServiceUpdates(const Poco::JSON::Object& notification);
    void handleNotification(const Poco::JSON::Object::Ptr& data, const std::string& event,
                            const std::string& type);
    void handleOtherEvent(const Poco::JSON::Object::Ptr& data, const std::string& event,
                          const std::string& realUri);
    void notifySubscriber(ServiceHandlerNotificationData_t& data, const std::string& virtualUri);

    IClientLibInterface* const _clientLibInterface;
    IMessageSyncInterface* const _messageSyncInterface;
    static std::atomic<int> unique_id_per_session_counter;  // each handler has its own mutex around it
    Poco::Mutex _sessionIdMutex;
    const std::string _serviceName;
    std::atomic<bool> _isSocketConnected;  // written by the reconnect thread too
    std::string _serviceAddress ZOL_GUARDED_BY(_mutexState);
    int _servicePort ZOL_GUARDED_BY(_mutexState);
    // Replaced under _socketMutex.
    WebSocketRequestHandler::Ptr _serviceWebSocket ZOL_GUARDED_BY(_mutexState);
    Poco::Event _wait;
    Poco::Mutex _socketMutex;  // serialises connecting and tearing down; held across a connection attempt
    std::atomic<bool> _lastServiceAvailableValue;
    static SubscCounterMapType _subscrCounter;  // guarded by _mutexSubscriptioncounter
    SubscripersMapType _subscrMapSubscribers;   // kept by _book
    SubscrUriValueMapType _subscrUriValueMap;   // kept by _book
    static Poco::Mutex _mutexSubscriptioncounter;
    static uint16_t _subscriptioncounter;     // guarded by _mutexSubscriptioncounter
    bool _serviceAvailabilityChangedEntered;  // caller's thread only
    const bool _autoReconnect;
    std::atomic<uint8_t> _countConnectServiceRetry;
    std::atomic<uint32_t> _delayConnectServiceRetry;
    const uint32_t _timeoutBeforePing;
    Poco::Thread _reconnectThreadObject;

    // Leaf: the address and the connection as other threads read them; never held across I/O or a call-out.
    mutable Nubo::Util::Mutex _mutexState;
    uint64_t _connectionGeneration ZOL_GUARDED_BY(_mutexState) = 0;

    // The worker on which start() put this handler's delegates: they come off that one, whichever is current.
    WebSocketRequestHandler::Ptr _attachedRegistry;  // caller's thread only
    // What start() has subscribed to last, and on which worker: on the same one it is unsubscribed first.
    // Caller's thread only, as is the next.
    WebSocketRequestHandler::Ptr _subscribedRegistry;
    std::string _registryUri;
    bool _firstAnswerDue = false;  // nothing has come from the registry since start()

    // The connection last announced. Caller's thread only.
    uint64_t _announcedGeneration = 0;
    std::chrono::steady_clock::time_point _announcedAt;

    // Last: they work on members above.
    const std::unique_ptr<LossRate> _lossRate;                // caller's thread only
    const std::unique_ptr<ReconnectThread> _reconnectThread;  // locks itself
    std::atomic<bool> _threadRefused{false};                  // by the system, and still wanted
    const std::shared_ptr<RetryTicket> _ticket;
    // Who subscribes to what: the index over the two maps above. Caller's thread only.
    const std::unique_ptr<SubscriptionBook> _book;
    // Bounds the lines about what peers send; locks itself.
    const std::unique_ptr<Logging::LineLimit> _badDataLines;
};

}  // namespace Nubo::Client

#endif
