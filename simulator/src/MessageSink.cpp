#include <Nubo/Simulator/MessageSink.h>
#include <Poco/AutoPtr.h>

#include <algorithm>

namespace Nubo::Simulator {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds LOOK_ANYWAY{10};

/// Owns a message's one reference and ends the message properly, whatever happens.
class Message {
public:
    explicit Message(Poco::Notification* notification)
        : _message(static_cast<Nubo::Util::DataMessageBase*>(notification)) {}
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() {
        if (_message) _message->destroyData();
    }

    explicit operator bool() const { return !_message.isNull(); }
    void run() { _message->processData(); }

private:
    Poco::AutoPtr<Nubo::Util::DataMessageBase> _message;
};

/// What is left until `end`, rounded up so that nobody spins through the last millisecond.
std::chrono::milliseconds until(Clock::time_point end) {
    return std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
}

}  // namespace

MessageSink::~MessageSink() {
    while (Message(_queue.dequeueNotification())) {
    }
}

bool MessageSink::enqueueDataMessage(Nubo::Util::DataMessageBase* message) {
    if (_refusing) {
        Message dropped(message);
        return false;
    }
    _queue.enqueueNotification(Poco::Notification::Ptr(message));
    return true;
}

std::size_t MessageSink::dispatch() {
    const std::size_t queued = pending();
    for (std::size_t done = 0; done < queued; ++done) {
        Message message(_queue.dequeueNotification());
        if (!message) return done;
        message.run();
    }
    return queued;
}

bool MessageSink::dispatchUntil(const std::function<bool()>& done, std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    for (;;) {
        if (done()) return true;
        const auto left = until(end);
        if (left.count() <= 0) return false;
        Message message(
            _queue.waitDequeueNotification(static_cast<long>(std::min(left, LOOK_ANYWAY).count())));
        if (message) message.run();
    }
}

}  // namespace Nubo::Simulator
