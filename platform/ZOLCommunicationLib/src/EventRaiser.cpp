#include "EventRaiser.h"

#include <utility>

namespace Nubo::Net {

namespace {

template <typename Event, typename Payload>
void raise(Event& event, const void* sender, const Payload& payload) {
    try {
        event.notify(sender, payload);
    } catch (...) {
        // A delegate's fault: neither the connection nor the thread pays for it.
    }
}

}  // namespace

void EventRaiser::data(const Poco::SharedPtr<WebSocketProxy>& proxy, std::string&& message, int flags) {
    WebsocketDataEventPayload payload(proxy);
    payload.data = std::move(message);
    payload.flags = flags;
    raise(_manager.DataAvailable, &_manager, payload);
}

void EventRaiser::closed(const Poco::SharedPtr<WebSocketProxy>& proxy, const std::string& reason) {
    raise(_manager.SocketClosed, &_manager, WebsocketEventPayload(proxy, reason));
}

}  // namespace Nubo::Net
