#ifndef NUBO_NET_MAILBOX_H
#define NUBO_NET_MAILBOX_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>

#include <functional>
#include <map>
#include <memory>

#include "Descriptor.h"
#include "SendChannel.h"
#include "Served.h"

namespace Nubo::Net {

/// What other threads have for a manager's thread, with the event descriptor that wakes it. Any thread may
/// post, never blocks for long, and may still do so when the manager is gone. The clock wakes the thread here
/// too. What is posted brings its own memory, so that the manager's thread needs none to take it.
class Mailbox {
public:
    /// What the manager's thread is to do, and when.
    using Later = std::multimap<MonotonicClock::TimePoint, std::function<void()>>;

    struct Mail {
        ServedMap added;
        Later later;
        bool stop = false;
    };

    Mailbox();
    ~Mailbox();

    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    void add(ServedMap::node_type connection);

    /// Has the manager's thread look at the state that the connection shares with other threads.
    void attend(std::shared_ptr<SendChannel> channel) noexcept;

    void callAt(MonotonicClock::TimePoint due, std::function<void()> action);

    void stop();

    /// Makes the calling thread the manager's thread.
    void bindToThisThread();
    bool onManagerThread() const;

    // For the manager's thread.

    /// The descriptor to wait for.
    int descriptor() const { return _event.get(); }

    /// What has come since the last call.
    Mail collect();

    /// The connections to be looked at that were in the last collect(), one by one; null at the end. Each may
    /// be gone.
    std::shared_ptr<SendChannel> nextAttention();

    /// Nobody collects any more: what comes is thrown away.
    void close();

private:
    void wake();

    const Descriptor _event;  // of eventfd(2)

    Nubo::Util::Mutex _mutex;
    Mail _mail ZOL_GUARDED_BY(_mutex);
    // Linked by SendChannel::_nextInMail.
    std::shared_ptr<SendChannel> _attention ZOL_GUARDED_BY(_mutex);
    std::shared_ptr<SendChannel> _collected ZOL_GUARDED_BY(_mutex);
    bool _closed ZOL_GUARDED_BY(_mutex) = false;
};

}  // namespace Nubo::Net

#endif
