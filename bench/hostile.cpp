// What a hostile service costs the others, and what one that is faster than the application costs in memory.
// The whole library, from the socket to the callback, with a log channel that counts.

#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Channel.h>
#include <Poco/Net/HTTPResponse.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Application.h"
#include "Figures.h"
#include "PeerProcess.h"
#include "Usage.h"
#include "peer/Storms.h"

namespace {

using figures::Samples;
using Nubo::Client::ClientLib;
using Nubo::Client::MessageQueue;
using Nubo::Client::ServiceHandler;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr long WAIT_MS = 20000;  // for what takes too long; such a delay counts as this one

class CountingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        ++lines;
        longest = std::max<std::size_t>(longest, message.getText().size());
    }
    std::atomic<std::size_t> lines{0};
    std::atomic<std::size_t> longest{0};  // of one thread's lines at a time, nearly enough
};

/// A service that behaves, and the delays of its time-stamped notifications in milliseconds.
class Good : public ServiceHandler {
public:
    Good(const std::string& name, ClientLib& lib, MessageQueue& queue, Samples& delays)
        : ServiceHandler(name, &lib, &queue, PING_AFTER_MS, true), _delays(delays) {}

private:
    void RaiseSocketDataAvailable(const ServiceHandlerNotificationData_t& data) override {
        const auto element = data.container->getObject("data");
        if (!element) return;
        const auto sent = std::chrono::nanoseconds(std::stoll(element->optValue<std::string>("stamp", "0")));
        if (sent.count() == 0) return;  // not one of the timed notifications
        const auto way = Clock::now().time_since_epoch() - sent;
        _delays.push_back(std::chrono::duration<double, std::milli>(way).count());
    }

    Samples& _delays;
};

/// An application with good services; everything runs on its thread.
class Application {
public:
    explicit Application(std::size_t services) : _lib(&_queue, usualParameters()) {
        _lib.startup();
        for (std::size_t i = 0; i < services; ++i)
            _good.push_back(follow(new Good("Good" + std::to_string(i), _lib, _queue, _delays)));
        const auto available = [this] {
            return std::all_of(_good.begin(), _good.end(), [](auto& good) { return good->isAvailable(); });
        };
        if (!runUntil(_queue, available, WAIT_MS))
            throw std::runtime_error("services do not become available");
        for (std::size_t i = 0; i < services; ++i)
            _good[i]->addSubscription("/Good" + std::to_string(i) + "/tracks/0x1", "", false);
        settle();
    }
    ~Application() { _lib.shutdown(); }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    ClientLib& lib() { return _lib; }
    MessageQueue& queue() { return _queue; }

    ServiceHandler::Ptr follow(ServiceHandler* handler) { return _lib.addService(handler); }
    ServiceHandler::Ptr follow(const std::string& name) {
        return follow(new ServiceHandler(name, &_lib, &_queue, PING_AFTER_MS, true));
    }

    /// Runs messages until none has come for a while.
    void settle() {
        while (runNext(_queue, 200)) {
        }
    }

    /// The delays of `count` notifications, in turn from all good services.
    Samples delays(PeerProcess& peer, std::size_t hz, std::size_t count) {
        _delays.clear();
        peer.pace("Good*", hz, count);
        const auto end = Clock::now() + std::chrono::milliseconds(WAIT_MS);
        while (_delays.size() < count && Clock::now() < end) runNext(_queue, 100);
        Samples taken = std::exchange(_delays, Samples());
        taken.resize(count, WAIT_MS);
        return taken;
    }

private:
    Samples _delays;
    MessageQueue _queue;
    ClientLib _lib;
    std::vector<ServiceHandler::Ptr> _good;
};

/// A hostile service that is followed, or asked by HTTP again and again, for as long as this lives.
class Attack {
public:
    Attack(Application& application, const std::string& storm) {
        if (storm != storms::LINE_ENDS) {
            _handler = application.follow(storm);
            return;
        }
        _thread = std::thread([this, &application] {
            while (!_over) {
                Poco::Net::HTTPResponse response;
                std::string body;
                application.lib().sendRequest(response, body, "GET", "/" + storms::LINE_ENDS, "");
            }
        });
    }
    ~Attack() {
        _over = true;
        if (_thread.joinable()) _thread.join();
        if (_handler) _handler->shutdown();
    }
    Attack(const Attack&) = delete;
    Attack& operator=(const Attack&) = delete;

private:
    ServiceHandler::Ptr _handler;
    std::atomic<bool> _over{false};
    std::thread _thread;
};

