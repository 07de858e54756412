#ifndef NUBO_NET_WEBSOCKETSENDER_H
#define NUBO_NET_WEBSOCKETSENDER_H

#include <Nubo/Export.h>
#include <Poco/Net/WebSocket.h>

#include <string>

namespace Nubo::Net {

// The only ways to write on a WebSocket that a connection manager serves. They take the connection's send
// lock, which the manager honours too, so that frames of two threads never mix in the stream. The lock is
// found by the socket's implementation: it exists from addConnection() until the manager has closed the
// descriptor. For a socket without one, the plain operation of Poco::Net::WebSocket is called.

/// Sends `text` as one frame.
/// @param flags  FIN and opcode of the frame: Poco::Net::WebSocket::FRAME_TEXT or FRAME_BINARY.
/// Blocks while the peer does not read, but no longer than TransportLimits::SEND_STALL without progress and
/// SEND_TOTAL in all, the wait for other senders included; then the connection is over. It needs no other
/// thread for that. Called from a delegate of the manager's own events it never blocks: what the peer does
/// not take at once waits in a queue of TransportLimits::MAX_QUEUED_BYTES, within the same times.
/// @throws Poco::TimeoutException after those times; Poco::Net::InvalidSocketException when the connection
///     has ended; Poco::IOException when the queue is full, after cancelSends(), and for errors of the socket
///     (any Poco::Exception); std::bad_alloc when there is no memory for the frame, which is not begun then.
ZOL_EXPORT void sendFrame(Poco::Net::WebSocket& socket, const std::string& text, int flags);

/// Has the manager send the socket's close frame, code 1000, behind what has been sent or begun; nothing can
/// be sent afterwards. The manager then waits for the peer's answer for TransportLimits::CLOSE_LINGER and
/// closes the descriptor. Does nothing when it has been called before. Never blocks for a socket that a
/// manager serves.
/// @throws Poco::Net::InvalidSocketException when the connection has ended, or when a send has failed.
ZOL_EXPORT void sendClose(Poco::Net::WebSocket& socket);

/// Ends the sends that are in progress on the socket, which fail, and has later ones fail at once.
/// sendClose() still works: the manager finishes a frame that was begun, as far as the peer takes it. For a
/// thread that cannot wait for a peer that does not read. Any thread; never blocks; does nothing for a socket
/// that no manager serves.
ZOL_EXPORT void cancelSends(Poco::Net::WebSocket& socket);

}  // namespace Nubo::Net

#endif
