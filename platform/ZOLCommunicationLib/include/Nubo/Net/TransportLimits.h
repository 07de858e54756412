#ifndef NUBO_NET_TRANSPORTLIMITS_H
#define NUBO_NET_TRANSPORTLIMITS_H

#include <chrono>
#include <cstddef>

namespace Nubo::Net {

/// The limits within which every connection lives, whatever its peer does. All times run on MonotonicClock.
struct TransportLimits {
    /// Longest message that is accepted, whether it comes in one frame or in several. A frame that announces
    /// more is refused (close code 1009) before memory is spent on it.
    static constexpr std::size_t MAX_MESSAGE_BYTES = std::size_t{16} * 1024 * 1024;

    /// A message that is not whole so long after its first byte ends its connection (close code 1008).
    static constexpr std::chrono::milliseconds MESSAGE_TOTAL{60000};

    /// More JSON objects than these in one message end its connection (close code 1008).
    static constexpr std::size_t MAX_OBJECTS = 16384;

    /// Bytes of a connection's messages that may wait to be delivered to the application; with more, the
    /// connection is not read until half of them have been delivered.
    static constexpr std::size_t MAX_UNDELIVERED_BYTES = std::size_t{32} * 1024 * 1024;

    /// Messages of a connection that may wait likewise.
    static constexpr std::size_t MAX_UNDELIVERED_MESSAGES = 100000;

    /// A message counts as one more for each so many JSON values in it, since a value costs far more than its
    /// text.
    static constexpr std::size_t VALUES_PER_MESSAGE = 16;

    /// A frame of which no further byte comes for so long ends its connection.
    static constexpr std::chrono::milliseconds FRAME_STALL{30000};

    /// A send of which the peer takes no byte for so long ends its connection.
    static constexpr std::chrono::milliseconds SEND_STALL{5000};

    /// A send that lasts so long in all ends its connection, also when the peer takes a byte now and then.
    static constexpr std::chrono::milliseconds SEND_TOTAL{10000};

    /// Bytes of messages written by event delegates that may wait for a peer which does not read.
    static constexpr std::size_t MAX_QUEUED_BYTES = 2 * MAX_MESSAGE_BYTES;

    /// Bytes of pongs that may wait for a peer which does not read; beyond, only the latest ping is answered.
    static constexpr std::size_t MAX_QUEUED_PONG_BYTES = std::size_t{16} * 1024;

    /// From the TCP connection to the end of the upgrade to a WebSocket.
    static constexpr std::chrono::milliseconds UPGRADE{60000};

    /// How long a connection waits for the peer's close frame, and for its end of stream after that.
    static constexpr std::chrono::milliseconds CLOSE_LINGER{1000};

    /// Connections of one manager that may linger at the same time; beyond, the oldest is closed at once.
    static constexpr std::size_t MAX_LINGERING = 64;

    /// How often a manager looks for connections that nobody but itself holds any more.
    static constexpr std::chrono::milliseconds OWNER_CHECK{1000};

    /// How long a manager's destructor waits for the peers' answers to its close frames.
    static constexpr std::chrono::milliseconds STOP_GRACE{100};

    /// Most that is read from one connection before the others have their turn.
    static constexpr std::size_t READ_CHUNK = std::size_t{64} * 1024;

    /// Most messages, pings and pongs of one connection that are handled before the others have their turn.
    static constexpr std::size_t TURN_MESSAGES = 256;

    /// The turn of a connection ends with the message in which it has lasted so long.
    static constexpr std::chrono::milliseconds TURN_TIME{5};
};

}  // namespace Nubo::Net

#endif
