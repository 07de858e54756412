#ifndef NUBO_NET_WEBSOCKETCONNECTIONMANAGER_H
#define NUBO_NET_WEBSOCKETCONNECTIONMANAGER_H

#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Poco/BasicEvent.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <functional>
#include <memory>

namespace Nubo::Net {

class ConnectionLoop;

/// Serves any number of client-side WebSockets on one thread of its own: reads them, decodes frames as RFC
/// 6455 demands, answers pings and closes, watches silence and stalled sends, and raises two events. A peer
/// that is slow, silent, broken or hostile costs only its own connection. See TransportLimits for the limits.
/// A peer that sends faster than its data is delivered (WebsocketDataEventPayload::receipt) is not read until
/// there is room again; meanwhile none of its times runs, and nothing is lost. Without memory, the connection
/// that needed it is ended, and the thread lives on.
///
/// Events. Both run on the manager's thread, with no lock held, one at a time. A delegate must not block
/// (all connections wait for it) and must not destroy the manager; it may add and remove connections, its own
/// too, and send (WebSocketSender.h). Its exceptions are swallowed, at the cost of the later delegates' call,
/// except std::bad_alloc: in a data event it ends the connection (close code 1011), and a closed event is
/// raised again, to all delegates, until nothing of that kind comes or the manager is destroyed.
class ZOL_EXPORT WebsocketConnectionManager {
public:
    /// How a connection is removed; bit values. DEFAULT, and every value but ONLY_REMOVE_WEBSOCKET_DATA,
    /// closes the connection: a close frame, then the descriptor, never on the caller's thread.
    enum WebsocketRemoveFlags {
        ONLY_REMOVE_WEBSOCKET_DATA = 0,  ///< the manager forgets the socket, which stays open
        DO_WEBSOCKET_SHUTDOWN = 1,
        DO_WEBSOCKET_UNBIND = 2,
        DO_WEBSOCKET_UNBIND_ASYNC = 4,
        DO_WEBSOCKET_KEEPALIVE_TIMEOUT = 8,
        DO_WEBSOCKET_PONG_TIMEOUT = 16,
        SYNC_FULL_SHUTDOWN = 3,
        ASYNC_FULL_SHUTDOWN = 7,
        DEFAULT = 7
    };

    /// Raised for each whole text or binary message, in the order of arrival. Fragments have been put
    /// together, text is valid UTF-8.
    Poco::BasicEvent<const WebsocketDataEventPayload> DataAvailable;

    /// Raised exactly once for each added connection that ends in any other way than by removeConnection(),
    /// after its last data event, with what ended it in Reason. The descriptor may still be open, for the
    /// close handshake; sending fails from then on.
    Poco::BasicEvent<const WebsocketEventPayload> SocketClosed;

    /// Starts the manager's thread.
    /// @throws Poco::SystemException or std::system_error when the system refuses what it needs.
    WebsocketConnectionManager();

    /// Ends every connection (close frame 1000, closed event), closes the descriptors and joins the thread.
    /// Waits at most TransportLimits::STOP_GRACE for the peers' answers. No event comes after it has
    /// returned. Never call it from a delegate, nor while holding a lock that a delegate wants.
    ~WebsocketConnectionManager();

    WebsocketConnectionManager(const WebsocketConnectionManager&) = delete;
    WebsocketConnectionManager& operator=(const WebsocketConnectionManager&) = delete;

    /// From this call on the manager reads the socket; nobody else may. Frames that came with the upgrade
    /// answer are delivered first. Adding a socket again is ignored. Does not block; events may come before
    /// it returns.
    /// @param socket  an open client-side WebSocket, its descriptor blocking. The manager shares it, closes
    ///     its descriptor when the connection is over, and gives up a connection that nobody else holds any
    ///     more. Others send through WebSocketSender.h only, and never close it: they remove it, or drop
    ///     their pointer.
    /// @param timeoutBeforePingMs  milliseconds of silence before a ping is sent; when nothing comes for the
    ///     same time again, the connection is over. 0 or less: no pings.
    /// @throws Poco::NullPointerException for a null socket; Poco::Net::InvalidSocketException for a closed
    ///     one.
    void addConnection(Poco::SharedPtr<Poco::Net::WebSocket>& socket, long timeoutBeforePingMs);

    /// Ends the connection without a closed event, on the manager's thread; returns at once. At most the
    /// event that is being raised at that moment still runs. Does nothing for a socket that is null, unknown
    /// or gone.
    void removeConnection(const Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                          WebsocketRemoveFlags flags = DEFAULT) const;

    /// Runs `action` once on the manager's thread when `delay` has passed on MonotonicClock; never, when the
    /// manager is destroyed before. Any thread; does not block. What the action throws is swallowed.
    /// Runs on: the manager's thread. Called: once. Holding: nothing. Must not: block, destroy the manager.
    void callLater(std::chrono::milliseconds delay, std::function<void()> action);

private:
    std::unique_ptr<ConnectionLoop> _loop;  // fixed after construction, locks itself
};

}  // namespace Nubo::Net

#endif
