#include "SendChannel.h"

#include <Nubo/Net/TransportLimits.h>
#include <Poco/Net/NetException.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <limits>
#include <new>

#include "Descriptor.h"
#include "FrameDecoder.h"
#include "FrameEncoder.h"
#include "Mailbox.h"
#include "Reasons.h"
#include "StallWatch.h"

namespace Nubo::Net {

/// A sender's time with the lock.
class ZOL_THREAD_SAFETY(scoped_lockable) SendChannel::Turn {
public:
    explicit Turn(SendChannel& channel) ZOL_ACQUIRE(channel._mutex) : _channel(channel) {
        channel._mutex.lock();
    }

    ~Turn() ZOL_RELEASE() {
        // A sender that has failed in between leaves its frame to the manager.
        if (!_channel._pending.empty()) _channel._leftBehind = _channel._managerWaits = true;
        _channel._mutex.unlock();
        if (_channel._managerWaits.exchange(false)) _channel.callManager();
    }

    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    SendChannel& _channel;
};

/// A sender's wait for its peer, which cancelSends() and the clock end early. Where the system has no
/// descriptor left for that, it looks up every now and then.
class SendChannel::Wake {
public:
    explicit Wake(SendChannel& channel) : _channel(channel) {
        try {
            _event.emplace("eventfd", ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            MonotonicClock::addWaiter(_event->get());
        } catch (const std::exception&) {
            // It waits in short steps.
        }
        show(_event ? _event->get() : -1);
    }

    ~Wake() {
        show(-1);
        if (_event) MonotonicClock::removeWaiter(_event->get());
    }

    Wake(const Wake&) = delete;
    Wake& operator=(const Wake&) = delete;

    /// Returns when the descriptor can be written, at `until`, or when something has happened.
    void wait(TimePoint until) {
        constexpr std::chrono::milliseconds::rep STEP{50};
        std::array<pollfd, 2> events{
            {{_channel._descriptor, POLLOUT, 0}, {_event ? _event->get() : -1, POLLIN, 0}}};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - MonotonicClock::now()).count();
        const auto longest = _event ? std::numeric_limits<int>::max() : STEP;
        ::poll(events.data(), events.size(), static_cast<int>(std::clamp<decltype(left)>(left, 0, longest)));
        eventfd_t count = 0;
        if (_event) ::eventfd_read(_event->get(), &count);
    }

private:
    void show(int event) {
        const Nubo::Util::MutexLock lock(_channel._wakeMutex);
        _channel._wakeEvent = event;
    }

