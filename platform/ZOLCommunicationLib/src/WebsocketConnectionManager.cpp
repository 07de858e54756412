#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "ConnectionLoop.h"
#include "SendRegistry.h"

namespace Nubo::Net {

WebsocketConnectionManager::WebsocketConnectionManager() : _loop(std::make_unique<ConnectionLoop>(*this)) {}

WebsocketConnectionManager::~WebsocketConnectionManager() = default;

void WebsocketConnectionManager::addConnection(Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                                               long timeoutBeforePingMs) {
    if (!socket) throw Poco::NullPointerException("WebsocketConnectionManager: no socket");
    // The longest time that 32 bits hold, 49 days, stands for all longer ones.
    const long silence = std::clamp<long>(timeoutBeforePingMs, 0, std::numeric_limits<unsigned>::max());
    _loop->add(socket, std::chrono::milliseconds(silence));
}

void WebsocketConnectionManager::removeConnection(const Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                                                  WebsocketRemoveFlags flags) const {
    if (!socket) return;
    const bool onlyForget = flags == ONLY_REMOVE_WEBSOCKET_DATA;
    if (const auto channel = SendRegistry::find(*socket))
        channel->remove(onlyForget ? SendChannel::End::Forgotten : SendChannel::End::Removed);
}

void WebsocketConnectionManager::callLater(std::chrono::milliseconds delay, std::function<void()> action) {
    _loop->callLater(delay, std::move(action));
}

}  // namespace Nubo::Net
