// The peer of the benchmarks, in a process of its own: a registry and all its services on one port of the
// loopback, which write frames that were built beforehand.
//
//   zol-bench-peer PORT     writes "ready" when it listens, then obeys one command a line until its input
//   ends:
//     flood NAME COUNT      each connection with that path (a single "-" stands for the registry's, a "*" at
//     the
//                           end for any end) is sent COUNT notifications as fast as it takes them
//     pace NAME HZ COUNT    COUNT notifications in all are sent to them in turn, HZ a second, with the time

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "Client.h"

namespace {

constexpr long NANOSECONDS = 1'000'000'000;
constexpr long DRIP_HZ = 100;
constexpr int BACKLOG = 4096;

int checked(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

class Peer {
public:
    explicit Peer(unsigned port);
    void run();

private:
    void wait(int descriptor, int operation, unsigned events);
    void setTimer(int timer, long hz);
    static std::uint64_t expirations(int timer);
    void accept();
    bool obey();
    void pace();
    void dripAll();
    void serve(int descriptor, unsigned events);
    std::vector<Client*> named(const std::string& name);

    const unsigned _port;
    const int _epoll = checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    const int _listener = checked(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    const int _paceTimer = checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK), "timerfd_create");
    const int _dripTimer = checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK), "timerfd_create");
    std::map<int, std::unique_ptr<Client>> _clients;
    std::vector<Client*> _paced;
    std::size_t _nextPaced = 0;
    std::uint64_t _paceLeft = 0;
};

Peer::Peer(unsigned port) : _port(port) {
    const int on = 1;
    checked(::setsockopt(_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "SO_REUSEADDR");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(::bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    checked(::listen(_listener, BACKLOG), "listen");
    for (const int descriptor : {STDIN_FILENO, _listener, _paceTimer, _dripTimer})
        wait(descriptor, EPOLL_CTL_ADD, EPOLLIN);
}

void Peer::wait(int descriptor, int operation, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    checked(::epoll_ctl(_epoll, operation, descriptor, &event), "epoll_ctl");
}

void Peer::setTimer(int timer, long hz) {
    itimerspec spec{};
    if (hz > 1) spec.it_interval.tv_nsec = NANOSECONDS / hz;
    if (hz == 1) spec.it_interval.tv_sec = 1;
    spec.it_value = spec.it_interval;
    checked(::timerfd_settime(timer, 0, &spec, nullptr), "timerfd_settime");
}

std::uint64_t Peer::expirations(int timer) {
    std::uint64_t count = 0;
    return ::read(timer, &count, sizeof count) == sizeof count ? count : 0;
}

void Peer::run() {
    std::array<epoll_event, 64> ready;
    for (;;) {
        const int count = ::epoll_wait(_epoll, ready.data(), static_cast<int>(ready.size()), -1);
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = ready[static_cast<std::size_t>(i)];
            if (event.data.fd == STDIN_FILENO) {
                if (!obey()) return;
            } else if (event.data.fd == _listener) {
                accept();
            } else if (event.data.fd == _paceTimer) {
                pace();
            } else if (event.data.fd == _dripTimer) {
                dripAll();
            } else {
                serve(event.data.fd, event.events);
            }
        }
    }
}

void Peer::accept() {
    for (;;) {
        const int descriptor = ::accept4(_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor < 0) return;
        const int on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        _clients.emplace(descriptor, std::make_unique<Client>(descriptor, _port));
        wait(descriptor, EPOLL_CTL_ADD, EPOLLIN);
    }
}

// One command; they come one at a time. False at the end of the input.
bool Peer::obey() {
    std::array<char, 256> room;
    const ssize_t size = ::read(STDIN_FILENO, room.data(), room.size());
    if (size <= 0) return false;
    std::istringstream line(std::string(room.data(), static_cast<std::size_t>(size)));
    std::string command;
    std::string name;
    std::uint64_t first = 0;
    line >> command >> name >> first;
    if (command == "flood") {
        for (Client* client : named(name)) {
            client->flood(first);
            if (client->wantsWrite()) wait(client->descriptor(), EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
        }
    } else if (command == "pace") {
        line >> _paceLeft;
        _paced = named(name);
        setTimer(_paceTimer, static_cast<long>(first));
    }
    return true;
}

std::vector<Client*> Peer::named(const std::string& name) {
    const bool anyEnd = name.back() == '*';
    const std::string wanted = name == "-" ? "" : name.substr(0, name.size() - (anyEnd ? 1 : 0));
    std::vector<Client*> found;
    for (const auto& entry : _clients) {
        Client& client = *entry.second;
        const bool matches = anyEnd ? client.name().rfind(wanted, 0) == 0 : client.name() == wanted;
        if (client.upgraded() && matches) found.push_back(&client);
    }
    return found;
}

void Peer::pace() {
    for (std::uint64_t due = expirations(_paceTimer); due > 0 && _paceLeft > 0 && !_paced.empty(); --due) {
        Client& client = *_paced[_nextPaced++ % _paced.size()];
        client.push();
        if (client.wantsWrite()) wait(client.descriptor(), EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
        --_paceLeft;
    }
    if (_paceLeft == 0 || _paced.empty()) setTimer(_paceTimer, 0);
}

void Peer::dripAll() {
    expirations(_dripTimer);
    const auto dripping = named("Drip");
    for (Client* client : dripping) client->drip();
    if (dripping.empty()) setTimer(_dripTimer, 0);
}

void Peer::serve(int descriptor, unsigned events) {
    const auto found = _clients.find(descriptor);
    if (found == _clients.end()) return;
    Client& client = *found->second;
    const bool wasUpgraded = client.upgraded();
    bool alive = true;
    if ((events & ~static_cast<unsigned>(EPOLLOUT)) != 0) alive = client.readable();
    if (alive && (events & EPOLLOUT) != 0) alive = client.writable();
    if (!alive) {
        _paced.erase(std::remove(_paced.begin(), _paced.end(), &client), _paced.end());
        _clients.erase(found);
        return;
    }
    if (!wasUpgraded && client.name() == "Drip") setTimer(_dripTimer, DRIP_HZ);
    wait(descriptor, EPOLL_CTL_MOD, EPOLLIN | (client.wantsWrite() ? EPOLLOUT : 0U));
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) throw std::invalid_argument("usage: zol-bench-peer PORT");
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    Peer peer(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)));
    std::cout << "ready" << std::endl;
    peer.run();
    return 0;
} catch (const std::exception& e) {
    std::cerr << "zol-bench-peer: " << e.what() << std::endl;
    return 1;
}
