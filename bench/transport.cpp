// The connection manager with many sockets: what bad peers cost the others, what silent sockets cost, and
// what sockets leave behind.

#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Delegate.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/WebSocket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Figures.h"
#include "PeerProcess.h"
#include "Usage.h"

namespace {

using figures::Samples;
using Nubo::Net::WebsocketConnectionManager;
using Nubo::Net::WebsocketDataEventPayload;
using Socket = Poco::SharedPtr<Poco::Net::WebSocket>;
using namespace std::chrono_literals;

constexpr std::size_t SOCKETS = 1000;
constexpr long PING_AFTER_MS = 5000;
const unsigned QUIET_PORT = Nubo::ServiceRegistryConnection::PORT;
const unsigned BAD_PORT =
    QUIET_PORT + 1;  // of a process of its own, so that bad peers cannot delay good ones

Socket connect(unsigned port, const std::string& name) {
    Poco::Net::HTTPClientSession session(Nubo::ServiceRegistryConnection::ADDRESS,
                                         static_cast<Poco::UInt16>(port));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/" + name,
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    Poco::Net::HTTPResponse response;
    return new Poco::Net::WebSocket(session, request, response);
}

/// A manager, and the delays of the messages that come to it.
class Sockets {
public:
    Sockets() { _manager.DataAvailable += Poco::delegate(this, &Sockets::dataAvailable); }
    ~Sockets() { _manager.DataAvailable -= Poco::delegate(this, &Sockets::dataAvailable); }
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;

    Socket add(unsigned port, const std::string& name) {
        Socket socket = connect(port, name);
        _manager.addConnection(socket, PING_AFTER_MS);
        return socket;
    }

    void remove(const Socket& socket) {
        _manager.removeConnection(socket, WebsocketConnectionManager::DEFAULT);
    }

    /// The delays of the time-stamped messages that have come, in milliseconds; empties the list.
    Samples takeDelays() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return std::exchange(_delays, Samples());
    }

    std::size_t delays() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _delays.size();
    }

private:
    void dataAvailable(const WebsocketDataEventPayload& payload) {
        const std::string key = "\"stamp\":\"";
        const auto at = payload.data.find(key);
        if (at == std::string::npos) return;
        const auto sent = std::chrono::nanoseconds(std::stoll(payload.data.substr(at + key.size(), 19)));
        if (sent.count() == 0) return;  // not one of the timed messages
        const auto way = std::chrono::steady_clock::now().time_since_epoch() - sent;
        const std::lock_guard<std::mutex> lock(_mutex);
        _delays.push_back(std::chrono::duration<double, std::milli>(way).count());
    }

    mutable std::mutex _mutex;
    Samples _delays;  // guarded by _mutex
    WebsocketConnectionManager _manager;
};

void await(const std::function<bool()>& done, const char* what) {
    for (const auto end = std::chrono::steady_clock::now() + 60s; !done();) {
        if (std::chrono::steady_clock::now() > end) throw std::runtime_error(what);
        std::this_thread::sleep_for(1ms);
    }
}

/// Opens hostile connections, one after another was closed, for as long as it lives.
class Hostility {
public:
    explicit Hostility(Sockets& sockets)
        : _thread([this, &sockets] {
              while (!_over) {
                  const Socket socket = sockets.add(BAD_PORT, "Hostile");
                  std::this_thread::sleep_for(10ms);
              }
          }) {}
    ~Hostility() {
        _over = true;
        _thread.join();
    }
    Hostility(const Hostility&) = delete;
    Hostility& operator=(const Hostility&) = delete;

private:
    std::atomic<bool> _over{false};
    std::thread _thread;
};

std::vector<Socket> open(Sockets& sockets, std::size_t count) {
    std::vector<Socket> opened;
    for (std::size_t i = 0; i < count; ++i) {
        opened.push_back(sockets.add(QUIET_PORT, "Quiet"));
        Poco::SharedPtr<Poco::Net::WebSocket> socket = opened.back();
        const std::string text = R"({"event":"/Quiet/x#11-Quiet","type":"subscribe"})";
        socket->sendFrame(text.data(), static_cast<int>(text.size()));
    }
    return opened;
}

