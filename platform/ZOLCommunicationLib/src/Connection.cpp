#include "Connection.h"

#include <Nubo/Net/TransportLimits.h>
#include <Poco/Exception.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "BufferedBytes.h"
#include "CloseCode.h"
#include "EventRaiser.h"
#include "Reasons.h"

namespace Nubo::Net {

Connection::Connection(const Poco::SharedPtr<WebSocketProxy>& proxy, std::shared_ptr<SendChannel> channel,
                       std::chrono::milliseconds silence, EventRaiser& events)
    : _proxy(proxy), _channel(std::move(channel)), _silence(silence), _events(events) {}

void Connection::start(TimePoint now) {
    _lastByte = now;
    Poco::SharedPtr<Poco::Net::WebSocket> socket(_proxy->webSocket);
    const std::string bytes = takeBufferedBytes(*socket);
    received(now, bytes.data(), bytes.data() + bytes.size());
    attention(now);
}

// One read a turn, so that a peer that floods does not keep the others waiting. What does not fit stays where
// it is, and the descriptor stays readable.
void Connection::readable(TimePoint now, std::vector<char>& room) {
    const ssize_t size = ::recv(descriptor(), room.data(), room.size(), MSG_DONTWAIT);
    if (size > 0) {
        _lastByte = now;
        received(now, room.data(), room.data() + size);
    } else if (size == 0) {
        over(_channel->closing() ? Reasons::closeCut() : Reasons::endOfStream());
    } else if (errno != EAGAIN && errno != EINTR) {
        over(Reasons::receiveFailed(errno));
    }
}

void Connection::received(TimePoint now, const char* data, const char* end) {
    while (isOpen()) {
        switch (_decoder.next(data, end)) {
            case FrameDecoder::Event::NeedMore:
                flush(now);
                return;
            case FrameDecoder::Event::Message:
                _events.data(_proxy, _decoder.takeMessage(), _decoder.messageFlags());
                break;
            case FrameDecoder::Event::Ping:
                _channel->queuePong(_decoder.control());
                break;
            case FrameDecoder::Event::Pong:
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
            noticeSender(now);
        }
    }
    flush(now);
}

void Connection::noticeSender(TimePoint now) {
    const TimePoint since = _channel->sendingSince();
    if (since == TimePoint())
        _senderWatch.end();
    else
        _senderWatch.begin(since, now, descriptor());
    if (_channel->closeWanted()) _channel->queueClose(CloseCode::NORMAL);
    if (_channel->closing()) expectEnd(now, Reasons::closeUnanswered());
    if (const std::string* const why = _channel->failure()) expectEnd(now, Reasons::sendFailed(*why));
}

void Connection::timeout(TimePoint now) {
    if (now >= _endsAt) over(_endReason);
    if (_phase != Phase::Open) return;
    checkSends(now);
    if (_phase == Phase::Open) checkFrame(now);
    if (_phase == Phase::Open) checkSilence(now);
}

void Connection::checkSends(TimePoint now) {
    if (_senderWatch.active()) noticeSender(now);
    const bool senderStalled = _senderWatch.active() && _senderWatch.stalled(now, descriptor());
    const bool queueStalled = _queueWatch.active() && _queueWatch.stalled(now, descriptor());
    if (!senderStalled && !queueStalled) return;
    _channel->markStalled();
    over(Reasons::sendStalled());
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
    return ::ioctl(descriptor(), FIONREAD, &bytes) == 0 && bytes > 0;
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

void Connection::failed(TimePoint now, const char* what) {
    if (_phase == Phase::Open) finish(now, Reasons::internalError(what), CloseCode::INTERNAL_ERROR);
}

void Connection::abort(const char* what) noexcept {
    try {
        over(Reasons::internalError(what));
    } catch (...) {
        _phase = Phase::Ended;  // not even the report could be made
    }
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
            if (_phase == Phase::Open) noticeSender(now);
            break;
        case SendChannel::Flushed::Done:
            break;
    }
    _queueWatch.end();
    if (_phase == Phase::Lingering) _channel->shutSendSide();
}

// The peer is told why, as far as it listens.
void Connection::finish(TimePoint now, const std::string& reason, std::uint16_t closeCode) {
    _channel->queueClose(closeCode);
    linger(now);
    flush(now);
    report(reason);
}

void Connection::over(const std::string& reason) {
    const bool wasOpen = std::exchange(_phase, Phase::Ended) == Phase::Open;
    if (wasOpen) report(reason);
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
    if (_channel->claimEnd(SendChannel::End::Over)) _events.closed(_proxy, reason);
}

Connection::TimePoint Connection::deadline() const {
    TimePoint due = _endsAt;
    if (_phase != Phase::Open) return due;
    if (_decoder.inFrame()) due = std::min<TimePoint>(due, _lastByte + TransportLimits::FRAME_STALL);
    if (_senderWatch.active()) due = std::min(due, _senderWatch.due());
    if (_queueWatch.active()) due = std::min(due, _queueWatch.due());
    if (_silence.count() == 0 || _channel->closing()) return due;
    return std::min<TimePoint>(due, (pingUnanswered() ? _pingSent : _lastByte) + _silence);
}

bool Connection::tryClose() {
    if (_channel->end() == SendChannel::End::Forgotten) return true;
    Poco::SharedPtr<Poco::Net::WebSocket> socket(_proxy->webSocket);
    try {
        return _channel->tryClose(*socket);
    } catch (const Poco::Exception&) {
        return true;  // there was nothing left to close
    }
}

}  // namespace Nubo::Net
