// Runs the library against a simulated platform for minutes or hours, breaks something at random again and
// again, and checks after each fault that everything has healed: every service available, every subscription
// known to its service exactly once, every subscriber told of the next change exactly once. Ends with one
// line of figures.
//
// Usage: soak MINUTES [SEED]      exits 1 when anything was lost, duplicated, or did not heal

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/Platform.h>
#include <Nubo/Simulator/Registry.h>
#include <Nubo/Simulator/Service.h>
#include <Poco/Delegate.h>
#include <Poco/JSON/Array.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Usage.h"

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int SERVICES = 12;
constexpr int RESOURCES = 3;
constexpr int SUBSCRIBERS = 2;  // of each resource, directly at the handler
constexpr auto HEAL_DEADLINE = 60s;
constexpr uint32_t PING_MS = 300;
constexpr uint32_t RETRY_DELAY_MS = 40;

struct Figures_t {
    unsigned long faults = 0, notifications = 0, lost = 0, duplicated = 0, unhealed = 0, reports = 0;
};

struct Footprint_t {
    long residentKiB = 0;
    std::size_t threads = 0, descriptors = 0;
};

Footprint_t footprint() {
    return {static_cast<long>(usage::residentKiB()), usage::threads(), usage::descriptors()};
}

/// How often each subscriber was told of each change, by the number that the change carries.
class Ledger {
public:
    void note(const std::string& subscriber, int change) { ++_told[subscriber][change]; }
    int times(const std::string& subscriber, int change) { return _told[subscriber][change]; }
    void clear() { _told.clear(); }

private:
    std::map<std::string, std::map<int, int>> _told;
};

class Feature : public ServiceListener {
public:
    Feature(IClientLibInterface* lib, uint16_t id, Ledger& ledger, Figures_t& figures)
        : ServiceListener(lib, id), _ledger(ledger), _figures(figures) {}

    void HandleMicroServicesAvailable(bool) override { ++_figures.reports; }

    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        noteChange(_ledger, _figures, data);
    }

    static void noteChange(Ledger& ledger, Figures_t& figures,
                           const ServiceHandler::ServiceHandlerNotificationData_t& data) {
        ++figures.notifications;
        const auto element = data.container->getObject("data");
        if (element) ledger.note(data.event, element->getValue<int>("change"));
    }

private:
    Ledger& _ledger;
    Figures_t& _figures;
};

/// A subscriber that has its own delegate on a handler, beside the listeners.
class Direct {
public:
    Direct(Ledger& ledger, Figures_t& figures) : _ledger(ledger), _figures(figures) {}

    void handle(const ServiceHandler::ServiceHandlerNotificationData_t& data) {
        if (data.additionalFragment == "direct") Feature::noteChange(_ledger, _figures, data);
    }

private:
    Ledger& _ledger;
    Figures_t& _figures;
};

class Soak {
public:
    explicit Soak(unsigned seed) : _random(seed), _client(&_sink, parameters()), _direct(_ledger, _figures) {}

    bool run(std::chrono::minutes duration);

private:
    static ClientLib::ClientLibParameters parameters() {
        return {"soak", PING_MS, true, 3, 10, 5, 3, 60, 10, 3, RETRY_DELAY_MS};
    }

    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(_random); }
    std::string name(int service) const { return "Service" + std::to_string(service); }
    std::string resourceUri(int service, int resource) const {
        return "/" + name(service) + "/values/r" + std::to_string(resource);
    }
    Service& anyService() { return _platform.service(name(pick(SERVICES))); }

    void setUp();
    void tearDown();
    void subscribeAll();
    void changeSubscriptions();
    void change(int number);
    void runMessages(std::chrono::milliseconds duration);

    void breakSomething();
    void breakEndpoint(Endpoint& endpoint);
    Ending_t anyEnding();
    Fault_t anyUpgradeFault();
    void healAfter(std::chrono::milliseconds outage);
    void mend();

    bool healed();
    std::size_t upgrades();
    void check();
    bool checkChange(int number);
    bool toldAll(int change);

    Platform _platform;
    MessageQueue _sink;
    std::mt19937 _random;
    ClientLib _client;
    Figures_t _figures;
    Ledger _ledger;
    Direct _direct;
    std::vector<ServiceHandler::Ptr> _handlers;
    std::unique_ptr<Feature> _feature;
    std::map<std::string, std::string> _subscriptions;  // the subscriber's URI to the resource's
    std::set<std::string> _ofFeature;
    int _change = 0;
};

