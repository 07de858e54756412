#ifndef NUBO_NET_MONOTONICCLOCK_H
#define NUBO_NET_MONOTONICCLOCK_H

#include <Nubo/Export.h>

#include <chrono>

namespace Nubo::Net {

/// The one clock behind every timer of the transport: the system's monotonic clock plus what tests have
/// added. All operations may be called from any thread and never block for long.
class ZOL_EXPORT MonotonicClock {
public:
    using TimePoint = std::chrono::steady_clock::time_point;  ///< what now() returns
    using Duration = std::chrono::steady_clock::duration;     ///< between two of them

    /// The time now. Never goes back.
    static TimePoint now();

    /// Puts the clock forward for the whole process, for good, and wakes every thread that waits for a timer.
    /// For tests: a timer of thirty seconds is due at once after advance(30 s).
    static void advance(std::chrono::milliseconds by);

    /// Has `eventDescriptor` (of eventfd(2), owned by the caller) written to at every advance(), until
    /// removeWaiter(). After removeWaiter() has returned, the descriptor is no longer used.
    static void addWaiter(int eventDescriptor);
    static void removeWaiter(int eventDescriptor);  ///< undoes addWaiter()
};

}  // namespace Nubo::Net

#endif
