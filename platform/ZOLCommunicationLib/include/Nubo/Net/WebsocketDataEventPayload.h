#ifndef NUBO_NET_WEBSOCKETDATAEVENTPAYLOAD_H
#define NUBO_NET_WEBSOCKETDATAEVENTPAYLOAD_H

#include <Nubo/Export.h>
#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Poco/SharedPtr.h>

#include <memory>
#include <string>

namespace Nubo::Net {

/// Data that came over a connection: from the manager one whole message, after the splitter one JSON object.
class ZOL_EXPORT WebsocketDataEventPayload : public WebsocketEventPayload {
public:
    /// Empty data, flags 0. The proxy's lifetime is as in WebsocketEventPayload.
    explicit WebsocketDataEventPayload(WebSocketProxy& proxy);
    /// Likewise, and keeps a share of the proxy.
    explicit WebsocketDataEventPayload(const Poco::SharedPtr<WebSocketProxy>& proxy);

    /// Empty data, flags 0, for the connection of `other`: tells `reason` only.
    WebsocketDataEventPayload(const WebsocketEventPayload& other, const std::string& reason);

    WebsocketDataEventPayload(const WebsocketDataEventPayload& other);  ///< the data too

    /// Takes over the data of `other`, which stays a payload of the same connection, with empty data.
    // NOLINTNEXTLINE(performance-noexcept-move-constructor): the text of the base is copied, which may throw
    WebsocketDataEventPayload(WebsocketDataEventPayload&& other);

    ~WebsocketDataEventPayload() override;

    std::string data;  ///< the payload text
    int flags;         ///< FIN and opcode as in RFC 6455, 5.2: 0x81 for a text message, 0x82 for a binary one

    /// Held as long as the data has not been delivered to the application; whoever passes the data on in
    /// another form keeps a share. The manager counts what is held and stops reading a connection that has
    /// too much of it. Null: nobody counts.
    std::shared_ptr<const void> receipt;
};

}  // namespace Nubo::Net

#endif
