#include <Nubo/Net/WebsocketDataEventPayload.h>

#include <utility>

namespace Nubo::Net {

WebsocketDataEventPayload::WebsocketDataEventPayload(WebSocketProxy& proxy)
    : WebsocketEventPayload(proxy, std::string()), flags(0) {}

WebsocketDataEventPayload::WebsocketDataEventPayload(const Poco::SharedPtr<WebSocketProxy>& proxy)
    : WebsocketEventPayload(proxy, std::string()), flags(0) {}

WebsocketDataEventPayload::WebsocketDataEventPayload(const WebsocketEventPayload& other,
                                                     const std::string& reason)
    : WebsocketEventPayload(other, reason), flags(0) {}

WebsocketDataEventPayload::WebsocketDataEventPayload(const WebsocketDataEventPayload& other) = default;

// NOLINTNEXTLINE(performance-noexcept-move-constructor): see the header
WebsocketDataEventPayload::WebsocketDataEventPayload(WebsocketDataEventPayload&& other)
    : WebsocketEventPayload(other),
      data(std::exchange(other.data, std::string())),
      flags(other.flags),
      receipt(other.receipt) {}

WebsocketDataEventPayload::~WebsocketDataEventPayload() = default;

}  // namespace Nubo::Net