void Soak::setUp() {
    for (int i = 0; i < SERVICES; ++i) _platform.addService(name(i)).addResource("values");
    change(++_change);
    _client.startup();
    for (int i = 0; i < SERVICES; ++i) {
        _handlers.push_back(_client.addService(new ServiceHandler(name(i), &_client, &_sink, PING_MS, true)));
        _handlers.back()->SocketDataAvailable += Poco::delegate(&_direct, &Direct::handle);
    }
    _feature = std::make_unique<Feature>(&_client, 10, _ledger, _figures);
    for (int i = 0; i < SERVICES; ++i) _feature->addServiceToMonitor(name(i), i % 3 == 0);
    _feature->startup();
    _sink.dispatchUntil([this] { return _feature->getLastNotificationState() == ServiceListener::Available; },
                        HEAL_DEADLINE);
    subscribeAll();
}

void Soak::subscribeAll() {
    for (int i = 0; i < SERVICES; ++i) {
        for (int r = 0; r < RESOURCES; ++r) {
            const std::string uri = resourceUri(i, r);
            for (int s = 0; s < SUBSCRIBERS; ++s) {
                _subscriptions[_handlers[static_cast<std::size_t>(i)]->addSubscription(uri, "direct",
                                                                                       false)] = uri;
            }
            const std::string own = _feature->addSubscription(uri, "", 0, "", false);
            if (own.empty()) continue;
            _subscriptions[own] = uri;
            _ofFeature.insert(own);
        }
    }
}

// One direct subscriber leaves, another comes: also while the service is away.
void Soak::changeSubscriptions() {
    const int service = pick(SERVICES);
    auto handler = _handlers[static_cast<std::size_t>(service)];
    const std::string uri = resourceUri(service, pick(RESOURCES));
    const auto leaves = std::find_if(_subscriptions.begin(), _subscriptions.end(), [&](const auto& entry) {
        return entry.second == uri && _ofFeature.count(entry.first) == 0;
    });
    if (leaves == _subscriptions.end()) return;
    handler->removeSubscription(leaves->first);
    _subscriptions.erase(leaves);
    _subscriptions[handler->addSubscription(uri, "direct", false)] = uri;
}

void Soak::change(int number) {
    for (int i = 0; i < SERVICES; ++i) {
        for (int r = 0; r < RESOURCES; ++r) {
            _platform.service(name(i)).setElement("values", "r" + std::to_string(r),
                                                  "{\"change\":" + std::to_string(number) + "}");
        }
    }
}

void Soak::runMessages(std::chrono::milliseconds duration) {
    _sink.dispatchUntil([] { return false; }, duration);
}

// --- faults ---

Ending_t Soak::anyEnding() {
    switch (pick(3)) {
        case 0:
            return Ending_t::closeFrame(1001, "going away");
        case 1:
            return Ending_t::reset();
        default:
            return Ending_t::endOfStream();
    }
}

Fault_t Soak::anyUpgradeFault() {
    switch (pick(6)) {
        case 0:
            return Fault_t::status(503);
        case 1:
            return Fault_t::garbage("nonsense\r\n\r\n");
        case 2:
            return Fault_t::hangUp();
        case 3:
            return Fault_t::reset();
        case 4:
            return Fault_t::hangUp().after(500ms);  // "never answered", as long as a run can afford
        default:
            return Fault_t::openAndEnd(anyEnding());
    }
}

void Soak::breakEndpoint(Endpoint& endpoint) {
    if (pick(3) == 0) endpoint.onUpgrade(anyUpgradeFault(), 1 + pick(6));
    switch (pick(5)) {
        case 0:
            endpoint.goSilent();
            break;
        case 1:
            endpoint.stop();
            break;
        case 2:  // a second drop right behind the first reconnect
            endpoint.dropSockets(anyEnding());
            runMessages(std::chrono::milliseconds(pick(20)));
            endpoint.dropSockets(anyEnding());
            break;
        default:
            endpoint.dropSockets(anyEnding());
    }
}

void Soak::breakSomething() {
    ++_figures.faults;
    switch (pick(7)) {
        case 0:
            breakEndpoint(_platform.registry());
            break;
        case 1:
            for (Service* service : _platform.services()) breakEndpoint(*service);
            break;
        case 2:
            breakEndpoint(_platform.registry());
            breakEndpoint(anyService());
            break;
        case 3:
            anyService().withdraw();
            break;
        case 4: {
            Service& service = anyService();
            service.dropSockets(anyEnding());
            service.move();
            break;
        }
        default:
            breakEndpoint(anyService());
    }
    if (pick(2) == 0) changeSubscriptions();
    if (pick(2) == 0) change(++_change);  // in the middle of it
    healAfter(std::chrono::milliseconds(pick(10) == 0 ? 3000 : pick(700)));
}

