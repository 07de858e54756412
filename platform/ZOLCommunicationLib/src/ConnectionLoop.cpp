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

ConnectionLoop::ConnectionLoop(WebsocketConnectionManager& manager)
    : _manager(manager),
      _events(manager),
      _mailbox(std::make_shared<Mailbox>()),
      _upgrades(_mailbox),
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
}

void ConnectionLoop::add(const Poco::SharedPtr<Poco::Net::WebSocket>& socket,
                         std::chrono::milliseconds silence) {
    const Poco::Net::SocketImpl* const key = socket->impl();
    if (key->sockfd() == POCO_INVALID_SOCKET) throw Poco::Net::InvalidSocketException();
    const auto channel = std::make_shared<SendChannel>(key, key->sockfd(), _mailbox);
    const Poco::SharedPtr<WebSocketProxy> proxy(new WebSocketProxy(socket, &_manager));
    auto connection = std::make_unique<Connection>(proxy, channel, silence, _events);
    if (!SendRegistry::insert(channel)) return;
    try {
        _mailbox->add(std::move(connection));
    } catch (...) {
        SendRegistry::erase(*channel);
        throw;
    }
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
    TimePoint due = std::min(_upgrades.next(), _stopAt);
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
    if (!served->watched) return;  // ended earlier in this turn
    if ((event.events & EPOLLOUT) != 0) serve(*served, [&](Connection& c) { c.writable(_now); });
    if ((event.events & ~static_cast<unsigned>(EPOLLOUT)) != 0 && served->watched)
        serve(*served, [&](Connection& c) { c.readable(_now, _room); });
}

void ConnectionLoop::readMail() {
    Mailbox::Mail mail = _mailbox->collect();
    for (auto& connection : mail.added) begin(std::move(connection));
    for (const Mailbox::Key key : mail.attention) {
        const auto found = _served.find(key);
        if (found != _served.end()) serve(*found->second, [&](Connection& c) { c.attention(_now); });
    }
    _later.merge(mail.later);
    if (mail.stop) beginStop();
}

void ConnectionLoop::begin(std::unique_ptr<Connection> connection) {
    if (_served.empty()) _ownerCheck = _now + TransportLimits::OWNER_CHECK;
    const Mailbox::Key key = connection->channel().key();
    Served& served = *_served.emplace(key, std::make_unique<Served>(std::move(connection))).first->second;
    if (watch(served, EPOLL_CTL_ADD, EPOLLIN))
        serve(served, [&](Connection& c) { c.start(_now); });
    else
        serve(served, [&](Connection& c) { c.failed(_now, "the descriptor cannot be waited for"); });
}

void ConnectionLoop::beginStop() {
    _stopAt = _now + TransportLimits::STOP_GRACE;
    for (const auto& entry : _served) serve(*entry.second, [&](Connection& c) { c.managerStopping(_now); });
}

void ConnectionLoop::runTimers() {
    _upgrades.expire(_now);
    while (!_timers.empty() && _timers.begin()->first <= _now) {
        Served& served = *_timers.begin()->second;
        setTimer(served, TimePoint::max());
        serve(served, [&](Connection& c) { c.timeout(_now); });
    }
    callDue();
    if (_ownerCheck <= _now) checkOwners();
    if (_stopAt <= _now)
        for (const auto& entry : _served) serve(*entry.second, [](Connection& c) { c.lingeredEnough(); });
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
    for (const auto& entry : _served) serve(*entry.second, [&](Connection& c) { c.ownersChecked(_now); });
}

// Has the connection act, and arranges for what it then needs.
template <typename Action>
void ConnectionLoop::serve(Served& served, const Action& action) {
    try {
        action(*served.connection);
    } catch (const std::exception& e) {
        served.connection->abort(e.what());
    }
    settle(served);
}

void ConnectionLoop::settle(Served& served) {
    const Connection& connection = *served.connection;
    if (connection.ended()) {
        retire(served);
        return;
    }
    if (connection.wantsWrite() != served.writing) {
        served.writing = connection.wantsWrite();
        watch(served, EPOLL_CTL_MOD, EPOLLIN | (served.writing ? EPOLLOUT : 0U));
    }
    const TimePoint due = connection.deadline();
    if (due < served.due) setTimer(served, due);
    if (connection.lingering() && !served.lingering) limitLingering(served);
}

// Waits for nothing any more. The shutdown ends a send that a sender may be in.
void ConnectionLoop::retire(Served& served) {
    if (!served.watched) return;
    watch(served, EPOLL_CTL_DEL, 0);
    setTimer(served, TimePoint::max());
    _lingering.erase(std::remove(_lingering.begin(), _lingering.end(), &served), _lingering.end());
    const bool forgotten = served.connection->channel().end() == SendChannel::End::Forgotten;
    if (!forgotten) ::shutdown(served.connection->descriptor(), SHUT_RDWR);
    _ended.push_back(&served);
}

void ConnectionLoop::closeEnded() {
    const auto closed = [](const Served* served) { return served->connection->tryClose(); };
    const auto rest = std::stable_partition(_ended.begin(), _ended.end(), closed);
    std::for_each(_ended.begin(), rest, [this](Served* served) { letGo(*served); });
    _ended.erase(_ended.begin(), rest);
}

void ConnectionLoop::letGo(Served& served) {
    const Mailbox::Key key = served.connection->channel().key();
    SendRegistry::erase(served.connection->channel());
    _served.erase(key);
}

void ConnectionLoop::limitLingering(Served& served) {
    served.lingering = true;
    _lingering.push_back(&served);
    if (_lingering.size() > TransportLimits::MAX_LINGERING)
        serve(*_lingering.front(), [](Connection& c) { c.lingeredEnough(); });
}

void ConnectionLoop::setTimer(Served& served, TimePoint due) {
    if (served.due != TimePoint::max()) _timers.erase({served.due, &served});
    served.due = due;
    if (due != TimePoint::max()) _timers.emplace(due, &served);
}

bool ConnectionLoop::watch(Served& served, int operation, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = &served;
    served.watched = operation != EPOLL_CTL_DEL;
    return ::epoll_ctl(_epoll.get(), operation, served.connection->descriptor(), &event) == 0;
}

}  // namespace Nubo::Net
