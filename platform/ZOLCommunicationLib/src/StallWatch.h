#ifndef NUBO_NET_STALLWATCH_H
#define NUBO_NET_STALLWATCH_H

#include <Nubo/Net/MonotonicClock.h>

#include <cstdint>

namespace Nubo::Net {

/// Follows one send that the peer holds up, and tells when it has made no progress for too long or has lasted
/// too long. Used by one thread, about once a second while the send lasts.
class StallWatch {
public:
    enum class Limit { NoProgress, NoProgressAndTotal };

    explicit StallWatch(Limit limit) : _limit(limit) {}

    /// The send is under way since `start`; one that is followed already goes on being followed.
    void begin(MonotonicClock::TimePoint start, MonotonicClock::TimePoint now, int descriptor);
    void end() { _active = false; }
    bool active() const { return _active; }

    /// Whether the send has to be ended.
    bool stalled(MonotonicClock::TimePoint now, int descriptor);

    /// When to look again, while active.
    MonotonicClock::TimePoint due() const;

private:
    const Limit _limit;
    bool _active = false;
    MonotonicClock::TimePoint _start;
    MonotonicClock::TimePoint _sampled;   // when the count was last read
    MonotonicClock::TimePoint _progress;  // when it was last seen to have grown
    std::uint64_t _acknowledged = 0;
};

}  // namespace Nubo::Net

#endif
