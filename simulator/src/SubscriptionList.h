#ifndef NUBO_SIMULATOR_SUBSCRIPTIONLIST_H
#define NUBO_SIMULATOR_SUBSCRIPTIONLIST_H

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Target.h"

namespace Nubo::Simulator {

/// How often a subscription is served: `updates` times in each `interval`, without a limit when that is 0.
struct Limit_t {
    std::chrono::milliseconds interval{0};
    long updates = 1;
};

/// The live subscriptions of one WebSocket, by event. Locks itself.
class SubscriptionList {
public:
    using Filter = std::function<bool(const Target_t&)>;

    /// Subscribing an event once more only sets its limit anew.
    void add(const Subscription_t& subscription, const Limit_t& limit);
    void remove(const std::string& event);
    void clear();

    /// Copies of those whose target meets `filter`, by event.
    std::vector<Subscription_t> matching(const Filter& filter) const;
    std::vector<Subscription_t> all() const;

    /// Whether the limit of a subscription lets it be served now; counts as served then.
    bool admit(const std::string& event);

    /// Remembers that a subscription has missed a change; takeMissed() tells and forgets which have,
    /// takeDue() only those that their limits let be served again.
    void markMissed(const std::string& event);
    std::vector<Subscription_t> takeMissed();
    std::vector<Subscription_t> takeDue();

    /// How long takeDue() need not be called; nothing when no subscription has a limit.
    std::optional<std::chrono::milliseconds> untilNextDue() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Entry_t {
        Target_t target;
        Limit_t limit;
        Clock::time_point intervalEnd;  // of the interval in which it was last served
        long served = 0;                // in that interval
        bool missed = false;
    };
    using EntryFilter = std::function<bool(const Entry_t&)>;

    std::vector<Subscription_t> takeMissed(const EntryFilter& filter);

    mutable std::mutex _mutex;  // leaf
    // Guarded by _mutex.
    std::map<std::string, Entry_t> _entries;
};

}  // namespace Nubo::Simulator

#endif
