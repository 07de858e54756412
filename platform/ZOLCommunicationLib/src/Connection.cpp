#include "Connection.h"

#include <Nubo/Net/TransportLimits.h>
#include <Poco/Exception.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "BufferedBytes.h"
#include "CloseCode.h"
#include "EventRaiser.h"
#include "Reasons.h"
#include "RefusedMessage.h"

namespace Nubo::Net {

Connection::Connection(const Poco::SharedPtr<WebSocketProxy>& proxy, std::shared_ptr<SendChannel> channel,
                       std::chrono::milliseconds silence, EventRaiser& events)
    : _proxy(proxy),
      _channel(std::move(channel)),
      _undelivered(std::make_shared<Undelivered>(_channel)),
      _silence(silence),
      _events(events) {}

void Connection::start(TimePoint now) {
    _lastByte = now;
    Poco::SharedPtr<Poco::Net::WebSocket> socket(_proxy->webSocket);
    const std::string bytes = takeBufferedBytes(*socket);
    const char* const end = bytes.data() + bytes.size();
    keepUnread(now, received(now, bytes.data(), end), end);
    attention(now);
}

// One read a turn, so that a peer that floods does not keep the others waiting. What does not fit stays where
// it is, and the descriptor stays readable.
void Connection::readable(TimePoint now, std::vector<char>& room) {
    if (_phase == Phase::Open && (_paused || !_unread.empty())) return;  // the rest of it comes first
    const ssize_t size = ::recv(descriptor(), room.data(), room.size(), MSG_DONTWAIT);
    if (size > 0) {
        _lastByte = now;
        const char* const end = room.data() + size;
        keepUnread(now, received(now, room.data(), end), end);
    } else if (size == 0) {
        over(_channel->closing() ? Reasons::closeCut() : Reasons::endOfStream());
    } else if (errno != EAGAIN && errno != EINTR) {
        over(Reasons::receiveFailed(errno));
    }
}

// As much as one turn allows, so that a peer that floods does not keep the others waiting.
// @return behind what has been decoded
const char* Connection::received(TimePoint now, const char* data, const char* end) {
    const auto turnOver = std::chrono::steady_clock::now() + TransportLimits::TURN_TIME;
    for (std::size_t count = 0; isOpen() && !_paused && count < TransportLimits::TURN_MESSAGES; ++count) {
        const FrameDecoder::Event event = _decoder.next(data, end);
        if (event == FrameDecoder::Event::NeedMore) break;
        act(now, event);
        if (std::chrono::steady_clock::now() >= turnOver) break;
    }
    if (!_decoder.inMessage())
        _messageBegan = TimePoint::max();
    else if (_messageBegan == TimePoint::max())
        _messageBegan = now;
    flush(now);
    return isOpen() ? data : end;
}

void Connection::keepUnread(TimePoint now, const char* rest, const char* end) {
    _unread.assign(rest, end);
    _unreadFrom = 0;
    _nextTurn = now + TimePoint::duration(1);  // later than now, which is the time of the whole turn
}

// The next turn of what the last ones have left.
void Connection::readOn(TimePoint now) {
    if (_unread.empty() || _paused) return;
    const char* const end = _unread.data() + _unread.size();
    const char* const rest = received(now, _unread.data() + _unreadFrom, end);
    _unreadFrom = static_cast<std::size_t>(rest - _unread.data());
    _nextTurn = now + TimePoint::duration(1);
    if (rest == end) std::string().swap(_unread);
}

void Connection::act(TimePoint now, FrameDecoder::Event event) {
    switch (event) {
        case FrameDecoder::Event::NeedMore:
        case FrameDecoder::Event::Pong:
            break;
        case FrameDecoder::Event::Message:
            deliver(now);
            break;
        case FrameDecoder::Event::Ping:
            _channel->queuePong(_decoder.control());
            break;
        case FrameDecoder::Event::Close:
            peerClosed(now);
            break;
        case FrameDecoder::Event::Error:
            finish(now, Reasons::protocolError(_decoder.errorCode(), _decoder.errorText()),
                   _decoder.errorCode());
            break;
    }
}

// A pong does not wait for what delegates do with the message.
void Connection::deliver(TimePoint now) {
    _messageBegan = TimePoint::max();
    if (!_wantsWrite) flush(now);
    if (_phase != Phase::Open) return;
    std::string message = _decoder.takeMessage();
    auto receipt = _undelivered->receipt(message);
    try {
        _events.data(_proxy, std::move(message), _decoder.messageFlags(), std::move(receipt));
    } catch (const RefusedMessage& e) {
        finish(now, e.what(), CloseCode::POLICY_VIOLATION);
    }
    pauseWhenTooMuch(now);
}

void Connection::pauseWhenTooMuch(TimePoint now) {
    if (_phase != Phase::Open || !_undelivered->tooMuch()) return;
    _paused = true;
    _pausedSince = now;
}

// The peer could not be heard meanwhile: its times go on where they stood, and it has not been silent.
void Connection::resume(TimePoint now) {
    _paused = false;
    _lastByte = now;
    if (_messageBegan != TimePoint::max()) _messageBegan += now - _pausedSince;
    readOn(now);
}

void Connection::peerClosed(TimePoint now) {
    const std::uint16_t code = _decoder.closeCode();
    finish(now, _channel->closing() ? Reasons::closeAnswered(code) : Reasons::closedByPeer(code), code);
}

void Connection::writable(TimePoint now) {
    flush(now);
}

void Connection::attention(TimePoint now) {
    if (_phase == Phase::Ended) return;
    if (_phase == Phase::Open) {
        if (_channel->end() == SendChannel::End::Forgotten) {
            _phase = Phase::Ended;
        } else if (_channel->end() == SendChannel::End::Removed) {
            _channel->queueClose(CloseCode::NORMAL);
            linger(now);
        } else {
            checkChannel(now);
            if (_paused && _undelivered->hasRoom()) resume(now);
        }
    }
    flush(now);
}

void Connection::checkChannel(TimePoint now) {
    if (_channel->closeWanted()) _channel->queueClose(CloseCode::NORMAL);
    if (_channel->closing()) expectEnd(now, Reasons::closeUnanswered());
    const std::string* const failure = _channel->failure();
    if (failure != nullptr && _channel->stalled())
        over(*failure);
    else if (failure != nullptr)
        expectEnd(now, Reasons::sendFailed(*failure));
}

void Connection::timeout(TimePoint now) {
    if (now >= _endsAt) over(_endReason);
    if (_phase == Phase::Open) checkQueue(now);
    if (_phase == Phase::Open && !_paused) readOn(now);
    if (_phase == Phase::Open && !_paused) checkMessage(now);
    if (_phase == Phase::Open && !_paused) checkFrame(now);
    if (_phase == Phase::Open && !_paused) checkSilence(now);
}

// What waits here is the manager's own: a sender watches itself.
void Connection::checkQueue(TimePoint now) {
    if (!_queueWatch.active()) return;
    if (_queueWatch.stalled(now, descriptor()) || now >= _channel->queueDue()) over(Reasons::sendStalled());
}

void Connection::checkMessage(TimePoint now) {
    if (_messageBegan == TimePoint::max() || now - _messageBegan < TransportLimits::MESSAGE_TOTAL) return;
    finish(now, Reasons::messageIncomplete(), CloseCode::POLICY_VIOLATION);
}

void Connection::checkFrame(TimePoint now) {
    if (!_decoder.inFrame() || now - _lastByte < TransportLimits::FRAME_STALL) return;
    if (unreadBytes())
        _lastByte = now;
    else
        finish(now, Reasons::frameStalled(), CloseCode::NORMAL);
}

void Connection::checkSilence(TimePoint now) {
    if (_silence.count() == 0 || _channel->closing()) return;
    if (!pingUnanswered()) {
        if (now - _lastByte < _silence) return;
        _pingSent = now;
        _channel->queuePing();
        flush(now);
    } else if (now - _pingSent >= _silence) {
        if (unreadBytes())
            _lastByte = now;
        else
            finish(now, Reasons::noPong(_silence), CloseCode::NORMAL);
    }
}

// The process may have been held up for longer than the peer was silent.
bool Connection::unreadBytes() const {
    int bytes = 0;
    return !_unread.empty() || (::ioctl(descriptor(), FIONREAD, &bytes) == 0 && bytes > 0);
}

void Connection::ownersChecked(TimePoint now) {
    if (!isOpen() || _channel->closing() || _proxy->webSocket.referenceCount() > 1) return;
    _channel->queueClose(CloseCode::NORMAL);
    expectEnd(now, Reasons::closeUnanswered());
    flush(now);
}

void Connection::managerStopping(TimePoint now) {
    if (_phase == Phase::Open) finish(now, Reasons::managerStopped(), CloseCode::NORMAL);
}

void Connection::failed(TimePoint now, const char* what) noexcept {
    try {
        if (_phase == Phase::Open) {
            finish(now, Reasons::internalError(what), CloseCode::INTERNAL_ERROR);
            return;
        }
    } catch (const std::exception&) {
        // Not even that: the peer is not told.
    }
    over(std::string());
}

void Connection::flush(TimePoint now) {
    _wantsWrite = false;
    switch (_channel->flush()) {
        case SendChannel::Flushed::Busy:
            return;
        case SendChannel::Flushed::Blocked:
            _wantsWrite = true;
            if (!_queueWatch.active()) _queueWatch.begin(now, now, descriptor());
            return;
        case SendChannel::Flushed::Failed:
            if (_phase == Phase::Open) checkChannel(now);
            break;
        case SendChannel::Flushed::Done:
            break;
    }
    _queueWatch.end();
}

// The peer is told why, as far as it listens.
void Connection::finish(TimePoint now, const std::string& reason, std::uint16_t closeCode) {
    _channel->queueClose(closeCode);
    linger(now);
    flush(now);
    report(reason);
}

void Connection::over(const std::string& reason) {
    _phase = Phase::Ended;
    report(reason);
}

void Connection::linger(TimePoint now) {
    _phase = Phase::Lingering;
    _endsAt = now + TransportLimits::CLOSE_LINGER;
}

// What is still to be read is read: the peer's close frame, or its last messages.
void Connection::expectEnd(TimePoint now, const std::string& reason) {
    if (_endsAt != TimePoint::max()) return;
    _endsAt = now + TransportLimits::CLOSE_LINGER;
    _endReason = reason;
}

void Connection::report(const std::string& reason) {
    if (!_channel->claimEnd(SendChannel::End::Over)) return;
    _unreported = true;
    try {
        _endReported = reason;
    } catch (const std::bad_alloc&) {
        // It stays empty.
    }
    tryReport();
}

bool Connection::tryReport() {
    if (_unreported) _unreported = !_events.closed(_proxy, _endReported);
    return !_unreported;
}

Connection::TimePoint Connection::deadline() const {
    TimePoint due = _endsAt;
    if (_phase != Phase::Open) return due;
    if (_queueWatch.active()) due = std::min({due, _queueWatch.due(), _channel->queueDue()});
    return _paused ? due : std::min(due, peersDeadline());
}

Connection::TimePoint Connection::peersDeadline() const {
    TimePoint due = _unread.empty() ? TimePoint::max() : _nextTurn;
    if (_messageBegan != TimePoint::max())
        due = std::min<TimePoint>(due, _messageBegan + TransportLimits::MESSAGE_TOTAL);
    if (_decoder.inFrame()) due = std::min<TimePoint>(due, _lastByte + TransportLimits::FRAME_STALL);
    if (_silence.count() == 0 || _channel->closing()) return due;
    return std::min<TimePoint>(due, (pingUnanswered() ? _pingSent : _lastByte) + _silence);
}

bool Connection::tryFinish(bool lastTime) {
    const bool closed = _channel->end() == SendChannel::End::Forgotten || tryClose();
    return (tryReport() || lastTime) && closed;
}

bool Connection::tryClose() {
    Poco::SharedPtr<Poco::Net::WebSocket> socket(_proxy->webSocket);
    try {
        return _channel->tryClose(*socket);
    } catch (const Poco::Exception&) {
        return true;  // there was nothing left to close
    }
}

}  // namespace Nubo::Net
