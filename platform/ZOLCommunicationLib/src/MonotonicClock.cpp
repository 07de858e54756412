#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace Nubo::Net {

namespace {

struct Waiters {
    Nubo::Util::Mutex mutex;
    std::vector<int> descriptors ZOL_GUARDED_BY(mutex);
};

// Never destroyed, so that a manager may outlive static objects.
Waiters& waiters() {
    static auto& all = *new Waiters;
    return all;
}

std::atomic<MonotonicClock::Duration::rep> advanced{0};

}  // namespace

MonotonicClock::TimePoint MonotonicClock::now() {
    return std::chrono::steady_clock::now() + Duration(advanced.load());
}

void MonotonicClock::advance(std::chrono::milliseconds by) {
    advanced += Duration(by).count();
    const Nubo::Util::MutexLock lock(waiters().mutex);
    for (const int descriptor : waiters().descriptors) ::eventfd_write(descriptor, 1);
}

void MonotonicClock::addWaiter(int eventDescriptor) {
    const Nubo::Util::MutexLock lock(waiters().mutex);
    waiters().descriptors.push_back(eventDescriptor);
}

void MonotonicClock::removeWaiter(int eventDescriptor) {
    const Nubo::Util::MutexLock lock(waiters().mutex);
    auto& all = waiters().descriptors;
    all.erase(std::remove(all.begin(), all.end(), eventDescriptor), all.end());
}

}  // namespace Nubo::Net