Samples delaysOf(PeerProcess& peer, Sockets& sockets) {
    constexpr std::size_t HZ = 1000;
    constexpr std::size_t MESSAGES = 3000;
    peer.pace("Quiet", HZ, MESSAGES);
    await([&] { return sockets.delays() >= MESSAGES; }, "messages do not arrive");
    return sockets.takeDelays();
}

void badPeers(PeerProcess& peer) {
    PeerProcess bad(BAD_PORT);
    Sockets sockets;
    const auto quiet = open(sockets, SOCKETS);
    Samples alone;
    Samples beside;
    Samples worst;
    for (std::size_t round = 0; round < 5; ++round) alone.push_back(figures::median(delaysOf(peer, sockets)));
    {
        const Socket stalled = sockets.add(BAD_PORT, "Stall");
        const Socket dripping = sockets.add(BAD_PORT, "Drip");
        const Socket flooding = sockets.add(BAD_PORT, "Flood");
        const Hostility hostile(sockets);
        for (std::size_t round = 0; round < 5; ++round) {
            const Samples delays = delaysOf(peer, sockets);
            beside.push_back(figures::median(delays));
            worst.push_back(figures::percentile(delays, 1.0));
        }
    }
    figures::limit("delay of a message beside bad peers, 1,000 sockets", figures::median(beside), "ms", 50);
    figures::compare("the same against no bad peers", beside, alone, "ms", {});
    figures::limit("the longest delay of a run, median", figures::median(worst), "ms", 1000);
}

void silence() {
    Sockets sockets;
    const auto quiet = open(sockets, SOCKETS);
    std::this_thread::sleep_for(1s);
    Samples shares;
    for (std::size_t round = 0; round < 5; ++round) {
        const double cpu = usage::cpuMicroseconds();
        const double wall = usage::wallMicroseconds();
        std::this_thread::sleep_for(2s);
        shares.push_back((usage::cpuMicroseconds() - cpu) / (usage::wallMicroseconds() - wall) * 100);
    }
    figures::limit("1,000 silent sockets, share of a core", figures::median(shares), "%", 1.0);
}

/// Sockets come and go, 100 at a time, until there were so many in all.
void comeAndGo(Sockets& sockets, std::size_t count) {
    constexpr std::size_t AT_ONCE = 100;
    const std::size_t idle = usage::descriptors();
    for (std::size_t done = 0; done < count; done += AT_ONCE) {
        for (std::size_t i = 0; i < AT_ONCE; ++i) sockets.remove(sockets.add(QUIET_PORT, "Quiet"));
        await([&] { return usage::descriptors() <= idle; }, "descriptors stay open");
    }
}

void comingAndGoing() {
    Sockets sockets;
    comeAndGo(sockets, 1000);  // to warm up
    const auto descriptors = static_cast<double>(usage::descriptors());
    const auto threads = static_cast<double>(usage::threads());
    const double memory = usage::residentKiB();
    comeAndGo(sockets, 10000);
    figures::limit("descriptors that 10,000 sockets leave",
                   static_cast<double>(usage::descriptors()) - descriptors, "", 0);
    figures::limit("threads that they leave", static_cast<double>(usage::threads()) - threads, "", 0);
    figures::limit("memory that they leave", usage::residentKiB() - memory, "KiB", 256);
}

}  // namespace

int main(int argc, char** argv) try {
    usage::allowManyDescriptors();
    PeerProcess peer(QUIET_PORT);
    const std::string only = argc > 1 ? argv[1] : "";
    if (only.empty() || only == "bad") badPeers(peer);
    if (only.empty() || only == "silence") silence();
    if (only.empty() || only == "leaks") comingAndGoing();
    return 0;
} catch (const std::exception& e) {
    std::cerr << "transport: " << e.what() << std::endl;
    return 1;
}
