#include "SendChannel.h"

#include <Nubo/Net/TransportLimits.h>
#include <Poco/Net/NetException.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "CloseCode.h"
#include "FrameDecoder.h"
#include "FrameEncoder.h"
#include "Reasons.h"

namespace Nubo::Net {

/// A sender's time with the lock: shown to the manager, which watches how long the send lasts.
class ZOL_THREAD_SAFETY(scoped_lockable) SendChannel::Turn {
public:
    explicit Turn(SendChannel& channel) ZOL_ACQUIRE(channel._mutex) : _channel(channel) {
        channel._mutex.lock();
    }

    ~Turn() ZOL_RELEASE() {
        _channel._sendingSince = 0;
        _channel._mutex.unlock();
        if (_channel._managerWaits.exchange(false)) _channel._mailbox->attend(_channel._key);
    }

    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    SendChannel& _channel;
};

SendChannel::SendChannel(Mailbox::Key key, int descriptor, std::shared_ptr<Mailbox> mailbox)
    : _key(key), _descriptor(descriptor), _mailbox(std::move(mailbox)) {}

void SendChannel::send(Poco::Net::WebSocket& socket, const std::string& text, int flags) {
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        throw Poco::InvalidArgumentException("text too long for a frame");
    if (_mailbox->onManagerThread()) {
        queueMessage(text, flags);
        return;
    }
    const Turn turn(*this);
    requireOpenLocked();
    sendInTurn([&] { socket.sendFrame(text.data(), static_cast<int>(text.size()), flags); });
}

void SendChannel::sendClose() {
    if (end() == End::Over) throw Poco::Net::InvalidSocketException("connection closed");
    if (_failed) throw Poco::Net::InvalidSocketException(_failure);
    if (end() == End::Removed || _closeWanted.exchange(true)) return;
    _mailbox->attend(_key);
}

void SendChannel::cancelSends() {
    _cancelled = true;
    const Nubo::Util::MutexLock lock(_descriptorMutex);
    if (!_descriptorClosed && _sendingSince != 0) ::shutdown(_descriptor, SHUT_RDWR);
}

// With the lock held. The mailbox is told before the send, since the send may block.
template <typename Action>
void SendChannel::sendInTurn(const Action& action) {
    _sendingSince = MonotonicClock::now().time_since_epoch().count();
    _mailbox->attend(_key);
    try {
        finishBegunLocked();
        action();
    } catch (const Poco::Exception& e) {
        failLocked(e.displayText());
        if (_stalled) throw Poco::TimeoutException(Reasons::sendStalled());
        throw;
    }
}

void SendChannel::requireOpenLocked() const {
    if (end() == End::Over || end() == End::Removed)
        throw Poco::Net::InvalidSocketException("connection closed");
    if (_closeSent || _closeWanted) throw Poco::Net::InvalidSocketException("close frame sent");
    if (_cancelled) throw Poco::Net::InvalidSocketException("sends cancelled");
    if (_failed) throw Poco::Net::InvalidSocketException(_failure);
}

void SendChannel::finishBegunLocked() {
    while (!_pending.empty()) {
        const ssize_t sent = ::send(_descriptor, _pending.data(), _pending.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) throw Poco::IOException(Reasons::systemText(errno), errno);
        _pending.erase(0, static_cast<std::size_t>(sent));
    }
}

// Part of a frame may have gone out, so that nothing may follow it.
void SendChannel::failLocked(const std::string& why) {
    if (_failed) return;
    _failure = why;
    _failed = true;
    _managerWaits = true;
}

bool SendChannel::claimEnd(End how) {
    End none = End::None;
    return _end.compare_exchange_strong(none, how);
}

void SendChannel::remove(End how) {
    if (claimEnd(how)) _mailbox->attend(_key);
}

void SendChannel::queueMessage(std::string_view text, int flags) {
    if (end() != End::None || closing() || _closeWanted || _cancelled || _failed)
        throw Poco::Net::InvalidSocketException("connection closed");
    if (_queued.size() + _backlog + text.size() > TransportLimits::MAX_QUEUED_BYTES)
        throw Poco::IOException("send queue full");
    appendFrame(_queued, static_cast<unsigned>(flags), text);
    _mailbox->attend(_key);
}

void SendChannel::queuePing() {
    if (!closing()) appendFrame(_queued, FrameBits::FIN | FrameBits::PING, "");
}

void SendChannel::queuePong(std::string_view payload) {
    if (closing()) return;
    if (_queued.size() + _backlog < TransportLimits::MAX_QUEUED_PONG_BYTES)
        appendFrame(_queued, FrameBits::FIN | FrameBits::PONG, payload);
    else
        _latestPong = payload;
}

void SendChannel::queueClose(std::uint16_t code) {
    if (closing()) return;
    appendFrame(_queued, FrameBits::FIN | FrameBits::CLOSE, closePayload(code));
    _closeQueued = true;
}

SendChannel::Flushed SendChannel::flush() {
    if (_queued.empty() && _backlog == 0) return Flushed::Done;
    if (!tryLock()) return Flushed::Busy;
    const Nubo::Util::MutexLock lock(_mutex, std::adopt_lock);
    takeQueuedLocked();
    Flushed result = sendPendingLocked();
    if (result == Flushed::Done && _latestPong && !closing()) {
        appendFrame(_pending, FrameBits::FIN | FrameBits::PONG, *std::exchange(_latestPong, std::nullopt));
        result = sendPendingLocked();
    }
    _backlog = _pending.size();
    return result;
}

// The second attempt finds the lock when its holder released it before it could see that the manager waits.
bool SendChannel::tryLock() {
    if (_mutex.tryLock()) return true;
    _managerWaits = true;
    return _mutex.tryLock();
}

void SendChannel::takeQueuedLocked() {
    if (_closeSent || _failed) {
        _queued.clear();
        if (_failed) _pending.clear();
    }
    if (_pending.empty())
        _pending.swap(_queued);
    else
        _pending += _queued;
    std::string().swap(_queued);
    if (_closeQueued && !_failed) _closeSent = true;
}

SendChannel::Flushed SendChannel::sendPendingLocked() {
    std::size_t done = 0;
    while (done < _pending.size()) {
        const ssize_t sent =
            ::send(_descriptor, _pending.data() + done, _pending.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            done += static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN) {
            _pending.erase(0, done);
            return Flushed::Blocked;
        } else if (errno != EINTR) {
            failLocked(Reasons::systemText(errno));
            std::string().swap(_pending);
            return Flushed::Failed;
        }
    }
    std::string().swap(_pending);
    return Flushed::Done;
}

MonotonicClock::TimePoint SendChannel::sendingSince() const {
    return MonotonicClock::TimePoint(MonotonicClock::Duration(_sendingSince.load()));
}

void SendChannel::shutSendSide() {
    if (_sendSideShut || !tryLock()) return;
    const Nubo::Util::MutexLock lock(_mutex, std::adopt_lock);
    if (!_pending.empty() || !_queued.empty()) return;
    ::shutdown(_descriptor, SHUT_WR);
    _sendSideShut = true;
}

bool SendChannel::tryClose(Poco::Net::WebSocket& socket) {
    if (!tryLock()) return false;
    const Nubo::Util::MutexLock lock(_mutex, std::adopt_lock);
    const Nubo::Util::MutexLock descriptor(_descriptorMutex);
    socket.close();
    _descriptorClosed = true;
    return true;
}

}  // namespace Nubo::Net
