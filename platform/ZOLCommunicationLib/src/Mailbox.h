#ifndef NUBO_NET_MAILBOX_H
#define NUBO_NET_MAILBOX_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "Descriptor.h"

namespace Nubo::Net {

class Connection;

/// What other threads have for a manager's thread, with the event descriptor that wakes it. Any thread may
/// post, never blocks for long, and may still do so when the manager is gone. The clock wakes the thread here
/// too.
class Mailbox {
public:
    /// Names a connection: the address of its socket's implementation.
    using Key = const void*;

    /// What the manager's thread is to do, and when.
    using Later = std::multimap<MonotonicClock::TimePoint, std::function<void()>>;

    struct Mail {
        std::vector<std::unique_ptr<Connection>> added;
        std::vector<Key> attention;  // may name connections that are gone
        Later later;
        bool stop = false;
    };

    Mailbox();
    ~Mailbox();

    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    void add(std::unique_ptr<Connection> connection);

    /// Has the manager's thread look at the state that the connection shares with senders.
    void attend(Key key);

    void callAt(MonotonicClock::TimePoint due, std::function<void()> action);

    void stop();
    void wake();

    /// Makes the calling thread the manager's thread.
    void bindToThisThread();
    bool onManagerThread() const;

    /// For the manager's thread: the descriptor to wait for, and what has come since the last call.
    int descriptor() const { return _event.get(); }
    Mail collect();

private:
    const Descriptor _event;  // of eventfd(2)

    Nubo::Util::Mutex _mutex;
    Mail _mail ZOL_GUARDED_BY(_mutex);
};

}  // namespace Nubo::Net

#endif
