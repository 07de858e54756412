#ifndef NUBO_SIMULATOR_CHANGESIGNAL_H
#define NUBO_SIMULATOR_CHANGESIGNAL_H

#include <Nubo/Simulator/Happening.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace Nubo::Simulator {

/// Wakes whoever waits for something to happen anywhere on the platform, and passes on what it was. Locks
/// itself.
class ChangeSignal {
public:
    explicit ChangeSignal(const Observer& observer) : _observer(observer) {}

    /// Tells the observer, if there is one. Does not wake anybody.
    void report(const Happening_t& happening) const {
        if (_observer) _observer(happening);
    }

    /// Something happened.
    void raise();

    /// See Platform::waitFor().
    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline);

private:
    // Fixed after construction.
    const Observer _observer;

    std::mutex _mutex;  // leaf; never held while a condition is looked at
    std::condition_variable _raised;
    std::uint64_t _count = 0;  // Guarded by _mutex.
};

}  // namespace Nubo::Simulator

#endif
