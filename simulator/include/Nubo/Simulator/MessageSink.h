#ifndef NUBO_SIMULATOR_MESSAGESINK_H
#define NUBO_SIMULATOR_MESSAGESINK_H

#include <Nubo/Client/IMessageSyncInterface.h>
#include <Poco/NotificationQueue.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>

namespace Nubo::Simulator {

/// A message sink for programs whose own thread has nothing better to do than to run messages: examples,
/// tools and tests. Messages are run in the order in which they came.
///
/// A message that was accepted is also released on the thread that runs it, never on the one that posts it.
/// The thread that calls dispatch() or dispatchUntil() is the "caller's thread" of the library; it should be
/// the same one every time. The sink outlives the ClientLib that posts to it.
class MessageSink : public Nubo::Client::IMessageSyncInterface {
public:
    MessageSink() = default;
    MessageSink(const MessageSink&) = delete;
    MessageSink& operator=(const MessageSink&) = delete;

    /// Releases the messages that are left, without running them. No other thread may use the sink any more.
    ~MessageSink() override;

    /// Stores `message` and wakes a waiting dispatchUntil(). While the sink refuses, drops it instead. Any
    /// thread; never blocks.
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override;

    /// Runs the messages that are queued at the moment of the call on the calling thread and returns how many
    /// there were; messages that these post in turn wait for the next call. Does not wait.
    /// An exception that a message throws comes through; that message is released, the later ones stay
    /// queued.
    std::size_t dispatch();

    /// Runs messages on the calling thread as they come, until done() is true or `deadline` has passed.
    /// done() is looked at first of all, after every message, and while nothing comes every 10 ms (for
    /// conditions that other threads fulfil). A message is run as soon as it is posted.
    /// @return what done() said last. Exceptions as with dispatch().
    bool dispatchUntil(const std::function<bool()>& done, std::chrono::milliseconds deadline);

    /// true: every message from now on is refused (and released here), as by an application that is full;
    /// false: messages are accepted again. Any thread.
    void refuse(bool refuseMessages) { _refusing = refuseMessages; }

    /// How many messages wait to be run. Any thread.
    std::size_t pending() const { return static_cast<std::size_t>(_queue.size()); }

private:
    // Each locks itself.
    Poco::NotificationQueue _queue;
    std::atomic<bool> _refusing{false};
};

}  // namespace Nubo::Simulator

#endif
