#ifndef NUBO_NET_CONNECTIONLOOP_H
#define NUBO_NET_CONNECTIONLOOP_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Connection.h"
#include "Descriptor.h"
#include "EventRaiser.h"
#include "Mailbox.h"
#include "UpgradeDeadlines.h"

struct epoll_event;

namespace Nubo::Net {

/// The manager's thread and what it works on. Each turn: wait for descriptors, mail or the nearest timer;
/// read and write what is ready; act on what has become due; close what has ended.
class ConnectionLoop {
public:
    explicit ConnectionLoop(WebsocketConnectionManager& manager);

    /// Ends all connections and joins the thread.
    ~ConnectionLoop();

    ConnectionLoop(const ConnectionLoop&) = delete;
    ConnectionLoop& operator=(const ConnectionLoop&) = delete;

    /// From any thread; see WebsocketConnectionManager::addConnection().
    void add(const Poco::SharedPtr<Poco::Net::WebSocket>& socket, std::chrono::milliseconds silence);

    /// From any thread; see WebsocketConnectionManager::callLater().
    void callLater(std::chrono::milliseconds delay, std::function<void()> action);

    /// From any thread.
    UpgradeDeadlines& upgrades() { return _upgrades; }

private:
    using TimePoint = MonotonicClock::TimePoint;

    /// A connection and what the loop has arranged for it.
    struct Served {
        explicit Served(std::unique_ptr<Connection> c) : connection(std::move(c)) {}
        const std::unique_ptr<Connection> connection;
        TimePoint due = TimePoint::max();  // its entry in _timers; max: it has none
        bool watched = false;              // by epoll
        bool writing = false;              // EPOLLOUT is asked for
        bool lingering = false;            // is in _lingering
    };

    void run();
    void turn();
    int waitMilliseconds();
    void serveReady(const epoll_event& event);
    void readMail();
    void begin(std::unique_ptr<Connection> connection);
    void beginStop();
    void runTimers();
    void callDue();
    void checkOwners();
    void closeEnded();

    template <typename Action>
    void serve(Served& served, const Action& action);
    void settle(Served& served);
    void retire(Served& served);
    void letGo(Served& served);
    void limitLingering(Served& served);
    void setTimer(Served& served, TimePoint due);
    bool watch(Served& served, int operation, unsigned events);

    WebsocketConnectionManager& _manager;
    EventRaiser _events;
    const std::shared_ptr<Mailbox> _mailbox;  // locks itself
    UpgradeDeadlines _upgrades;               // locks itself
    const Descriptor _epoll;

    // The loop's thread only.
    TimePoint _now;
    std::unordered_map<Mailbox::Key, std::unique_ptr<Served>> _served;
    std::set<std::pair<TimePoint, Served*>> _timers;  // at most one a connection, never later than it needs
    std::vector<Served*> _lingering;                  // oldest first
    std::vector<Served*> _ended;                      // waiting for their descriptors to be closed
    Mailbox::Later _later;
    std::vector<char> _room;
    TimePoint _ownerCheck;
    TimePoint _stopAt = TimePoint::max();  // max: not stopping

    std::thread _thread;  // the last member, as it uses all others
};

}  // namespace Nubo::Net

#endif
