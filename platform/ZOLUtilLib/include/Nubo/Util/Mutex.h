#ifndef NUBO_UTIL_MUTEX_H
#define NUBO_UTIL_MUTEX_H

#include <mutex>

/// Which lock protects what, for clang's thread-safety analysis (scripts/lint runs it); nothing for other
/// compilers.
#if defined(__clang__)
#define ZOL_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ZOL_THREAD_SAFETY(attribute)
#endif

#define ZOL_GUARDED_BY(mutex) ZOL_THREAD_SAFETY(guarded_by(mutex))           ///< a member
#define ZOL_REQUIRES(mutex) ZOL_THREAD_SAFETY(requires_capability(mutex))    ///< callers hold it
#define ZOL_ACQUIRE(...) ZOL_THREAD_SAFETY(acquire_capability(__VA_ARGS__))  ///< it returns with the lock
#define ZOL_RELEASE(...) ZOL_THREAD_SAFETY(release_capability(__VA_ARGS__))  ///< it returns without the lock
/// It returns with the lock when its result is that of the first argument.
#define ZOL_TRY_ACQUIRE(...) ZOL_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))

namespace Nubo::Util {

/// std::mutex, which the analysis does not know.
class ZOL_THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() ZOL_ACQUIRE() { _mutex.lock(); }                        ///< waits for it
    void unlock() ZOL_RELEASE() { _mutex.unlock(); }                    ///< on the thread that locked it
    bool tryLock() ZOL_TRY_ACQUIRE(true) { return _mutex.try_lock(); }  ///< @return whether it was free

private:
    std::mutex _mutex;
};

/// Holds a Mutex as long as it lives.
class ZOL_THREAD_SAFETY(scoped_lockable) MutexLock {
public:
    /// Waits for `mutex`.
    explicit MutexLock(Mutex& mutex) ZOL_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    /// Takes over `mutex`, which the calling thread holds.
    MutexLock(Mutex& mutex, std::adopt_lock_t) ZOL_REQUIRES(mutex) : _mutex(mutex) {}
    ~MutexLock() ZOL_RELEASE() { _mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& _mutex;
};

}  // namespace Nubo::Util

#endif
