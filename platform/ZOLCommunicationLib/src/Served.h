#ifndef NUBO_NET_SERVED_H
#define NUBO_NET_SERVED_H

#include <Nubo/Net/MonotonicClock.h>

#include <list>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "Connection.h"
#include "SendChannel.h"

namespace Nubo::Net {

/// A connection, and what its loop has arranged for it. Whoever adds the connection allocates all places that
/// it will take in the loop's containers, so that the loop only moves nodes about, which cannot fail.
struct Served {
    using Timers = std::set<std::pair<MonotonicClock::TimePoint, Served*>>;
    using List = std::list<Served*>;

    explicit Served(std::unique_ptr<Connection> served);

    void moveTo(List& other) {
        other.splice(other.end(), *list, place);
        list = &other;
    }

    const std::unique_ptr<Connection> connection;
    unsigned interest = 0;    // what epoll waits for; 0: it does not know the descriptor
    Timers::node_type timer;  // empty while it is among the timers
    MonotonicClock::TimePoint due = MonotonicClock::TimePoint::max();  // of its timer; max: not among them
    List* list = &unlisted;                                            // where its place is
    List unlisted{this};
    const List::iterator place = unlisted.begin();
};

/// By the key of its channel. A node is made by the thread that adds the connection.
using ServedMap = std::map<SendChannel::Key, Served>;

}  // namespace Nubo::Net

#endif
