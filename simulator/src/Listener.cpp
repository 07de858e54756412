#include "Listener.h"

#include <Poco/Net/NetException.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace Nubo::Simulator {

using Poco::Net::ServerSocket;
using Poco::Net::SocketAddress;

namespace {

constexpr int BACKLOG = 1024;
constexpr std::chrono::milliseconds REST_WITHOUT_DESCRIPTORS{20};

/// Calls `action`, which binds or listens, and says clearly what is wrong when the port is taken.
template <typename Action>
void claim(const SocketAddress& address, const Action& action) {
    try {
        action();
    } catch (const Poco::Net::NetException& exception) {
        if (exception.code() != EADDRINUSE) throw;
        throw Poco::Net::NetException(
            "port " + std::to_string(address.port()) + " of " + address.host().toString() + " is taken",
            EADDRINUSE);
    }
}

/// A port chosen by the system is let go again when the socket stops listening; one that was asked for by its
/// number stays bound. So ask for a free one, and then for that one.
SocketAddress withPort(const SocketAddress& address) {
    if (address.port() != 0) return address;
    ServerSocket probe;
    probe.bind(address, true, false);
    return probe.address();
}

}  // namespace

Listener::Listener(const std::string& address, Poco::UInt16 port)
    : _address(withPort(SocketAddress(address, port))) {
    claim(_address, [this] { _socket.bind(_address, true, false); });
}

Listener::~Listener() {
    stop();
}

void Listener::start(const Accept& accept) {
    claim(_address, [this] { _socket.listen(BACKLOG); });
    _stopping = false;
    _accept = accept;
    _thread = std::make_unique<Poco::Thread>();
    _thread->setStackSize(STACK_SIZE);
    _thread->start(*this);
}

void Listener::stop() {
    if (!_thread) return;
    _stopping = true;
    // Ends the listening and a running or later accept, and leaves the socket bound (Linux).
    ::shutdown(_socket.impl()->sockfd(), SHUT_RDWR);
    _thread->join();
    _thread.reset();
}

void Listener::run() {
    while (!_stopping) {
        try {
            _accept(_socket.acceptConnection());
        } catch (const std::exception&) {
            // Out of descriptors or threads: the peer is left alone until there are some again.
            if (!_stopping) std::this_thread::sleep_for(REST_WITHOUT_DESCRIPTORS);
        }
    }
}

}  // namespace Nubo::Simulator
