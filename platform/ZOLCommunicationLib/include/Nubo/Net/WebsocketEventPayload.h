#ifndef NUBO_NET_WEBSOCKETEVENTPAYLOAD_H
#define NUBO_NET_WEBSOCKETEVENTPAYLOAD_H

#include <Nubo/Export.h>
#include <Nubo/Net/WebSocketProxy.h>
#include <Poco/SharedPtr.h>

#include <string>

namespace Nubo::Net {

/// What a connection event tells: which connection, and why. A payload that is handed to a delegate is valid
/// during the call; whoever keeps it makes a copy, which refers to the same proxy object.
class ZOL_EXPORT WebsocketEventPayload {
public:
    /// For a proxy that the caller keeps alive as long as this payload and its copies.
    WebsocketEventPayload(WebSocketProxy& proxy, const std::string& reason);

    /// For a shared proxy: this payload and its copies keep it alive, beyond the connection and its manager.
    /// @throws Poco::NullPointerException when `proxy` is null.
    WebsocketEventPayload(const Poco::SharedPtr<WebSocketProxy>& proxy, const std::string& reason);

    /// For the connection of `other`.
    WebsocketEventPayload(const WebsocketEventPayload& other, const std::string& reason);

    WebsocketEventPayload(const WebsocketEventPayload& other);  ///< keeps a share where the other has one
    virtual ~WebsocketEventPayload();

    WebSocketProxy& webSocketProxy;  ///< the connection concerned
    const std::string Reason;        ///< for a closed event, what ended the connection; never empty then

private:
    Poco::SharedPtr<WebSocketProxy> _keepAlive;  // null when built from a bare reference
};

}  // namespace Nubo::Net

#endif
