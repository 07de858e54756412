#ifndef NUBO_NET_WEBSOCKETPROXY_H
#define NUBO_NET_WEBSOCKETPROXY_H

#include <Nubo/Export.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/SharedPtr.h>

#include <string>

namespace Nubo::Net {

class WebsocketConnectionManager;

/// A light, copyable handle on one socket as the connection manager sees it. It shares the socket's
/// ownership; the manager is only referred to. A copy is a handle on the same socket. Immutable, so any
/// thread may use it.
class ZOL_EXPORT WebSocketProxy {
public:
    /// @param socket   the socket; may be null, and may be closed already.
    /// @param manager  the manager that serves the socket, not owned; may be null.
    /// The addresses are taken here, once; where the socket cannot tell one, it is the default address.
    WebSocketProxy(const Poco::SharedPtr<Poco::Net::WebSocket>& socket, WebsocketConnectionManager* manager);

    WebSocketProxy(const WebSocketProxy& other);  ///< for the same socket
    ~WebSocketProxy();

    /// The local and the peer's address, as they were at construction.
    const Poco::Net::SocketAddress& address() const { return m_address; }
    const Poco::Net::SocketAddress& peerAddress() const { return m_peerAddress; }  ///< @copydoc address()

    /// Closes the socket through its manager: a close frame of code 1000, then the descriptor. Returns at
    /// once, the manager's thread does the work; no closed event comes for the socket. Does nothing when the
    /// socket or the manager is null, when the manager does not serve the socket (any more), and when called
    /// again. Never throws. The manager may be gone by then.
    void shutdown() const;

    /// Sends `text` as one text frame (see sendFrame in WebSocketSender.h: may block, throws
    /// Poco::Exception).
    /// @throws Poco::NullPointerException when the socket is null.
    void write(const std::string& text) const;

    /// Order and equality go by the socket's implementation: the operating system's socket, not the wrapper.
    bool operator<(const WebSocketProxy& other) const;
    bool operator==(const WebSocketProxy& other) const;         ///< the same socket
    bool operator==(const Poco::Net::WebSocket& socket) const;  ///< of this socket

    const Poco::SharedPtr<Poco::Net::WebSocket> webSocket;  ///< the socket
    const WebsocketConnectionManager* manager;              ///< the manager that serves it, not owned

private:
    Poco::Net::SocketAddress m_address;
    Poco::Net::SocketAddress m_peerAddress;
};

}  // namespace Nubo::Net

#endif
