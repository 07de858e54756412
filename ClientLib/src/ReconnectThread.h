#ifndef CLIENTLIB_SRC_RECONNECTTHREAD_H
#define CLIENTLIB_SRC_RECONNECTTHREAD_H

#include <Nubo/Net/Cancellation.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <cstdint>
#include <memory>

namespace Nubo::Client {

/// The reconnect thread of a handler: at most one at a time, any number one after the other, and none once it
/// was stopped for good. A Poco::Thread says nothing reliable about a second run (its timed join no longer
/// waits, and a second join is undefined), so what is known of the thread is kept here.
///
/// Every operation may be called from any thread, except those of Run and Attempt, which are the thread's.
/// None blocks, except join(). The lock is a leaf: it is held while a thread is started and while one that
/// has ended is joined, and never across a call-out.
class ReconnectThread {
public:
    /// Series of `count` attempts, `delayMs` milliseconds apart.
    struct Retries_t {
        uint8_t count;
        uint32_t delayMs;
    };

    /// @param thread, wait  the handler's, which outlive this object: what runs, and what wakes it
    ReconnectThread(Poco::Thread& thread, Poco::Event& wait) : _thread(thread), _wait(wait) {}
    ReconnectThread(const ReconnectThread&) = delete;
    ReconnectThread& operator=(const ReconnectThread&) = delete;

    /// Starts a run of `body`, which works by `retries`. A run that has not ended may be about to end: it is
    /// asked for another round instead. Does nothing after stopForGood().
    /// @throws Poco::SystemException when the system refuses a thread; it may be asked again.
    void start(Poco::Runnable& body, const Retries_t& retries);

    /// Has the run end: at its next wait, and at once if it is in an attempt. Takes back a further round.
    void wake();

    /// wake(), then waits up to `milliseconds`. @return true when no thread is left
    bool join(long milliseconds);

    /// wake(), and nothing runs, and nothing is attempted, from now on.
    void stopForGood();

    /// A run, from its first to its last line: the body's outermost local. Its destructor announces the end,
    /// however the body is left.
    class Run {
    public:
        explicit Run(ReconnectThread& owner) : _owner(owner) {}
        ~Run();
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;

        /// As they were when this round was asked for.
        Retries_t retries() const;

        /// The round's last decision, taken under the lock, so that no start() in between is missed.
        /// @param needed  asked only if another round was wanted; must take leaf locks only
        /// @return true: begin another round. false: leave.
        template <class Needed>
        bool again(const Needed& needed) {
            const Nubo::Util::MutexLock lock(_owner._mutex);
            const bool wanted = _owner._state == State::RunAgain && !_owner._stopped && needed();
            _left = !_owner.decideLocked(wanted);
            return !_left;
        }

    private:
        ReconnectThread& _owner;
        bool _left = false;  // decided: start() may be joining this thread, with the lock
    };

    /// One attempt of the thread to connect, which others can end.
    class Attempt {
    public:
        /// @throws Poco::SystemException when the system has no descriptor left
        explicit Attempt(ReconnectThread& owner);
        ~Attempt();
        Attempt(const Attempt&) = delete;
        Attempt& operator=(const Attempt&) = delete;

        const std::shared_ptr<const Nubo::Net::Cancellation>& cancellation() const { return _cancellation; }

    private:
        ReconnectThread& _owner;
        std::shared_ptr<const Nubo::Net::Cancellation> _cancellation;
    };

    /// Holds `mutex`, which the thread holds across its attempts. Does not wait for one: the attempt in
    /// progress is ended, and those that begin before the mutex is free. On the reconnect thread an ordinary
    /// lock.
    class Overtake {
    public:
        Overtake(ReconnectThread& owner, Poco::Mutex& mutex);
        ~Overtake() { _mutex.unlock(); }
        Overtake(const Overtake&) = delete;
        Overtake& operator=(const Overtake&) = delete;

    private:
        Poco::Mutex& _mutex;
    };

private:
    enum class State { Idle, Running, RunAgain };
    class GiveWay;

    void joinEndedLocked() ZOL_REQUIRES(_mutex);
    void wakeLocked() ZOL_REQUIRES(_mutex);
    void cancelAttemptLocked() ZOL_REQUIRES(_mutex);
    bool decideLocked(bool again) ZOL_REQUIRES(_mutex);

    Poco::Thread& _thread;
    Poco::Event& _wait;
    Poco::Event _ended{Poco::Event::EVENT_MANUALRESET};

    mutable Nubo::Util::Mutex _mutex;
    State _state ZOL_GUARDED_BY(_mutex) = State::Idle;
    bool _joined ZOL_GUARDED_BY(_mutex) = true;  // the last run; a second join is undefined
    bool _stopped ZOL_GUARDED_BY(_mutex) = false;
    Retries_t _retries ZOL_GUARDED_BY(_mutex){};      // of this round
    Retries_t _nextRetries ZOL_GUARDED_BY(_mutex){};  // of the round that was asked for last
    int _overtaking ZOL_GUARDED_BY(_mutex) = 0;       // who waits for a mutex that attempts hold
    std::shared_ptr<Nubo::Net::Cancellation> _attempt ZOL_GUARDED_BY(_mutex);
};

}  // namespace Nubo::Client

#endif
