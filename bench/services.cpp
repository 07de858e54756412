// What services cost while they are many: start-up, memory, threads, shutdown, and the registry's messages,
// which every handler hears.

#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/JSON/Parser.h>

#include <iostream>
#include <stdexcept>
#include <thread>

#include "Application.h"
#include "Figures.h"
#include "PeerProcess.h"
#include "Usage.h"
#include "peer/Frames.h"

namespace {

using figures::Samples;
using Nubo::Client::ClientLib;
using Nubo::Client::ServiceHandler;

constexpr std::size_t ROUNDS = 5;
constexpr std::size_t FEW = 50;
constexpr std::size_t MANY = 500;

/// An application with a number of services.
class Application {
public:
    Application() : _lib(&_queue, usualParameters()) { _lib.startup(); }
    ~Application() { _lib.shutdown(); }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    /// Adds services until there are so many, named by `name` and a number.
    void grow(std::size_t count, const std::string& name = "Service") {
        while (_handlers.size() < count) {
            _handlers.push_back(_lib.addService(new ServiceHandler(name + std::to_string(_handlers.size()),
                                                                   &_lib, &_queue, PING_AFTER_MS, true)));
        }
    }

    void awaitAvailable() {
        const auto all = [this] {
            while (_available < _handlers.size() && _handlers[_available]->isAvailable()) ++_available;
            return _available == _handlers.size();
        };
        if (!runUntil(_queue, all, WAIT_MS)) throw std::runtime_error("services do not become available");
    }

    /// Runs messages until none has come for a while.
    void settle() {
        while (runNext(_queue, QUIET_MS)) {
        }
    }

    void shutdown() { _lib.shutdown(); }

private:
    static constexpr long WAIT_MS = 10000;
    static constexpr long QUIET_MS = 200;

    Nubo::Client::MessageQueue _queue;
    ClientLib _lib;
    std::vector<ServiceHandler::Ptr> _handlers;
    std::size_t _available = 0;
};

/// To be called first: memory that was used before and is free would hide what services need.
void memoryAndThreads() {
    Application application;
    const auto grow = [&](std::size_t count) {
        application.grow(count);
        application.awaitAvailable();
        application.settle();
    };
    grow(FEW);
    const double before = usage::residentKiB();
    grow(MANY);
    figures::limit("resident memory of an idle service",
                   (usage::residentKiB() - before) / static_cast<double>(MANY - FEW), "KiB", 48);
    // The registry's socket counts as a service's.
    figures::limit("threads beside one a socket, with 500 services",
                   static_cast<double>(usage::threads()) - static_cast<double>(MANY + 1), "threads", 2);
}

double millisecondsToStart(std::size_t services) {
    Application application;
    const double start = usage::wallMicroseconds();
    application.grow(services);
    application.awaitAvailable();
    return (usage::wallMicroseconds() - start) / 1000;
}

void startUp() {
    Samples few;
    Samples many;
    for (std::size_t round = 0; round <= ROUNDS; ++round) {
        const double first = millisecondsToStart(FEW);
        const double second = millisecondsToStart(MANY);
        if (round == 0) continue;  // to warm up
        few.push_back(first);
        many.push_back(second);
    }
    figures::compare("start-up of 500 services against 50", many, few, "ms", {12.0, {}});
}

void shutDown() {
    constexpr std::size_t SERVICES = 200;
    Samples seconds;
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        Application application;
        application.grow(SERVICES);
        application.awaitAvailable();
        const double start = usage::wallMicroseconds();
        application.shutdown();
        seconds.push_back((usage::wallMicroseconds() - start) / 1e6);
    }
    figures::limit("shutdown of 200 connected services", figures::median(seconds), "s", 3);
}

/// Processor time of a registry message, in microseconds, while so many handlers hear it.
double registryMessage(PeerProcess& peer, std::size_t handlers) {
    constexpr std::size_t MESSAGES = 5000;
    Application application;
    application.grow(handlers, "Absent");
    application.settle();
    const double cpu = usage::cpuMicroseconds();
    peer.flood("", MESSAGES);
    application.settle();
    return (usage::cpuMicroseconds() - cpu) / MESSAGES;
}

double parse() {
    constexpr std::size_t TIMES = 5000;
    const std::string text = frames::notification("/Media/tracks/0xa#12-Media").substr(4);
    const double cpu = usage::cpuMicroseconds();
    for (std::size_t i = 0; i < TIMES; ++i) Poco::JSON::Parser().parse(text);
    return (usage::cpuMicroseconds() - cpu) / TIMES;
}

void registryTraffic(PeerProcess& peer) {
    constexpr std::size_t HANDLERS = 100;
    Samples further;
    Samples parses;
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        const double one = registryMessage(peer, 1);
        further.push_back((registryMessage(peer, 1 + HANDLERS) - one) / HANDLERS);
        parses.push_back(parse());
    }
    figures::compare("a further handler of a registry message against a parse", further, parses, "us",
                     {0.2, {}});
}

}  // namespace

int main(int argc, char** argv) try {
    usage::allowManyDescriptors();
    PeerProcess peer(Nubo::ServiceRegistryConnection::PORT);
    const std::string only = argc > 1 ? argv[1] : "";
    if (only.empty() || only == "memory") memoryAndThreads();
    if (only.empty() || only == "startup") startUp();
    if (only.empty() || only == "shutdown") shutDown();
    if (only.empty() || only == "registry") registryTraffic(peer);
    return 0;
} catch (const std::exception& e) {
    std::cerr << "services: " << e.what() << std::endl;
    return 1;
}
