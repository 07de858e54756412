#include "ConnectionLoop.h"

#include <Nubo/Net/TransportLimits.h>
#include <Nubo/Util/SignalsBlocked.h>
#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <limits>
#include <utility>

#include "SendRegistry.h"

namespace Nubo::Net {

namespace {

constexpr std::chrono::milliseconds END_RETRY{
    50};  // while an end waits for memory to be reported, or for a sender to leave

}  // namespace

ConnectionLoop::ConnectionLoop(WebsocketConnectionManager& manager)
    : _manager(manager),
      _events(manager),
      _mailbox(std::make_shared<Mailbox>()),
      _epoll("epoll_create1", ::epoll_create1(EPOLL_CLOEXEC)),
      _room(TransportLimits::READ_CHUNK) {
    epoll_event mail{};
    mail.events = EPOLLIN;
    mail.data.ptr = nullptr;  // a connection's event has its Served here
    if (::epoll_ctl(_epoll.get(), EPOLL_CTL_ADD, _mailbox->descriptor(), &mail) != 0)
        throw Poco::SystemException("epoll_ctl", Reasons::systemText(errno), errno);
    const Nubo::Util::SignalsBlocked blocked;  // inherited by the thread
    _thread = std::thread(&ConnectionLoop::run, this);
}

ConnectionLoop::~ConnectionLoop() {
    _mailbox->stop();
    _thread.join();
    _mailbox->close();
}

void ConnectionLoop::add(const Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                         std::chrono::milliseconds silence) {
    const Poco::Net::SocketImpl* const key = socket->impl();
    if (key->sockfd() == POCO_INVALID_SOCKET) throw Poco::Net::InvalidSocketException();
    const auto channel = std::make_shared<SendChannel>(key, key->sockfd(), _mailbox);
    const Poco::SharedPtr<WebSocketProxy> proxy(new WebSocketProxy(socket, &_manager));
    ServedMap one;
    one.try_emplace(channel->key(), std::make_unique<Connection>(proxy, channel, silence, _events));
    if (SendRegistry::insert(channel)) _mailbox->add(one.extract(one.begin()));
}

void ConnectionLoop::callLater(std::chrono::milliseconds delay, std::function<void()> action) {
    _mailbox->callAt(MonotonicClock::now() + delay, std::move(action));
}

void ConnectionLoop::run() {
    ::pthread_setname_np(::pthread_self(), "zol-sockets");
    _mailbox->bindToThisThread();
    while (_stopAt == TimePoint::max() || !_served.empty()) turn();
}

void ConnectionLoop::turn() {
    std::array<epoll_event, 128> ready;
    const int count =
        ::epoll_wait(_epoll.get(), ready.data(), static_cast<int>(ready.size()), waitMilliseconds());
    _now = MonotonicClock::now();
    for (int i = 0; i < count; ++i) serveReady(ready[static_cast<std::size_t>(i)]);
    runTimers();
    closeEnded();
}

// Until the nearest timer, rounded up so that it has passed then; -1 without one.
int ConnectionLoop::waitMilliseconds() {
    TimePoint due = _stopAt;
    if (!_ended.empty()) due = std::min<TimePoint>(due, _now + END_RETRY);
    if (!_timers.empty()) due = std::min(due, _timers.begin()->first);
    if (!_later.empty()) due = std::min(due, _later.begin()->first);
    if (!_served.empty()) due = std::min(due, _ownerCheck);
    if (due == TimePoint::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - MonotonicClock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

void ConnectionLoop::serveReady(const epoll_event& event) {
    auto* const served = static_cast<Served*>(event.data.ptr);
    if (served == nullptr) {
        readMail();
        return;
    }
    if (served->interest == 0) return;  // changed its mind earlier in this turn
    if ((event.events & EPOLLOUT) != 0) serve(*served, [&](Connection& c) { c.writable(_now); });
    if ((event.events & ~static_cast<unsigned>(EPOLLOUT)) != 0 && served->interest != 0)
        serve(*served, [&](Connection& c) { c.readable(_now, _room); });
}

void ConnectionLoop::readMail() {
    Mailbox::Mail mail = _mailbox->collect();
    while (!mail.added.empty()) begin(mail.added.extract(mail.added.begin()));
    while (const auto channel = _mailbox->nextAttention()) {
        const auto found = _served.find(channel->key());
        if (found != _served.end()) serve(found->second, [&](Connection& c) { c.attention(_now); });
    }
    _later.merge(mail.later);
    if (mail.stop) beginStop();
}

void ConnectionLoop::begin(ServedMap::node_type connection) {
    if (_served.empty()) _ownerCheck = _now + TransportLimits::OWNER_CHECK;
    Served& served = _served.insert(std::move(connection)).position->second;
    served.moveTo(_open);
    serve(served, [&](Connection& c) { c.start(_now); });
    if (_stopAt != TimePoint::max()) serve(served, [&](Connection& c) { c.managerStopping(_now); });
}

void ConnectionLoop::beginStop() {
    _stopAt = _now + TransportLimits::STOP_GRACE;
    serveAll(_open, [&](Connection& c) { c.managerStopping(_now); });
}

void ConnectionLoop::runTimers() {
    while (!_timers.empty() && _timers.begin()->first <= _now) {
        Served& served = *_timers.begin()->second;
        setTimer(served, TimePoint::max());
        serve(served, [&](Connection& c) { c.timeout(_now); });
    }
    callDue();
    if (_ownerCheck <= _now) checkOwners();
    if (_stopAt <= _now) serveAll(_lingering, [](Connection& c) { c.lingeredEnough(); });
}

void ConnectionLoop::callDue() {
    while (!_later.empty() && _later.begin()->first <= _now) {
        const auto next = _later.extract(_later.begin());
        try {
            next.mapped()();
        } catch (...) {
            // The caller's fault, not the thread's.
        }
    }
}

// A walk over all connections, once a second: two reads each.
void ConnectionLoop::checkOwners() {
    _ownerCheck = _now + TransportLimits::OWNER_CHECK;
    serveAll(_open, [&](Connection& c) { c.ownersChecked(_now); });
}

// Has the connection act, and arranges for what it then needs.
template <typename Action>
void ConnectionLoop::serve(Served& served, const Action& action) {
    try {
        action(*served.connection);
    } catch (const std::exception& e) {
        served.connection->failed(_now, e.what());
    }
    settle(served);
}

// The action may move the connection to another list.
template <typename Action>
void ConnectionLoop::serveAll(Served::List& list, const Action& action) {
    for (auto next = list.begin(); next != list.end();) serve(**next++, action);
}

void ConnectionLoop::settle(Served& served) {
    Connection& connection = *served.connection;
    if (!connection.ended() && !watch(served)) connection.failed(_now, "the descriptor cannot be waited for");
    if (connection.ended()) {
        retire(served);
        return;
    }
    const TimePoint due = connection.deadline();
    if (due < served.due) setTimer(served, due);
    if (connection.lingering() && served.list != &_lingering) limitLingering(served);
}

// Waits for nothing any more. The shutdown ends a send that a sender may be in.
void ConnectionLoop::retire(Served& served) {
    if (served.list == &_ended) return;
    served.moveTo(_ended);
    setInterest(served, 0);
    setTimer(served, TimePoint::max());
    const bool forgotten = served.connection->channel().end() == SendChannel::End::Forgotten;
    if (!forgotten) ::shutdown(served.connection->descriptor(), SHUT_RDWR);
}

void ConnectionLoop::closeEnded() {
    for (auto next = _ended.begin(); next != _ended.end();) {
        Served& served = **next++;
        if (served.connection->tryFinish(_stopAt <= _now)) letGo(served);
    }
}

void ConnectionLoop::letGo(Served& served) {
    SendRegistry::erase(served.connection->channel());
    _ended.erase(served.place);
    _served.erase(served.connection->channel().key());
}

void ConnectionLoop::limitLingering(Served& served) {
    served.moveTo(_lingering);
    if (_lingering.size() > TransportLimits::MAX_LINGERING)
        serve(*_lingering.front(), [](Connection& c) { c.lingeredEnough(); });
}

void ConnectionLoop::setTimer(Served& served, TimePoint due) {
    if (served.due != TimePoint::max()) served.timer = _timers.extract({served.due, &served});
    served.due = due;
    if (due == TimePoint::max()) return;
    served.timer.value() = {due, &served};
    _timers.insert(std::move(served.timer));
}

// What is neither to be read nor written is taken out: a peer that hangs up would be reported all the time.
bool ConnectionLoop::watch(Served& served) {
    const Connection& connection = *served.connection;
    return setInterest(served,
                       (connection.wantsRead() ? EPOLLIN : 0U) | (connection.wantsWrite() ? EPOLLOUT : 0U));
}

bool ConnectionLoop::setInterest(Served& served, unsigned events) {
    const unsigned before = served.interest;
    if (events == before) return true;
    const int operation = before == 0 ? EPOLL_CTL_ADD : events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    epoll_event event{};
    event.events = events;
    event.data.ptr = &served;
    if (::epoll_ctl(_epoll.get(), operation, served.connection->descriptor(), &event) != 0) return false;
    served.interest = events;
    return true;
}

}  // namespace Nubo::Net