    SendChannel& _channel;
    std::optional<Descriptor> _event;
};

SendChannel::SendChannel(Key key, int descriptor, std::shared_ptr<Mailbox> mailbox)
    : _key(key), _descriptor(descriptor), _mailbox(std::move(mailbox)) {}

// --- senders ---

void SendChannel::send(const std::string& text, int flags) {
    if (_mailbox->onManagerThread()) {
        queueMessage(text, flags);
        return;
    }
    const TimePoint start = MonotonicClock::now();  // the wait for other senders counts
    const Turn turn(*this);
    requireOpenLocked();
    const std::size_t before = _pending.size();
    appendFrame(_pending, static_cast<unsigned>(flags), text);
    finishLocked(start, _pending.size() - before);
}

void SendChannel::requireOpenLocked() const {
    if (end() == End::Over || end() == End::Removed)
        throw Poco::Net::InvalidSocketException("connection closed");
    if (_closeWanted || _closeQueued) throw Poco::Net::InvalidSocketException("close frame sent");
    if (_failed) throw Poco::Net::InvalidSocketException(_failure);
    if (_cancelled) throw Poco::IOException("sends cancelled");
}

// Sends what was begun, and the frame behind it.
void SendChannel::finishLocked(TimePoint start, std::size_t frameSize) {
    StallWatch watch(StallWatch::Limit::NoProgressAndTotal);
    std::optional<Wake> wake;
    for (;;) {
        const Flushed result = sendPendingLocked();
        if (result == Flushed::Done) return;
        if (result == Flushed::Failed) throw Poco::IOException(_failure);
        if (!wake) wake.emplace(*this);
        if (_cancelled) withdrawLocked(frameSize);
        const TimePoint now = MonotonicClock::now();
        watch.begin(start, now, _descriptor);
        if (watch.stalled(now, _descriptor)) {
            _stalled = true;
            failLocked(Reasons::sendStalled());
            throw Poco::TimeoutException(_failure);
        }
        wake->wait(watch.due());
    }
}

// A frame that was begun stays, so that the close frame can follow it.
void SendChannel::withdrawLocked(std::size_t frameSize) {
    if (unsentLocked() >= frameSize) _pending.resize(_pending.size() - frameSize);
    throw Poco::IOException("send cancelled");
}

// Part of a frame may have gone out, so that nothing may follow it.
void SendChannel::failLocked(const std::string& why) noexcept {
    _managerWaits = true;
    std::string().swap(_pending);
    _sent = 0;
    if (_failed) return;
    try {
        _failure = why;
    } catch (const std::bad_alloc&) {
        _failure = "no memory";  // short enough to need none
    }
    _failed = true;
}

void SendChannel::sendClose() {
    if (end() == End::Over) throw Poco::Net::InvalidSocketException("connection closed");
    if (_failed) throw Poco::Net::InvalidSocketException(_failure);
    if (end() == End::Removed || _closeWanted.exchange(true)) return;
    callManager();
}

void SendChannel::cancelSends() {
    _cancelled = true;
    const Nubo::Util::MutexLock lock(_wakeMutex);
    if (_wakeEvent >= 0) ::eventfd_write(_wakeEvent, 1);
}

bool SendChannel::claimEnd(End how) {
    End none = End::None;
    return _end.compare_exchange_strong(none, how);
}

void SendChannel::remove(End how) {
    if (claimEnd(how)) callManager();
}

void SendChannel::callManager() noexcept {
    _mailbox->attend(shared_from_this());
}

// --- the manager's queue ---

void SendChannel::queueMessage(std::string_view text, int flags) {
    if (end() != End::None || _closeQueued || _closeWanted || _failed)
        throw Poco::Net::InvalidSocketException("connection closed");
    if (_cancelled) throw Poco::IOException("sends cancelled");
    if (_queued.size() + _backlog + text.size() > TransportLimits::MAX_QUEUED_BYTES)
        throw Poco::IOException("send queue full");
    _waiting.push_back({_queuedInAll, MonotonicClock::now() + TransportLimits::SEND_TOTAL});
    enqueue(static_cast<unsigned>(flags), text);
    _waiting.back().end = _queuedInAll;
    callManager();
}

void SendChannel::enqueue(unsigned firstByte, std::string_view payload) {
    const std::size_t before = _queued.size();
    appendFrame(_queued, firstByte, payload);
    _queuedInAll += _queued.size() - before;
}

void SendChannel::queuePing() {
    if (!closing()) enqueue(FrameBits::FIN | FrameBits::PING, "");
}

void SendChannel::queuePong(std::string_view payload) {
    if (closing()) return;
    if (_queued.size() + _backlog < TransportLimits::MAX_QUEUED_PONG_BYTES)
        enqueue(FrameBits::FIN | FrameBits::PONG, payload);
    else
        _latestPong = payload;
}

void SendChannel::queueClose(std::uint16_t code) {
    if (closing()) return;
    enqueue(FrameBits::FIN | FrameBits::CLOSE, closePayload(code));
    _closeQueued = true;
}

SendChannel::Flushed SendChannel::flush() {
    if (!hasQueued()) return Flushed::Done;
    if (!tryLock()) return Flushed::Busy;
    const Nubo::Util::MutexLock lock(_mutex, std::adopt_lock);
    takeQueuedLocked();
    Flushed result = sendPendingLocked();
    if (result == Flushed::Done && _latestPong && !closing()) {
        appendFrame(_pending, FrameBits::FIN | FrameBits::PONG, *std::exchange(_latestPong, std::nullopt));
        result = sendPendingLocked();
    }
    _backlog = unsentLocked();
    forgetSentMessages();
    return result;
}

// The second attempt finds the lock when its holder released it before it could see that the manager waits.
bool SendChannel::tryLock() {
    if (_mutex.tryLock()) return true;
    _managerWaits = true;
    return _mutex.tryLock();
}

void SendChannel::takeQueuedLocked() {
    _leftBehind = false;
    if (_failed) _queued.clear();
    if (_pending.empty())
        _pending.swap(_queued);
    else
        _pending += _queued;
    std::string().swap(_queued);
}

// What a cancelled sender has left behind counts as queued last, for want of a better place.
void SendChannel::forgetSentMessages() {
    const std::uint64_t sent = _queuedInAll - std::min<std::uint64_t>(_backlog, _queuedInAll);
    while (!_waiting.empty() && _waiting.front().end <= sent) _waiting.pop_front();
}

// --- both, with the lock held ---

SendChannel::Flushed SendChannel::sendPendingLocked() {
    while (unsentLocked() != 0) {
        const ssize_t sent =
            ::send(_descriptor, _pending.data() + _sent, unsentLocked(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            consumeLocked(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            return Flushed::Blocked;
        } else if (errno != EINTR) {
            failLocked(Reasons::systemText(errno));
            return Flushed::Failed;
        }
    }
    return Flushed::Done;
}

// Moves what is left to the front now and then, so that the text does not grow for ever.
void SendChannel::consumeLocked(std::size_t size) {
    _sent += size;
    if (unsentLocked() == 0)
        std::string().swap(_pending);
    else if (_sent > _pending.size() / 2)
        _pending.erase(0, _sent);
    else
        return;
    _sent = 0;
}

bool SendChannel::tryClose(Poco::Net::WebSocket& socket) {
    if (!tryLock()) return false;
    const Nubo::Util::MutexLock lock(_mutex, std::adopt_lock);
    socket.close();
    return true;
}

}  // namespace Nubo::Net
