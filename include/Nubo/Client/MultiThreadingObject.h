#ifndef NUBO_CLIENT_MULTITHREADINGOBJECT_H
#define NUBO_CLIENT_MULTITHREADINGOBJECT_H

#include <Nubo/Export.h>
#include <Poco/Mutex.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace Nubo::Client {

/// Base of objects that several threads work in: counts the activities that are running inside the object,
/// and lets `shutdown()` wait until none is left before it closes the door.
///
/// An activity enters through a MultiThreadingObjectLockGuard. States: open (after construction and every
/// `startup()`), draining (inside `shutdown()` while activities run; new ones still enter), disposing (after
/// `shutdown()`; nobody enters). Any number of such cycles is allowed. All operations may be called from any
/// thread; none of them blocks, but `shutdown()`.
class ZOL_EXPORT MultiThreadingObject {
public:
    /// One activity: lives on the stack of the thread that does the work.
    ///
    ///     MultiThreadingObjectLockGuard guard(this);
    ///     if (!guard.tryEnter()) return;  // being disposed of: leave silently
    class ZOL_EXPORT MultiThreadingObjectLockGuard {
    public:
        /// Does not enter. `base` is not owned and outlives the guard.
        explicit MultiThreadingObjectLockGuard(MultiThreadingObject* base);
        /// Ends the activity if `tryEnter()` had succeeded.
        ~MultiThreadingObjectLockGuard();
        MultiThreadingObjectLockGuard(const MultiThreadingObjectLockGuard&) = delete;
        MultiThreadingObjectLockGuard& operator=(const MultiThreadingObjectLockGuard&) = delete;

        /// Enters the object; to be called once per guard.
        /// @return false when the object is disposing, or refuses: the caller must leave it alone.
        bool tryEnter();

    private:
        MultiThreadingObject* _base;
        bool _incremented = false;
        Poco::Mutex _mutex;
    };

    /// Tells, at any time and from any thread, whether an object still exists. Posted messages keep one,
    /// since they may be run after the object that posted them was destroyed.
    class Liveness {
    public:
        /// For an object that is no MultiThreadingObject: it always counts as alive.
        Liveness() = default;
        /// For `object`, which need not live as long.
        explicit Liveness(const MultiThreadingObject& object) : _alive(object._alive) {}

        /// @return false once the destructor of the object has run. Any thread.
        bool alive() const { return !_alive || _alive->load(); }

    private:
        std::shared_ptr<const std::atomic<bool>> _alive;
    };

    MultiThreadingObject();
    /// Does not wait for activities: owners call `shutdown()` first.
    virtual ~MultiThreadingObject();
    MultiThreadingObject(const MultiThreadingObject&) = delete;
    MultiThreadingObject& operator=(const MultiThreadingObject&) = delete;

    /// Opens the object (again).
    virtual void startup();

    /// Waits, without a time limit, until no activity is entered (looking every 30 ms), then refuses all
    /// further ones. Must not be called from inside an activity of the same object: it would wait for its own
    /// caller for ever. That mistake is reported with an Error line.
    virtual void shutdown();

    /// @return true from the end of `shutdown()` until the next `startup()`.
    bool Disposing();

    /// @return true while the calling thread is inside at least one of the activities.
    bool isInOwnActivity();

protected:
    /// Refuses further activities until the next `startup()`, without waiting for those that are entered: may
    /// be called from inside one. The object does not count as shut down.
    void refuseActivities();

private:
    bool incrementActivityCounterInternal();
    void decrementActivityCounterInternal();

    uint32_t _activityCounter = 0;      // guarded by _mutexActivityCounter
    Poco::Mutex _mutexActivityCounter;  // leaf: held for a few instructions, never across user code
    bool _disposing = false;            // guarded by _mutexActivityCounter, as is the next
    bool _refusing = false;
    // One entry per activity, guarded by _mutexActivityCounter: whose thread is inside.
    std::vector<std::thread::id> _activityThreads;
    // Outlives the object in the hands of its messages; false once the destructor ran.
    std::shared_ptr<std::atomic<bool>> _alive;
};

}  // namespace Nubo::Client

#endif
