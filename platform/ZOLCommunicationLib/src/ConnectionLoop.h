#ifndef NUBO_NET_CONNECTIONLOOP_H
#define NUBO_NET_CONNECTIONLOOP_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/SharedPtr.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Descriptor.h"
#include "EventRaiser.h"
#include "Mailbox.h"
#include "Served.h"

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

private:
    using TimePoint = MonotonicClock::TimePoint;

    void run();
    void turn();
    int waitMilliseconds();
    void serveReady(const epoll_event& event);
    void readMail();
    void begin(ServedMap::node_type connection);
    void beginStop();
    void runTimers();
    void callDue();
    void checkOwners();
    void closeEnded();

    template <typename Action>
    void serve(Served& served, const Action& action);
    template <typename Action>
    void serveAll(Served::List& list, const Action& action);
    void settle(Served& served);
    void retire(Served& served);
    void letGo(Served& served);
    void limitLingering(Served& served);
    void setTimer(Served& served, TimePoint due);
    bool watch(Served& served);
    bool setInterest(Served& served, unsigned events);

    WebsocketConnectionManager& _manager;
    EventRaiser _events;
    const std::shared_ptr<Mailbox> _mailbox;  // locks itself
    const Descriptor _epoll;

    // The loop's thread only.
    TimePoint _now;
    ServedMap _served;
    Served::Timers _timers;   // at most one a connection, never later than it needs
    Served::List _open;       // each connection is in one of these three
    Served::List _lingering;  // oldest first
    Served::List _ended;      // to be reported, and their descriptors closed
    Mailbox::Later _later;
    std::vector<char> _room;
    TimePoint _ownerCheck;
    TimePoint _stopAt = TimePoint::max();  // max: not stopping

    std::thread _thread;  // the last member, as it uses all others
};

}  // namespace Nubo::Net

#endif
