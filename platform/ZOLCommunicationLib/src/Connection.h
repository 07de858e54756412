#ifndef NUBO_NET_CONNECTION_H
#define NUBO_NET_CONNECTION_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Net/WebSocketProxy.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FrameDecoder.h"
#include "SendChannel.h"
#include "StallWatch.h"

namespace Nubo::Net {

class EventRaiser;

/// One WebSocket under a manager's care, from addConnection() to the closed descriptor. Belongs to the
/// manager's thread, but for its construction. The manager calls the operation for what has happened and then
/// looks at ended(), lingering(), wantsWrite() and deadline(). Every `now` is the time of the manager's
/// current turn.
///
///     Open --> Lingering --> Ended
///       '----------------------^
/// Open: events are raised. Lingering: the end has been reported, the close frames are on their way, and what
/// still comes is thrown away.
class Connection {
public:
    using TimePoint = MonotonicClock::TimePoint;

    /// @param silence  before a ping, and again until the connection is over; 0 for no pings.
    Connection(const Poco::SharedPtr<WebSocketProxy>& proxy, std::shared_ptr<SendChannel> channel,
               std::chrono::milliseconds silence, EventRaiser& events);

    SendChannel& channel() const { return *_channel; }
    int descriptor() const { return _channel->descriptor(); }

    // What has happened.
    void start(TimePoint now);  // the manager has begun to wait for the descriptor
    void readable(TimePoint now, std::vector<char>& room);  // `room` is scratch space
    void writable(TimePoint now);
    void attention(TimePoint now);  // the channel's shared state may have changed
    void timeout(TimePoint now);    // deadline() has passed
    void ownersChecked(TimePoint now);
    void managerStopping(TimePoint now);
    void failed(TimePoint now, const char* what);  // an error of this side's
    void abort(const char* what) noexcept;         // an operation above has thrown
    void lingeredEnough() { _phase = Phase::Ended; }

    bool lingering() const { return _phase == Phase::Lingering; }
    bool ended() const { return _phase == Phase::Ended; }
    bool wantsWrite() const { return _wantsWrite; }
    TimePoint deadline() const;

    /// Closes the descriptor of an ended connection, unless it was only to be forgotten; false when a sender
    /// has not come out of its send yet. The mailbox will tell when it has.
    bool tryClose();

private:
    enum class Phase { Open, Lingering, Ended };

    void received(TimePoint now, const char* data, const char* end);
    void peerClosed(TimePoint now);
    void noticeSender(TimePoint now);
    void checkSends(TimePoint now);
    void checkFrame(TimePoint now);
    void checkSilence(TimePoint now);
    void flush(TimePoint now);

    void finish(TimePoint now, const std::string& reason, std::uint16_t closeCode);
    void over(const std::string& reason);
    void linger(TimePoint now);
    void expectEnd(TimePoint now, const std::string& reason);
    void report(const std::string& reason);
    bool pingUnanswered() const { return _pingSent > _lastByte; }
    bool unreadBytes() const;
    bool isOpen() const { return _phase == Phase::Open && _channel->end() == SendChannel::End::None; }

    const Poco::SharedPtr<WebSocketProxy> _proxy;  // holds the manager's share of the socket
    const std::shared_ptr<SendChannel> _channel;
    const std::chrono::milliseconds _silence;
    EventRaiser& _events;

    Phase _phase = Phase::Open;
    FrameDecoder _decoder;
    bool _wantsWrite = false;

    TimePoint _lastByte;                   // received
    TimePoint _pingSent;                   // the last one; answered when anything has been received since
    TimePoint _endsAt = TimePoint::max();  // lingering, or waiting for an end that must come
    std::string _endReason;                // of the latter, should it not come
    StallWatch _senderWatch{StallWatch::Limit::NoProgressAndTotal};
    StallWatch _queueWatch{StallWatch::Limit::NoProgress};
};

}  // namespace Nubo::Net

#endif
