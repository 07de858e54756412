#include "SubscriptionBook.h"

#include <charconv>
#include <optional>

#include "UriText.h"

namespace Nubo::Client {
namespace {

/// The number before the first dash of the fragment; none unless it stands there as getUniqueId() writes it.
std::optional<unsigned> idOf(const std::string& virtualUri) {
    const UriText uri(virtualUri);
    const std::string& fragment = uri.fragment();
    const char* const end = fragment.data() + std::min(fragment.find('-'), fragment.size());
    unsigned id = 0;
    const auto [stop, error] = std::from_chars(fragment.data(), end, id);
    if (error != std::errc() || stop != end || fragment.front() == '0') return std::nullopt;
    return id;
}

}  // namespace

SubscriptionBook::Round::Round(SubscriptionBook& book, const Resource_t& resource)
    : _book(book),
      _outer(book._innermost),
      _next(resource.subscribers->second.begin()),
      _last(std::prev(resource.subscribers->second.end())) {
    book._innermost = this;
}

const std::string* SubscriptionBook::Round::next() {
    if (_done) return nullptr;
    const Place place = _next;
    stepOver(place);
    return &*place;
}

void SubscriptionBook::Round::stepOver(Place removed) {
    // By address: it may stand in another list.
    const bool isNext = !_done && &*removed == &*_next;
    const bool isLast = !_done && &*removed == &*_last;
    _done = _done || (isNext && isLast);
    if (_done) return;
    if (isNext) ++_next;
    if (isLast) --_last;
}

SubscriptionBook::Resource_t& SubscriptionBook::add(const std::string& realUri, const std::string& virtualUri,
                                                    bool autosubscribe) {
    std::list<std::string> one{virtualUri};
    Resource_t* resource = findByRealUri(realUri);
    if (resource == nullptr) resource = &addResource(realUri, virtualUri, autosubscribe);
    try {
        _bySubscriber[one.back()] = {resource, one.begin()};
    } catch (...) {
        if (resource->subscribers->second.empty()) removeResource(*resource);
        throw;
    }
    resource->subscribers->second.splice(resource->subscribers->second.end(), one);
    return *resource;
}

SubscriptionBook::Resource_t& SubscriptionBook::addResource(const std::string& realUri,
                                                            const std::string& event, bool autosubscribe) {
    const ServiceHandler::SubscriptionUriValue_t unknown{event, nullptr, autosubscribe};
    const auto value = _values.insert_or_assign(realUri, unknown).first;
    const auto subscribers = _subscribers.try_emplace(event).first;
    return _byEvent[subscribers->first] = {subscribers, value};
}

void SubscriptionBook::remove(const std::string& virtualUri) {
    const auto found = _bySubscriber.find(virtualUri);
    if (found == _bySubscriber.end()) return;
    const Place_t place = found->second;
    for (Round* round = _innermost; round != nullptr; round = round->_outer)
        round->stepOver(place.subscriber);
    if (const auto id = idOf(virtualUri)) _removedIds.insert(*id);
    _bySubscriber.erase(found);  // before the text that its key looks at
    std::list<std::string>& subscribers = place.resource->subscribers->second;
    subscribers.erase(place.subscriber);
    if (subscribers.empty()) removeResource(*place.resource);
}

void SubscriptionBook::removeResource(const Resource_t& resource) {
    const auto subscribers = resource.subscribers;
    _values.erase(resource.value);
    _byEvent.erase(subscribers->first);  // before the text that its key looks at
    _subscribers.erase(subscribers);
}

SubscriptionBook::Resource_t* SubscriptionBook::findByRealUri(const std::string& realUri) {
    const auto found = _values.find(realUri);
    return found == _values.end() ? nullptr : findByEvent(found->second.subscrUri);
}

SubscriptionBook::Resource_t* SubscriptionBook::findByEvent(std::string_view event) {
    const auto found = _byEvent.find(event);
    return found == _byEvent.end() ? nullptr : &found->second;
}

SubscriptionBook::Resource_t* SubscriptionBook::findBySubscriber(std::string_view virtualUri) {
    const auto found = _bySubscriber.find(virtualUri);
    return found == _bySubscriber.end() ? nullptr : found->second.resource;
}

bool SubscriptionBook::wasRemoved(const std::string& virtualUri) const {
    const auto id = idOf(virtualUri);
    return id && _removedIds.contains(*id);
}

std::vector<SubscriptionBook::Resource_t*> SubscriptionBook::notSentOn(uint64_t connection) {
    std::vector<Resource_t*> unsent;
    for (const auto& [realUri, value] : _values) {
        Resource_t* const resource = findByEvent(value.subscrUri);
        if (resource->sentOn != connection) unsent.push_back(resource);
    }
    return unsent;
}

}  // namespace Nubo::Client
