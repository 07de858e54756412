#ifndef CLIENTLIB_SRC_SUBSCRIPTIONBOOK_H
#define CLIENTLIB_SRC_SUBSCRIPTIONBOOK_H

#include <Nubo/Client/ServiceHandler.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "IdRanges.h"

namespace Nubo::Client {

/// Who subscribes to which resource of a handler: keeps the handler's two maps, and finds a place in them by
/// any of the three URIs. With n resources and subscribers, finding a resource by its real URI takes
/// O(log n), everything else the same or constant time.
///
/// Three kinds of URIs, all as ServiceHandler::normalizeUrl() writes them. The real URI names the resource. A
/// virtual URI names one subscriber: real URI, '#', the subscriber's id, '-', anything. The event of a
/// resource is the virtual URI of its first subscriber, and stays when that one has left: it is what the
/// service was sent and what it echoes. Caller's thread only; throws nothing itself.
class SubscriptionBook {
public:
    using Subscribers = ServiceHandler::SubscripersMapType;
    using Values = ServiceHandler::SubscrUriValueMapType;

    /// A resource with at least one subscriber. It stays where it is until the last one is removed.
    struct Resource_t {
        Subscribers::iterator subscribers;
        Values::iterator value;
        uint64_t sentOn =
            0;  ///< number of the connection on which the subscription was sent last, 0 for none

        const std::string& event() const { return subscribers->first; }
    };

    /// One delivery: hands out those who subscribe to a resource when it begins, as they came. Between two
    /// calls of next() anybody may be added, who is not handed out, and removed, who is not handed out
    /// either. Rounds may be nested: the last one made ends first.
    class Round {
    public:
        Round(SubscriptionBook& book, const Resource_t& resource);
        ~Round() { _book._innermost = _outer; }
        Round(const Round&) = delete;
        Round& operator=(const Round&) = delete;

        /// @return the next subscriber's virtual URI, valid until that one is removed; null behind the last
        const std::string* next();

    private:
        friend class SubscriptionBook;
        using Place = std::list<std::string>::const_iterator;

        void stepOver(Place removed);

        SubscriptionBook& _book;
        Round* const _outer;
        // Both ends are included; not used once `_done`.
        Place _next;
        Place _last;
        bool _done = false;
    };

    /// @param subscribers, values empty, not owned; changed by this object only, except for a value's `Value`
    SubscriptionBook(Subscribers& subscribers, Values& values) : _subscribers(subscribers), _values(values) {}
    SubscriptionBook(const SubscriptionBook&) = delete;
    SubscriptionBook& operator=(const SubscriptionBook&) = delete;

    /// Enters a subscriber, whose URI nobody has yet. `autosubscribe` counts for the resource's first one.
    Resource_t& add(const std::string& realUri, const std::string& virtualUri, bool autosubscribe);

    /// Takes a subscriber out, and with the last one the resource. Nothing happens when it is not there.
    void remove(const std::string& virtualUri);

    /// These return null when there is none.
    Resource_t* findByRealUri(const std::string& realUri);
    Resource_t* findByEvent(std::string_view event);            ///< @copydoc findByRealUri()
    Resource_t* findBySubscriber(std::string_view virtualUri);  ///< @copydoc findByRealUri()

    /// Whether the id in the URI's fragment is that of a subscriber who was removed. Remembered for ever, but
    /// in bounded memory: with more gaps between such ids than IdRanges keeps, the oldest gaps count as well.
    /// @throws Poco::SyntaxException when it is no URI
    bool wasRemoved(const std::string& virtualUri) const;

    /// The resources that were not sent on that connection, by real URI.
    std::vector<Resource_t*> notSentOn(uint64_t connection);

private:
    struct Place_t {
        Resource_t* resource;
        std::list<std::string>::iterator subscriber;
    };

    Resource_t& addResource(const std::string& realUri, const std::string& event, bool autosubscribe);
    void removeResource(const Resource_t& resource);

    Subscribers& _subscribers;
    Values& _values;
    // The keys look at texts in `_subscribers`: the keys of the map, and the entries of its lists.
    std::unordered_map<std::string_view, Resource_t> _byEvent;
    std::unordered_map<std::string_view, Place_t> _bySubscriber;
    IdRanges _removedIds;
    Round* _innermost = nullptr;
};

}  // namespace Nubo::Client

#endif
