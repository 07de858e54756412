#include <Nubo/Net/WebSocketSender.h>

#include "SendRegistry.h"

namespace Nubo::Net {

void sendFrame(Poco::Net::WebSocket& socket, const std::string& text, int flags) {
    if (const auto channel = SendRegistry::find(socket))
        channel->send(text, flags);
    else
        socket.sendFrame(text.data(), static_cast<int>(text.size()), flags);
}

void sendClose(Poco::Net::WebSocket& socket) {
    if (const auto channel = SendRegistry::find(socket))
        channel->sendClose();
    else
        socket.shutdown();
}

void cancelSends(Poco::Net::WebSocket& socket) {
    if (const auto channel = SendRegistry::find(socket)) channel->cancelSends();
}

}  // namespace Nubo::Net