std::string oneDigit(double value) {
    std::ostringstream text;
    text.precision(1);
    text << std::fixed << value;
    return text.str();
}

/// The delays that a storm causes, and what it writes into the log.
struct Outcome {
    Samples delays;
    double linesASecond;
    double longestLine;
};

Outcome outcomeOf(PeerProcess& peer, Application& application, CountingChannel& log,
                  const std::string& storm) {
    constexpr std::size_t HZ = 500;
    constexpr std::size_t MESSAGES = 2500;
    log.lines = log.longest = 0;
    const double start = usage::wallMicroseconds();
    Outcome outcome;
    {
        const Attack attack(application, storm);
        outcome.delays = application.delays(peer, HZ, MESSAGES);
    }
    outcome.linesASecond = static_cast<double>(log.lines) / (usage::wallMicroseconds() - start) * 1e6;
    outcome.longestLine = static_cast<double>(log.longest);
    application.settle();
    return outcome;
}

void measure(PeerProcess& peer, CountingChannel& log, std::size_t others, const std::string& only) {
    constexpr double MOST_DELAY = 50;
    constexpr double MOST_LINES = 25;       // 20, one about those left out, and a few about the connection
    constexpr double LONGEST_LINE = 70000;  // 16 KiB, of which each byte may become four
    Application application(others);
    for (const auto& storm : {storms::TINY_FRAMES, storms::MANY_OBJECTS, storms::WIDE_JSON, storms::BAD_TEXTS,
                              storms::PINGS, storms::LINE_ENDS}) {
        if (!only.empty() && only != storm) continue;
        const auto [delays, linesASecond, longestLine] = outcomeOf(peer, application, log, storm);
        figures::limit(storm + " beside " + std::to_string(others) + ", p99 (median " +
                           oneDigit(figures::median(delays)) + ", most " +
                           oneDigit(figures::percentile(delays, 1)) + ")",
                       figures::percentile(delays, 0.99), "ms", MOST_DELAY);
        if (others > 1) continue;  // the lines are the same
        figures::limit(storm + ", log lines a second", linesASecond, "", MOST_LINES);
        figures::limit(storm + ", longest line", longestLine, "bytes", LONGEST_LINE);
    }
}

/// Resident memory in MiB, while an application takes 1,000 messages a second of a flood.
void slowApplication(PeerProcess& peer) {
    constexpr int SECONDS = 60;
    constexpr int SETTLED = 20;
    constexpr int PER_TICK = 10;  // messages each 10 ms
    constexpr double MOST_GROWTH = 16;
    Application application(1);
    const double before = usage::residentKiB();
    double highest = before;
    double settled = 0;
    peer.flood("Good0", 1'000'000'000);
    const auto start = Clock::now();
    for (int tick = 1; tick <= SECONDS * 100; ++tick) {
        for (int i = 0; i < PER_TICK; ++i) runNext(application.queue(), 0);
        std::this_thread::sleep_until(start + tick * 10ms);
        highest = std::max(highest, usage::residentKiB());
        if (tick == SETTLED * 100) settled = highest;
        if (tick % 1000 == 0)
            figures::show("memory after " + std::to_string(tick / 100) + " s of a flood",
                          Samples(5, usage::residentKiB() / 1024), "MiB");
    }
    figures::show("the highest", Samples(5, highest / 1024), "MiB");
    figures::limit("growth behind the 20th second", (highest - settled) / 1024, "MiB", MOST_GROWTH);
}

}  // namespace

int main(int argc, char** argv) try {
    usage::allowManyDescriptors();
    Poco::AutoPtr<CountingChannel> log(new CountingChannel);
    Logging::Log::Logger().setChannel(log);
    const std::string only = argc > 1 ? argv[1] : "";
    PeerProcess peer(Nubo::ServiceRegistryConnection::PORT);
    if (only != "memory")
        for (const std::size_t others : {1, 100, 1000}) measure(peer, *log, others, only);
    if (only.empty() || only == "memory") slowApplication(peer);
    return 0;
} catch (const std::exception& e) {
    std::cerr << "hostile: " << e.what() << std::endl;
    return 1;
}