// From another thread: this one may be in a connection attempt that only the healing ends.
void Soak::healAfter(std::chrono::milliseconds outage) {
    std::thread healer([this, outage] {
        std::this_thread::sleep_for(outage);
        mend();
    });
    runMessages(outage);
    healer.join();
}

void Soak::mend() {
    _platform.registry().clearFaults();
    _platform.startRegistry();
    for (Service* service : _platform.services()) {
        service->clearFaults();
        service->start();
        service->registerService();
    }
}

// --- checks ---

bool Soak::healed() {
    std::map<std::string, std::size_t> wanted;
    for (const auto& entry : _subscriptions) wanted[entry.second] = 1;
    for (auto& handler : _handlers) {
        if (!handler->isAvailable()) return false;
    }
    return std::all_of(wanted.begin(), wanted.end(), [this](const auto& entry) {
        const std::string service = entry.first.substr(1, entry.first.find('/', 1) - 1);
        return _platform.service(service).liveSubscriptions(entry.first) == entry.second;
    });
}

std::size_t Soak::upgrades() {
    std::size_t all = 0;
    for (Service* service : _platform.services()) all += service->record().upgrades();
    return all;
}

void Soak::check() {
    bool quiet = false;
    for (int round = 0; round < 20 && !quiet; ++round) {
        if (!_sink.dispatchUntil([this] { return healed(); }, HEAL_DEADLINE)) break;
        quiet = checkChange(++_change);
    }
    if (!quiet) {
        ++_figures.unhealed;
        std::cout << "not healed after fault " << _figures.faults << std::endl;
    }
    _ledger.clear();
    _platform.registry().clearRecord();
    for (Service* service : _platform.services()) service->clearRecord();
}

bool Soak::toldAll(int change) {
    return std::all_of(_subscriptions.begin(), _subscriptions.end(),
                       [&](const auto& entry) { return _ledger.times(entry.first, change) > 0; });
}

// A second change behind the first one shows that the first one does not come again.
// @return false when a connection was made anew meanwhile, on which a service tells everything once more
bool Soak::checkChange(int number) {
    const std::size_t before = upgrades();
    change(number);
    _sink.dispatchUntil([&] { return toldAll(number); }, HEAL_DEADLINE);
    change(++_change);
    _sink.dispatchUntil([&] { return toldAll(_change); }, HEAL_DEADLINE);
    if (upgrades() != before) return false;
    for (const auto& entry : _subscriptions) {
        const int times = _ledger.times(entry.first, number);
        if (times == 0) ++_figures.lost;
        if (times > 1) ++_figures.duplicated;
        if (times != 1)
            std::cout << entry.first << " told " << times << " times, fault " << _figures.faults << std::endl;
    }
    return true;
}

bool Soak::run(std::chrono::minutes duration) {
    setUp();
    check();
    const Footprint_t before = footprint();
    const auto end = Clock::now() + duration;
    auto nextReport = Clock::now() + 1min;
    while (Clock::now() < end && _figures.unhealed == 0) {
        breakSomething();
        check();
        if (Clock::now() < nextReport) continue;
        nextReport += 1min;
        std::cout << "faults " << _figures.faults << ", notifications " << _figures.notifications
                  << ", resident " << footprint().residentKiB << " KiB" << std::endl;
    }
    runMessages(3s);  // what lingers has gone by then
    const Footprint_t after = footprint();
    tearDown();
    const bool good = _figures.lost + _figures.duplicated + _figures.unhealed == 0 &&
                      after.threads <= before.threads + 2 && after.descriptors <= before.descriptors + 4;
    std::cout << (good ? "good" : "BAD") << ": faults " << _figures.faults << ", notifications "
              << _figures.notifications << ", lost " << _figures.lost << ", duplicated "
              << _figures.duplicated << ", not healed " << _figures.unhealed << ", availability reports "
              << _figures.reports << ", memory " << before.residentKiB << " -> " << after.residentKiB
              << " KiB, threads " << before.threads << " -> " << after.threads << ", descriptors "
              << before.descriptors << " -> " << after.descriptors << std::endl;
    return good;
}

void Soak::tearDown() {
    _feature->shutdown();
    for (auto& handler : _handlers) handler->SocketDataAvailable -= Poco::delegate(&_direct, &Direct::handle);
    _client.shutdown();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: soak MINUTES [SEED]" << std::endl;
        return 2;
    }
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    return Soak(seed).run(std::chrono::minutes(std::stol(argv[1]))) ? 0 : 1;
}
