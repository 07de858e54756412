#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebSocketSender.h>
#include <Poco/Exception.h>

#include <functional>

#include "SendRegistry.h"

namespace Nubo::Net {

namespace {

using AddressOf = Poco::Net::SocketAddress (Poco::Net::Socket::*)() const;

// A socket that is closed, or whose peer is gone, may have no address to tell.
Poco::Net::SocketAddress addressOf(const Poco::SharedPtr<Poco::Net::WebSocket>& socket, AddressOf which) {
    try {
        return socket ? ((*socket).*which)() : Poco::Net::SocketAddress();
    } catch (const Poco::Exception&) {
        return Poco::Net::SocketAddress();
    }
}

const void* implementation(const WebSocketProxy& proxy) {
    return proxy.webSocket ? proxy.webSocket->impl() : nullptr;
}

}  // namespace

WebSocketProxy::WebSocketProxy(const Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                               WebsocketConnectionManager* theManager)
    : webSocket(socket),
      manager(theManager),
      m_address(addressOf(socket, &Poco::Net::Socket::address)),
      m_peerAddress(addressOf(socket, &Poco::Net::Socket::peerAddress)) {}

WebSocketProxy::WebSocketProxy(const WebSocketProxy& other) = default;

WebSocketProxy::~WebSocketProxy() = default;

// Reaches the manager's thread without touching the manager, which a kept payload's proxy may outlive.
void WebSocketProxy::shutdown() const {
    if (!webSocket || manager == nullptr) return;
    if (const auto channel = SendRegistry::find(*webSocket)) channel->remove(SendChannel::End::Removed);
}

void WebSocketProxy::write(const std::string& text) const {
    if (!webSocket) throw Poco::NullPointerException("WebSocketProxy: no socket");
    Poco::SharedPtr<Poco::Net::WebSocket> socket(webSocket);
    sendFrame(*socket, text, Poco::Net::WebSocket::FRAME_TEXT);
}

bool WebSocketProxy::operator<(const WebSocketProxy& other) const {
    return std::less<const void*>()(implementation(*this), implementation(other));
}

bool WebSocketProxy::operator==(const WebSocketProxy& other) const {
    return implementation(*this) == implementation(other);
}

bool WebSocketProxy::operator==(const Poco::Net::WebSocket& socket) const {
    return implementation(*this) == socket.impl();
}

}  // namespace Nubo::Net
