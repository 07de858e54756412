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
#include "Undelivered.h"

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
/// still comes is thrown away until the peer ends the stream (RFC 6455, 7.1.1) or CLOSE_LINGER has passed.
///
/// While Open it is paused when too much of what it has delivered is still on its way to the application: it
/// reads nothing, so that the peer's sends stall, and no time of the peer's runs.
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
    void failed(TimePoint now, const char* what) noexcept;  // one of these has thrown, or the loop could not
    void lingeredEnough() { _phase = Phase::Ended; }

    bool lingering() const { return _phase == Phase::Lingering; }
    bool ended() const { return _phase == Phase::Ended; }
    bool wantsRead() const { return !_paused || lingering(); }
    bool wantsWrite() const { return _wantsWrite; }
    TimePoint deadline() const;

    /// For an ended connection: reports an end for which there was no memory yet, and closes the descriptor,
    /// unless it was only to be forgotten. False when it has to be called again: still no memory, or a sender
    /// that has not come out of its send.
    /// @param lastTime  the end need not be reported any more.
    bool tryFinish(bool lastTime);

private:
    enum class Phase { Open, Lingering, Ended };

    const char* received(TimePoint now, const char* data, const char* end);
    void keepUnread(TimePoint now, const char* rest, const char* end);
    void readOn(TimePoint now);
    void act(TimePoint now, FrameDecoder::Event event);
    void deliver(TimePoint now);
    void pauseWhenTooMuch(TimePoint now);
    void resume(TimePoint now);
    void peerClosed(TimePoint now);
    void checkChannel(TimePoint now);
    void checkQueue(TimePoint now);
    void checkMessage(TimePoint now);
    void checkFrame(TimePoint now);
    void checkSilence(TimePoint now);
    void flush(TimePoint now);

    void finish(TimePoint now, const std::string& reason, std::uint16_t closeCode);
    void over(const std::string& reason);
    void linger(TimePoint now);
    void expectEnd(TimePoint now, const std::string& reason);
    void report(const std::string& reason);
    bool tryReport();
    bool tryClose();
    TimePoint peersDeadline() const;
    bool pingUnanswered() const { return _pingSent > _lastByte; }
    bool unreadBytes() const;
    bool isOpen() const { return _phase == Phase::Open && _channel->end() == SendChannel::End::None; }

    const Poco::SharedPtr<WebSocketProxy> _proxy;  // holds the manager's share of the socket
    const std::shared_ptr<SendChannel> _channel;
    const std::shared_ptr<Undelivered> _undelivered;
    const std::chrono::milliseconds _silence;
    EventRaiser& _events;

    Phase _phase = Phase::Open;
    FrameDecoder _decoder;
    std::string _unread;          // has been received, but the turn was over
    std::size_t _unreadFrom = 0;  // what is before has been decoded
    bool _wantsWrite = false;
    bool _paused = false;
    bool _unreported = false;  // the end, for want of memory
    std::string _endReported;  // the Reason of that; "" when there was no memory for it either

    TimePoint _lastByte;                         // received
    TimePoint _messageBegan = TimePoint::max();  // the one that is not complete yet
    TimePoint _nextTurn;                         // of what is unread
    TimePoint _pausedSince;
    TimePoint _pingSent;                   // the last one; answered when anything has been received since
    TimePoint _endsAt = TimePoint::max();  // lingering, or waiting for an end that must come
    std::string _endReason;                // of the latter, should it not come
    StallWatch _queueWatch{StallWatch::Limit::NoProgress};  // the total is each message's own
};

}  // namespace Nubo::Net

#endif
