#include <Logging/LogLine.h>
#include <Nubo/Client/MultiThreadingObject.h>
#include <Poco/Thread.h>

#include <algorithm>

namespace Nubo::Client {

using Lock = Poco::Mutex::ScopedLock;

namespace {
constexpr long POLL_INTERVAL_MS = 30;
constexpr std::size_t USUAL_ACTIVITIES = 8;
}  // namespace

MultiThreadingObject::MultiThreadingObject() : _alive(std::make_shared<std::atomic<bool>>(true)) {
    _activityThreads.reserve(USUAL_ACTIVITIES);  // so that a message is not lost for want of memory here
}

MultiThreadingObject::~MultiThreadingObject() {
    *_alive = false;
}

void MultiThreadingObject::startup() {
    Lock lock(_mutexActivityCounter);
    _disposing = false;
    _refusing = false;
}

void MultiThreadingObject::shutdown() {
    if (isInOwnActivity()) {
        ZOL_LOG_ERROR(
            "MultiThreadingObject::shutdown: called from inside an activity of the same object, "
            "for example from a callback: it waits for its own caller and never returns");
    }
    for (;;) {
        {
            // The zero test and the closing of the door happen under one hold of the lock: nobody slips in.
            Lock lock(_mutexActivityCounter);
            if (_activityCounter == 0) {
                _disposing = true;
                return;
            }
        }
        Poco::Thread::sleep(POLL_INTERVAL_MS);
    }
}

bool MultiThreadingObject::Disposing() {
    Lock lock(_mutexActivityCounter);
    return _disposing;
}

void MultiThreadingObject::refuseActivities() {
    Lock lock(_mutexActivityCounter);
    _refusing = true;
}

bool MultiThreadingObject::incrementActivityCounterInternal() {
    Lock lock(_mutexActivityCounter);
    if (_disposing || _refusing) return false;
    _activityThreads.push_back(std::this_thread::get_id());
    ++_activityCounter;
    return true;
}

void MultiThreadingObject::decrementActivityCounterInternal() {
    Lock lock(_mutexActivityCounter);
    --_activityCounter;
    // A guard leaves on the thread on which it entered: it lives on that thread's stack.
    const auto own = std::find(_activityThreads.begin(), _activityThreads.end(), std::this_thread::get_id());
    if (own != _activityThreads.end()) _activityThreads.erase(own);
}

bool MultiThreadingObject::isInOwnActivity() {
    Lock lock(_mutexActivityCounter);
    return std::find(_activityThreads.begin(), _activityThreads.end(), std::this_thread::get_id()) !=
           _activityThreads.end();
}

MultiThreadingObject::MultiThreadingObjectLockGuard::MultiThreadingObjectLockGuard(MultiThreadingObject* base)
    : _base(base) {}

MultiThreadingObject::MultiThreadingObjectLockGuard::~MultiThreadingObjectLockGuard() {
    try {
        Lock lock(_mutex);
        if (_incremented) _base->decrementActivityCounterInternal();
    } catch (...) {
        // A mutex that cannot be locked: nothing more can be done about this activity.
    }
}

bool MultiThreadingObject::MultiThreadingObjectLockGuard::tryEnter() {
    Lock lock(_mutex);
    _incremented = _base->incrementActivityCounterInternal();
    return _incremented;
}

}  // namespace Nubo::Client
