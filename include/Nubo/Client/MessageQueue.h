#ifndef NUBO_CLIENT_MESSAGEQUEUE_H
#define NUBO_CLIENT_MESSAGEQUEUE_H

#include <Nubo/Client/IMessageSyncInterface.h>
#include <Nubo/Export.h>
#include <Nubo/Util/Mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>

namespace Nubo::Client {

/// A message sink that is ready for use: the library's threads put messages in, one thread of the application
/// (the "caller's thread") runs them, in the order in which they came. It runs closures for that thread, too.
///
/// A program without a loop of its own waits for messages:
///
///     MessageQueue queue;  // outlives the ClientLib
///     ClientLib client(&queue, parameters);
///     ...
///     while (!finished)
///         if (queue.wait(100ms)) queue.dispatch();
///
/// A program with a loop (poll, epoll, GLib, Qt, asio) watches descriptor() for input:
///
///     pollfd watched[] = {{queue.descriptor(), POLLIN, 0}, {socket, POLLIN, 0}};
///     while (::poll(watched, 2, -1) > 0) {
///         if (watched[0].revents != 0) queue.dispatch();
///         if (watched[1].revents != 0) readFrom(socket);
///     }
///
/// Another thread of the application hands its result over:
///
///     queue.post([&display, result] { display.show(result); });
///
/// Threads: dispatch(), dispatchUntil() and wait() belong to the caller's thread, which is always the same
/// one; all else may be called on any thread, and never blocks. No lock is held while a message runs.
///
/// A message or closure may enqueue, post and close. It must not run further messages, since callbacks of the
/// library must not: dispatch() and dispatchUntil() then run nothing, and say so in one Error line. One that
/// throws costs an Error line; the rest is run.
class ZOL_EXPORT MessageQueue : public IMessageSyncInterface {
public:
    static constexpr std::size_t UNBOUNDED = 0;  ///< no bound

    /// @param bound how many messages may wait; more are refused until there is room again, which is counted
    ///        (refused()), and said in a Warning line once until the queue has been empty. The event that a
    ///        refused message carries is lost, be it the news that a connection has ended: a bound is for an
    ///        application that would rather lose than grow.
    explicit MessageQueue(std::size_t bound = UNBOUNDED);

    /// Drops what is left, on the calling thread. No other thread may use the queue any more, and no message
    /// of it may be running.
    ~MessageQueue() override;

    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    /// As IMessageSyncInterface says. A refused message is released on the calling thread, an accepted one on
    /// the thread that runs or drops it. @return false at the bound and after close()
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override;

    /// Has the caller's thread run `closure`, once, as a message in its turn.
    /// @return false when it is refused, as messages are; it is destroyed on the calling thread then
    /// @throws std::bad_alloc
    bool post(std::function<void()> closure);

    /// Waits until a message is there, the queue is closed, or the time is over. Signals do not end it.
    /// @return whether a message is there; at once while one is, and when the queue is closed
    bool wait(std::chrono::milliseconds timeout);

    /// Runs the messages that are there at the moment of the call; those that come meanwhile are left for the
    /// next one, so that a loop gets round to its other work. Does not wait.
    /// @return how many it has run
    std::size_t dispatch();
    /// As dispatch(), but runs `atMost` messages at most.
    std::size_t dispatch(std::size_t atMost);
    /// As dispatch(), but begins no further message, except a first one, once it has taken that time.
    std::size_t dispatch(std::chrono::milliseconds atMost);

    /// Runs messages as they come, until done() is true or `timeout` is over: for programs that go step by
    /// step, and for tests. Asks done() first of all, after each message, and every 10 ms while none comes,
    /// for conditions that other threads fulfil.
    /// @return what done() said last; at once when the queue is closed, for nothing will come. What done()
    /// throws comes through.
    bool dispatchUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    /// A descriptor (an eventfd) that is readable exactly while messages are there, to be watched for input
    /// level-triggered, or edge-triggered by who dispatches until pending() is 0. Nobody reads, writes or
    /// closes it. It is made by the first call, the same ever after, and valid as long as the queue.
    /// @throws Poco::SystemException when the process has no descriptor left
    int descriptor();

    /// Refuses what comes from now on and drops what is left, on the calling thread. For good; repeated calls
    /// do nothing. A message that runs meanwhile comes to its end.
    void close();

    bool isClosed() const;          ///< since close()
    std::size_t pending() const;    ///< messages that wait now
    std::size_t highest() const;    ///< messages that have waited at the same time, at most
    std::uint64_t refused() const;  ///< messages refused so far, at the bound and after close()

private:
    enum class Verdict { Accepted, Refused, RefusedAsFull };

    Verdict store(Nubo::Util::DataMessageBase* message);
    Verdict refuseLocked() ZOL_REQUIRES(_mutex);
    void signalLocked(bool readable) ZOL_REQUIRES(_mutex);
    Nubo::Util::DataMessageBase* beginNext();
    bool runNext();
    bool mayRun();
    std::size_t run(std::size_t atMost, std::chrono::steady_clock::time_point until);

    const std::size_t _bound;

    // Leaf: held for a few instructions and for the eventfd, which does not block; never while a message runs
    // or is dropped, or a line is logged.
    mutable Nubo::Util::Mutex _mutex;
    std::condition_variable_any _changed;  // goes with _mutex
    std::deque<Nubo::Util::DataMessageBase*> _messages ZOL_GUARDED_BY(_mutex);
    std::size_t _highest ZOL_GUARDED_BY(_mutex) = 0;
    std::uint64_t _refused ZOL_GUARDED_BY(_mutex) = 0;
    int _descriptor ZOL_GUARDED_BY(_mutex) = -1;  // until it is asked for
    bool _closed ZOL_GUARDED_BY(_mutex) = false;
    bool _running ZOL_GUARDED_BY(_mutex) = false;        // a message
    bool _fullIsKnown ZOL_GUARDED_BY(_mutex) = false;    // logged since the queue was last empty
    bool _nestedIsKnown ZOL_GUARDED_BY(_mutex) = false;  // logged that dispatch() was entered again
};

}  // namespace Nubo::Client

#endif
