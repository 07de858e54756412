#include "EventRaiser.h"

#include <new>
#include <utility>

#include "Reasons.h"
#include "RefusedMessage.h"

namespace Nubo::Net {

void EventRaiser::data(const Poco::SharedPtr<WebSocketProxy>& proxy, std::string&& message, int flags,
                       std::shared_ptr<const void> receipt) {
    WebsocketDataEventPayload payload(proxy);
    payload.data = std::move(message);
    payload.flags = flags;
    payload.receipt = std::move(receipt);
    try {
        _manager.DataAvailable.notify(&_manager, payload);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const RefusedMessage&) {
        throw;
    } catch (...) {
        // A delegate's fault: neither the connection nor the thread pays for it.
    }
}

bool EventRaiser::closed(const Poco::SharedPtr<WebSocketProxy>& proxy, const std::string& reason) noexcept {
    try {
        const WebsocketEventPayload payload(proxy,
                                            reason.empty() ? Reasons::internalError("no memory") : reason);
        _manager.SocketClosed.notify(&_manager, payload);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (...) {
        // As above.
    }
    return true;
}

}  // namespace Nubo::Net
