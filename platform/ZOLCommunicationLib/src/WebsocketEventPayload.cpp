#include <Nubo/Net/WebsocketEventPayload.h>

namespace Nubo::Net {

WebsocketEventPayload::WebsocketEventPayload(WebSocketProxy& proxy, const std::string& reason)
    : webSocketProxy(proxy), Reason(reason) {}

WebsocketEventPayload::WebsocketEventPayload(const Poco::SharedPtr<WebSocketProxy>& proxy,
                                             const std::string& reason)
    : webSocketProxy(*Poco::SharedPtr<WebSocketProxy>(proxy)), Reason(reason), _keepAlive(proxy) {}

WebsocketEventPayload::WebsocketEventPayload(const WebsocketEventPayload& other, const std::string& reason)
    : webSocketProxy(other.webSocketProxy), Reason(reason), _keepAlive(other._keepAlive) {}

WebsocketEventPayload::WebsocketEventPayload(const WebsocketEventPayload& other) = default;

WebsocketEventPayload::~WebsocketEventPayload() = default;

}  // namespace Nubo::Net
