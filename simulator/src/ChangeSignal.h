#ifndef NUBO_SIMULATOR_CHANGESIGNAL_H
#define NUBO_SIMULATOR_CHANGESIGNAL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace Nubo::Simulator {

/// Wakes whoever waits for something to happen anywhere on the platform. Locks itself.
class ChangeSignal {
public:
    /// Something happened.
    void raise();

    /// See Platform::waitFor().
    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline);

private:
    std::mutex _mutex;  // leaf; never held while a condition is looked at
    std::condition_variable _raised;
    std::uint64_t _count = 0;  // Guarded by _mutex.
};

}  // namespace Nubo::Simulator

#endif
