#include <Logging/LogLine.h>
#include <Nubo/Client/MessageQueue.h>
#include <Poco/AutoPtr.h>
#include <Poco/Error.h>
#include <Poco/Exception.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "RunGuarded.h"

namespace Nubo::Client {

using Nubo::Util::DataMessageBase;
using Nubo::Util::MutexLock;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr milliseconds LOOK_ANYWAY{10};
constexpr std::size_t ALL = std::numeric_limits<std::size_t>::max();
constexpr const char* DISPATCH = "MessageQueue::dispatch";

/// Owns a message's one reference, and ends the message properly.
class Owned {
public:
    explicit Owned(DataMessageBase* message) : _message(message) {}
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() {
        if (_message) runGuarded(DISPATCH, [this] { _message->destroyData(); });
    }

    explicit operator bool() const { return !_message.isNull(); }
    void run() {
        runGuarded(DISPATCH, [this] { _message->processData(); });
    }

private:
    Poco::AutoPtr<DataMessageBase> _message;
};

class ClosureMessage : public DataMessageBase {
public:
    explicit ClosureMessage(std::function<void()> closure) : _closure(std::move(closure)) {}

    void processData() override { _closure(); }

private:
    ~ClosureMessage() override = default;

    const std::function<void()> _closure;
};

/// @param timeout may be as long as its type can say
Clock::time_point after(milliseconds timeout) {
    const auto now = Clock::now();
    const auto longest = std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - now);
    return now + std::clamp(timeout, milliseconds::zero(), longest);
}

}  // namespace

MessageQueue::MessageQueue(std::size_t bound) : _bound(bound) {}

MessageQueue::~MessageQueue() {
    close();
    MutexLock lock(_mutex);
    if (_descriptor >= 0) ::close(_descriptor);
}

// --- any thread ---

bool MessageQueue::enqueueDataMessage(DataMessageBase* message) {
    const Verdict verdict = store(message);
    if (verdict == Verdict::Accepted) return true;
    // cppcheck-suppress shadowFunction
    const Owned refused(message);
    if (verdict == Verdict::RefusedAsFull) {
        ZOL_LOG_WARNING("MessageQueue::enqueueDataMessage: " << _bound << " messages wait, more are refused");
    }
    return false;
}

bool MessageQueue::post(std::function<void()> closure) {
    return enqueueDataMessage(new ClosureMessage(std::move(closure)));
}

MessageQueue::Verdict MessageQueue::store(DataMessageBase* message) {
    MutexLock lock(_mutex);
    if (_closed || (_bound != UNBOUNDED && _messages.size() >= _bound)) return refuseLocked();
    try {
        _messages.push_back(message);
    } catch (const std::bad_alloc&) {
        return refuseLocked();
    }
    _highest = std::max(_highest, _messages.size());
    if (_messages.size() == 1) signalLocked(true);
    // Under the lock: who has run the message may destroy the queue.
    _changed.notify_one();
    return Verdict::Accepted;
}

MessageQueue::Verdict MessageQueue::refuseLocked() {
    ++_refused;
    if (_closed || std::exchange(_fullIsKnown, true)) return Verdict::Refused;
    return Verdict::RefusedAsFull;
}

int MessageQueue::descriptor() {
    MutexLock lock(_mutex);
    if (_descriptor < 0) {
        _descriptor = ::eventfd(_messages.empty() ? 0 : 1, EFD_CLOEXEC | EFD_NONBLOCK);
        if (_descriptor < 0) throw Poco::SystemException("eventfd", Poco::Error::getMessage(errno), errno);
    }
    return _descriptor;
}

// Called when the queue ceases or begins to be empty: the count is 0 or 1, so that neither call can fail.
void MessageQueue::signalLocked(bool readable) {
    if (_descriptor < 0) return;
    eventfd_t ignored = 0;
    if (readable)
        ::eventfd_write(_descriptor, 1);
    else
        ::eventfd_read(_descriptor, &ignored);
}

void MessageQueue::close() {
    std::deque<DataMessageBase*> left;
    {
        MutexLock lock(_mutex);
        if (_closed) return;
        _closed = true;
        left.swap(_messages);
        if (!left.empty()) signalLocked(false);
        _changed.notify_all();
    }
    for (DataMessageBase* message : left) const Owned dropped(message);
}

bool MessageQueue::isClosed() const {
    MutexLock lock(_mutex);
    return _closed;
}

std::size_t MessageQueue::pending() const {
    MutexLock lock(_mutex);
    return _messages.size();
}

std::size_t MessageQueue::highest() const {
    MutexLock lock(_mutex);
    return _highest;
}

std::uint64_t MessageQueue::refused() const {
    MutexLock lock(_mutex);
    return _refused;
}

// --- caller's thread ---

bool MessageQueue::wait(milliseconds timeout) {
    const auto end = after(timeout);
    MutexLock lock(_mutex);
    while (_messages.empty() && !_closed) {
        if (_changed.wait_until(_mutex, end) == std::cv_status::timeout) break;
    }
    return !_messages.empty();
}

std::size_t MessageQueue::dispatch() {
    return run(ALL, Clock::time_point::max());
}

std::size_t MessageQueue::dispatch(std::size_t atMost) {
    return run(atMost, Clock::time_point::max());
}

std::size_t MessageQueue::dispatch(milliseconds atMost) {
    return run(ALL, after(atMost));
}

std::size_t MessageQueue::run(std::size_t atMost, Clock::time_point until) {
    if (!mayRun()) return 0;
    const std::size_t count = std::min(atMost, pending());
    const auto mayBegin = [&](std::size_t done) {
        return done < count && (done == 0 || until == Clock::time_point::max() || Clock::now() < until);
    };
    std::size_t done = 0;
    while (mayBegin(done) && runNext()) ++done;
    return done;
}

bool MessageQueue::dispatchUntil(const std::function<bool()>& done, milliseconds timeout) {
    if (!mayRun()) return done();
    const auto end = after(timeout);
    while (!done()) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left <= milliseconds::zero()) return false;
        if (wait(std::min(left, LOOK_ANYWAY)))
            runNext();
        else if (isClosed())
            return done();
    }
    return true;
}

bool MessageQueue::mayRun() {
    {
        MutexLock lock(_mutex);
        if (!_running) return true;
        if (std::exchange(_nestedIsKnown, true)) return false;
    }
    ZOL_LOG_ERROR(DISPATCH << ": called while a message runs: runs nothing");
    return false;
}

// @return false when there is none
bool MessageQueue::runNext() {
    Owned message(beginNext());
    if (!message) return false;
    message.run();
    MutexLock lock(_mutex);
    _running = false;
    return true;
}

DataMessageBase* MessageQueue::beginNext() {
    MutexLock lock(_mutex);
    if (_running || _messages.empty()) return nullptr;
    DataMessageBase* const message = _messages.front();
    _messages.pop_front();
    _running = true;
    if (_messages.empty()) {
        signalLocked(false);
        _fullIsKnown = false;
    }
    return message;
}

}  // namespace Nubo::Client
