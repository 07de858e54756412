#ifndef NUBO_SIMULATOR_SUBSCRIPTIONLIST_H
#define NUBO_SIMULATOR_SUBSCRIPTIONLIST_H

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Target.h"

namespace Nubo::Simulator {

/// The live subscriptions of one WebSocket, by event. Locks itself.
class SubscriptionList {
public:
    using Filter = std::function<bool(const Target_t&)>;

    /// Subscribing an event once more changes nothing.
    void add(const Subscription_t& subscription);
    void remove(const std::string& event);
    void clear();

    /// Copies of those whose target meets `filter`, by event.
    std::vector<Subscription_t> matching(const Filter& filter) const;
    std::vector<Subscription_t> all() const;

    /// Remembers that a subscription has missed a change; takeMissed() tells and forgets which have.
    void markMissed(const std::string& event);
    std::vector<Subscription_t> takeMissed();

private:
    mutable std::mutex _mutex;  // leaf
    // Guarded by _mutex.
    std::map<std::string, Target_t> _targets;
    std::set<std::string> _missed;
};

}  // namespace Nubo::Simulator

#endif
