#include "ChangeSignal.h"

#include <algorithm>

namespace Nubo::Simulator {

using Clock = std::chrono::steady_clock;

namespace {
constexpr std::chrono::milliseconds LOOK_ANYWAY{50};
}

void ChangeSignal::raise() {
    {
        std::lock_guard<std::mutex> guard(_mutex);
        ++_count;
    }
    _raised.notify_all();
}

bool ChangeSignal::waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    std::unique_lock<std::mutex> lock(_mutex);
    for (;;) {
        const auto seen = _count;
        lock.unlock();
        if (condition()) return true;
        const auto now = Clock::now();
        if (now >= end) return false;
        lock.lock();
        _raised.wait_until(lock, std::min<Clock::time_point>(end, now + LOOK_ANYWAY),
                           [&] { return _count != seen; });
    }
}

}  // namespace Nubo::Simulator
