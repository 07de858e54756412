#ifndef NUBO_CLIENT_ICLIENTLIBINTERFACE_H
#define NUBO_CLIENT_ICLIENTLIBINTERFACE_H

#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Export.h>
#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPResponse.h>

#include <cstdint>
#include <string>

namespace Nubo::Client {

/// What handlers and listeners use of the client object. ClientLib implements it and documents each operation
/// in full; a test may implement it as well. The implementation outlives every handler and listener.
class ZOL_EXPORT IClientLibInterface {
public:
    /// The handler registered under that name, or null (with an Error line). Caller's thread.
    virtual ServiceHandler::Ptr getServiceHandler(const std::string& serviceName) const = 0;
    /// The registry's connection, null while there is none. Caller's thread.
    virtual WebSocketRequestHandler::Ptr getServiceRegistryWebSocket() const = 0;
    /// Opens a WebSocket; never null. Throws when that fails. Blocks. Any thread.
    virtual WebSocketRequestHandler::Ptr createNewWebsocket(const std::string& service,
                                                            const std::string& address, int port,
                                                            uint32_t timeoutBeforePing) = 0;
    /// Forgets a worker made by createNewWebsocket(); the caller shuts it down.
    virtual void destroyWebsocket(WebSocketRequestHandler::Ptr wsReqHandler) = 0;
    /// One HTTP request to the registry, one redirection followed; false on failure. Blocks.
    virtual bool sendRequest(Poco::Net::HTTPResponse& response, std::string& body, const std::string& method,
                             const std::string& uri, const std::string& content) const = 0;
    /// One resource as JSON, null on failure. Blocks.
    virtual Poco::JSON::Object::Ptr getResourceElement(const std::string& uri) const = 0;
    /// The first element of a resource list that has that name, null when there is none. Blocks.
    virtual Poco::JSON::Object::Ptr findElementByName(const std::string& resource,
                                                      const std::string& name) const = 0;
    virtual void startup() = 0;   ///< connects to the registry
    virtual void shutdown() = 0;  ///< ends everything

protected:
    // Not virtual: nobody owns the client object through this interface.
    ~IClientLibInterface() = default;
};

}  // namespace Nubo::Client

#endif
