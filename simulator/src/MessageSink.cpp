#include <Nubo/Simulator/MessageSink.h>
#include <Poco/AutoPtr.h>

#include <algorithm>
#include <utility>

namespace Nubo::Simulator {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds LOOK_ANYWAY{10};

using Nubo::Util::DataMessageBase;

/// A message in the queue. The queue leaves a reference with the thread that enqueues, and drops it after the
/// message may have been run: only the envelope may end there, never the message.
class Envelope : public Poco::Notification {
public:
    explicit Envelope(DataMessageBase* message) : _message(message) {}

    DataMessageBase* take() { return std::exchange(_message, nullptr); }

private:
    ~Envelope() override = default;

    DataMessageBase* _message;
};

/// Owns a message's one reference and ends the message properly, whatever happens.
class Message {
public:
    explicit Message(DataMessageBase* message) : _message(message) {}
    /// Takes over what a queue has returned, null included.
    explicit Message(Poco::Notification* dequeued) {
        const Poco::Notification::Ptr envelope(dequeued);
        if (envelope) _message = static_cast<Envelope*>(dequeued)->take();
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() {
        if (_message) _message->destroyData();
    }

    explicit operator bool() const { return !_message.isNull(); }
    void run() { _message->processData(); }

private:
    Poco::AutoPtr<DataMessageBase> _message;
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

bool MessageSink::enqueueDataMessage(DataMessageBase* message) {
    if (_refusing) {
        Message dropped(message);
        return false;
    }
    _queue.enqueueNotification(Poco::Notification::Ptr(new Envelope(message)));
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
