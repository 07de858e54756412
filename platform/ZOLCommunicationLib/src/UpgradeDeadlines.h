#ifndef NUBO_NET_UPGRADEDEADLINES_H
#define NUBO_NET_UPGRADEDEADLINES_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>

#include <list>
#include <memory>
#include <utility>

#include "Descriptor.h"
#include "Mailbox.h"

namespace Nubo::Net {

/// The upgrades under way on a manager, each with its deadline. Sessions add and remove, the manager's thread
/// expires. Each upgrade is held by a descriptor of our own for the same socket, so that ending it never
/// meets POCO closing its own, nor another socket that has got that number since.
class UpgradeDeadlines {
public:
    struct Upgrade {
        explicit Upgrade(int socket);
        const Descriptor descriptor;
        const MonotonicClock::TimePoint due;
        bool expired = false;
    };
    using Handle = std::list<Upgrade>::iterator;

    /// @param mailbox  wakes the manager's thread when it has a new deadline to wait for.
    explicit UpgradeDeadlines(std::shared_ptr<Mailbox> mailbox) : _mailbox(std::move(mailbox)) {}

    /// Begins to watch the socket. @throws Poco::SystemException when there is no descriptor left.
    Handle add(int socket);

    /// Ends the watch; the socket is not touched afterwards.
    void remove(Handle upgrade);

    bool expired(Handle upgrade);

    /// For the manager's thread: the nearest deadline (max for none), and the end of all that have passed.
    MonotonicClock::TimePoint next();
    void expire(MonotonicClock::TimePoint now);

private:
    const std::shared_ptr<Mailbox> _mailbox;

    Nubo::Util::Mutex _mutex;
    // In the order of their deadlines, all being equally long.
    std::list<Upgrade> _pending ZOL_GUARDED_BY(_mutex);
    std::list<Upgrade> _expired ZOL_GUARDED_BY(_mutex);
};

/// One watched upgrade, for as long as this object lives.
class UpgradeDeadline {
public:
    UpgradeDeadline(UpgradeDeadlines& all, int socket) : _all(all), _upgrade(all.add(socket)) {}
    ~UpgradeDeadline() { _all.remove(_upgrade); }

    UpgradeDeadline(const UpgradeDeadline&) = delete;
    UpgradeDeadline& operator=(const UpgradeDeadline&) = delete;

    bool passed() const { return _all.expired(_upgrade); }

private:
    UpgradeDeadlines& _all;
    const UpgradeDeadlines::Handle _upgrade;
};

}  // namespace Nubo::Net

#endif
