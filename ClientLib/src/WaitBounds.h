#ifndef CLIENTLIB_SRC_WAITBOUNDS_H
#define CLIENTLIB_SRC_WAITBOUNDS_H

#include <Nubo/Net/Cancellation.h>
#include <Nubo/Net/MonotonicClock.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::Client {

/// How long a thread may deal with a peer in all, and what ends that early. Every wait is made by await(), so
/// that a peer which sends a byte now and then gains no time. Used by one thread; the cancellations may come
/// from any.
class WaitBounds {
public:
    using Cancellations = std::vector<std::shared_ptr<const Nubo::Net::Cancellation>>;
    using Clock = Nubo::Net::MonotonicClock;

    /// @param total  from now on; a day at most
    /// @param cancellations  null ones are left out
    WaitBounds(std::chrono::milliseconds total, const Cancellations& cancellations);

    /// Begins a phase, which has so long from now on, or what is left of the whole.
    void beginPhase(std::chrono::milliseconds atMost);
    /// Leaves all that is left of the whole to what follows.
    void endPhase() { _phaseDue = _due; }

    /// What is waited for, as the exception of a time-out tells it.
    void setAim(std::string aim) { _aim = std::move(aim); }

    /// Waits until poll(2) reports one of `events` (or an error) of the descriptor.
    /// @throws Poco::TimeoutException when the time is over, Poco::Net::ConnectionAbortedException when
    ///         cancelled; both also when the descriptor is ready
    void await(int descriptor, short events) const;

    /// Throws as await(), without a wait.
    void check() const;

private:
    bool polled(int descriptor, short events, int milliseconds) const;
    int millisecondsLeft() const;

    const Cancellations _cancellations;
    const Clock::TimePoint _due;
    Clock::TimePoint _phaseDue;
    std::string _aim;
};

}  // namespace Nubo::Client

#endif
