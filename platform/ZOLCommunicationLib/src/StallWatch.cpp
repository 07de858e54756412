#include "StallWatch.h"

#include <Nubo/Net/TransportLimits.h>

#include <algorithm>

#include "TcpProgress.h"

namespace Nubo::Net {

namespace {

constexpr std::chrono::milliseconds SAMPLE_INTERVAL{1000};

}  // namespace

void StallWatch::begin(MonotonicClock::TimePoint start, MonotonicClock::TimePoint now, int descriptor) {
    if (_active && start == _start) return;
    _active = true;
    _start = start;
    _sampled = now;
    _progress = now;
    _acknowledged = acknowledgedBytes(descriptor);
}

bool StallWatch::stalled(MonotonicClock::TimePoint now, int descriptor) {
    const std::uint64_t acknowledged = acknowledgedBytes(descriptor);
    if (acknowledged != _acknowledged) _progress = now;
    _acknowledged = acknowledged;
    _sampled = now;
    const bool tooLong = _limit == Limit::NoProgressAndTotal && now - _start >= TransportLimits::SEND_TOTAL;
    return tooLong || now - _progress >= TransportLimits::SEND_STALL;
}

MonotonicClock::TimePoint StallWatch::due() const {
    const auto next = std::min<MonotonicClock::TimePoint>(_sampled + SAMPLE_INTERVAL,
                                                          _progress + TransportLimits::SEND_STALL);
    if (_limit == Limit::NoProgress) return next;
    return std::min<MonotonicClock::TimePoint>(next, _start + TransportLimits::SEND_TOTAL);
}

}  // namespace Nubo::Net
