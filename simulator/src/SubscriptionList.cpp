#include "SubscriptionList.h"

namespace Nubo::Simulator {

void SubscriptionList::add(const Subscription_t& subscription) {
    std::lock_guard<std::mutex> guard(_mutex);
    _targets[subscription.event] = subscription.target;
}

void SubscriptionList::remove(const std::string& event) {
    std::lock_guard<std::mutex> guard(_mutex);
    _targets.erase(event);
    _missed.erase(event);
}

void SubscriptionList::clear() {
    std::lock_guard<std::mutex> guard(_mutex);
    _targets.clear();
    _missed.clear();
}

std::vector<Subscription_t> SubscriptionList::matching(const Filter& filter) const {
    std::lock_guard<std::mutex> guard(_mutex);
    std::vector<Subscription_t> matching;
    for (const auto& [event, target] : _targets)
        if (filter(target)) matching.push_back({event, target});
    return matching;
}

std::vector<Subscription_t> SubscriptionList::all() const {
    return matching([](const Target_t&) { return true; });
}

void SubscriptionList::markMissed(const std::string& event) {
    std::lock_guard<std::mutex> guard(_mutex);
    _missed.insert(event);
}

std::vector<Subscription_t> SubscriptionList::takeMissed() {
    std::lock_guard<std::mutex> guard(_mutex);
    std::vector<Subscription_t> missed;
    for (const auto& event : _missed) missed.push_back({event, _targets[event]});
    _missed.clear();
    return missed;
}

}  // namespace Nubo::Simulator
