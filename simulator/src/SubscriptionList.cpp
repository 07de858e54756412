#include "SubscriptionList.h"

#include <algorithm>

namespace Nubo::Simulator {

using std::chrono::milliseconds;
using Guard = std::lock_guard<std::mutex>;

void SubscriptionList::add(const Subscription_t& subscription, const Limit_t& limit) {
    Guard guard(_mutex);
    auto& entry = _entries[subscription.event];
    entry.target = subscription.target;
    entry.limit = limit;
}

void SubscriptionList::remove(const std::string& event) {
    Guard guard(_mutex);
    _entries.erase(event);
}

void SubscriptionList::clear() {
    Guard guard(_mutex);
    _entries.clear();
}

std::vector<Subscription_t> SubscriptionList::matching(const Filter& filter) const {
    Guard guard(_mutex);
    std::vector<Subscription_t> matching;
    for (const auto& [event, entry] : _entries)
        if (filter(entry.target)) matching.push_back({event, entry.target});
    return matching;
}

std::vector<Subscription_t> SubscriptionList::all() const {
    return matching([](const Target_t&) { return true; });
}

bool SubscriptionList::admit(const std::string& event) {
    Guard guard(_mutex);
    const auto found = _entries.find(event);
    if (found == _entries.end() || found->second.limit.interval.count() == 0) return true;
    Entry_t& entry = found->second;
    const auto now = Clock::now();
    if (now >= entry.intervalEnd) {
        entry.intervalEnd = now + entry.limit.interval;
        entry.served = 0;
    }
    if (entry.served >= entry.limit.updates) return false;
    ++entry.served;
    return true;
}

void SubscriptionList::markMissed(const std::string& event) {
    Guard guard(_mutex);
    const auto found = _entries.find(event);
    if (found != _entries.end()) found->second.missed = true;
}

std::vector<Subscription_t> SubscriptionList::takeMissed() {
    return takeMissed([](const Entry_t&) { return true; });
}

std::vector<Subscription_t> SubscriptionList::takeDue() {
    const auto now = Clock::now();
    return takeMissed([now](const Entry_t& entry) { return now >= entry.intervalEnd; });
}

std::vector<Subscription_t> SubscriptionList::takeMissed(const EntryFilter& filter) {
    Guard guard(_mutex);
    std::vector<Subscription_t> missed;
    for (auto& [event, entry] : _entries) {
        if (!entry.missed || !filter(entry)) continue;
        entry.missed = false;
        missed.push_back({event, entry.target});
    }
    return missed;
}

// An interval that has not begun yet can end no sooner than its length from now.
std::optional<milliseconds> SubscriptionList::untilNextDue() const {
    Guard guard(_mutex);
    const auto now = Clock::now();
    std::optional<milliseconds> next;
    for (const auto& [event, entry] : _entries) {
        if (entry.limit.interval.count() == 0) continue;
        const auto left = now < entry.intervalEnd ? std::chrono::ceil<milliseconds>(entry.intervalEnd - now)
                                                  : entry.limit.interval;
        next = std::min(next.value_or(left), left);
    }
    return next;
}

}  // namespace Nubo::Simulator
