// Breaks the registry and the services in every way, at every moment, and looks whether the client heals
// without help: a table of faults, of what they strike, and of what the client is doing meanwhile. Then news
// that come late, and a long outage.

#include <malloc.h>

#include <cstdlib>
#include <future>
#include <set>

#include <Nubo/Net/MonotonicClock.h>

#include "ClientDoubles.h"
#include "Footprint.h"
#include "LibraryThreads.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Data = ScriptedListener::Data;
using Reports = std::vector<std::pair<std::string, bool>>;

const std::string ATTEMPT = "Debug: run: try reconnect";

// The registry's handler takes no parameters from the ClientLib: it would wait half a second before each
// attempt. An explicit instantiation may name a private member.
SRServiceHandler::Ptr& registryHandler(ClientLib& lib);
template <auto MEMBER>
struct RegistryHandler {
    friend SRServiceHandler::Ptr& registryHandler(ClientLib& lib) { return lib.*MEMBER; }
};
template struct RegistryHandler<&ClientLib::_srServiceHandler>;

class RecoveryTest : public ClientTest {
protected:
    static constexpr std::size_t SUBSCRIBERS = 5, LEAVING = 2;  // of each service, and which of them

    explicit RecoveryTest(uint32_t ping = 5000) : ClientTest(ping) {
        listener.onState = [this](bool up) { reports.emplace_back("", up); };
        listener.onData = [this](const Data& data) { note(data); };
        change();
    }
    ~RecoveryTest() override {
        listener.shutdown();
        lib.shutdown();
    }

    void watch(Service& service, ServiceHandler::Ptr handler, uint8_t attemptsInSeries = 4) {
        handler->setReconnectParameters(attemptsInSeries, 1);
        handler->MicroServiceRegistrationChanged += Poco::delegate(this, &RecoveryTest::announced);
        handler->SocketDataAvailable += Poco::delegate(this, &RecoveryTest::notified);
        listener.addServiceToMonitor(service.name(), false);
        subjects.emplace_back(&service, handler);
    }
    void connect(bool autoReconnect = true, uint8_t attemptsInSeries = 4) {
        registryHandler(lib)->setReconnectParameters(attemptsInSeries, 1);
        lib.startup();
        for (Service* service : platform.services())
            watch(*service, add(service->name(), autoReconnect), attemptsInSeries);
        listener.startup();
        change();
        ASSERT_TRUE(eventually([this] { return settled(); }));
    }
    std::string subscribe(std::size_t subject, const std::string& element) {
        auto [service, handler] = subjects[subject];
        return handler->addSubscription("/" + service->name() + "/values/" + element, "direct", false);
    }
    // Two subscribers and the listener share a resource; the third, and the listener, have one of their own.
    void subscribe() {
        for (std::size_t i = 0; i < subjects.size(); ++i) {
            for (const char* element : {"1", "1", "2"}) subscribers.push_back(subscribe(i, element));
            const std::string path = subjects[i].first->name() + "/values/";
            for (const char* element : {"1", "3"})
                subscribers.push_back(listener.addSubscription(path + element, "", 0, "", false));
        }
        resources = 3;
    }
    // One leaves and another comes.
    void resubscribe() {
        for (std::size_t i = 0; i < subjects.size(); ++i) {
            std::string& uri = subscribers[i * SUBSCRIBERS + LEAVING];
            subjects[i].second->removeSubscription(uri);
            uri = subscribe(i, "4");
        }
    }
    void change() {
        const std::string value = R"({"n":)" + std::to_string(++changes) + "}";
        for (Service* service : platform.services())
            for (const std::string element : {"1", "2", "3", "4", "5"})
                service->setElement("values", element, value);
    }
    void announced(const ServiceHandler::ServiceRegistrationEventData_t& data) {
        reports.emplace_back(data.handler->getServiceName(), data.handler->isAvailable());
    }
    void notified(const Data& data) {
        if (data.additionalFragment == "direct") note(data);
        if (const auto action = std::exchange(inNotification, nullptr)) action();
    }
    void note(const Data& data) { ++told[data.event][data.container->getObject("data")->getValue<int>("n")]; }

    bool settled() {
        const auto& registry = platform.registry();
        return registry.openSockets() == 1 && registry.subscribedEvents().size() >= subjects.size() &&
               std::all_of(subjects.begin(), subjects.end(), [this](const auto& subject) {
                   return subject.second->isAvailable() && subject.first->openSockets() == 1 &&
                          subject.first->subscribedEvents().size() == resources;
               });
    }
    std::vector<Endpoint*> endpoints() {
        std::vector<Endpoint*> all{&platform.registry()};
        for (Service* service : platform.services()) all.push_back(service);
        return all;
    }
    std::size_t upgrades() {
        std::size_t sum = 0;
        for (const Endpoint* endpoint : endpoints()) sum += endpoint->record().upgrades();
        return sum;
    }
    // A second change shows that the first one does not come again. A connection that was made anew
    // meanwhile, for news that were on their way, tells everything once more.
    void expectEachToldOnce() {
        const auto isTold = [this](const auto& uri) { return told[uri][changes] > 0; };
        bool quiet = false;
        for (int round = 0; round < 5 && !quiet; ++round) {
            ASSERT_TRUE(eventually([this] { return settled(); }));
            const auto before = upgrades();
            for (int i = 0; i < 2; ++i) {
                change();
                ASSERT_TRUE(
                    eventually([&] { return std::all_of(subscribers.begin(), subscribers.end(), isTold); }));
            }
            quiet = upgrades() == before;
        }
        EXPECT_TRUE(quiet);
        for (const auto& uri : subscribers) EXPECT_EQ(1, told[uri][changes - 1]) << uri;
    }

    std::vector<std::pair<Service*, ServiceHandler::Ptr>> subjects;
    ScriptedListener listener{&lib, 10};  // needs all services
    std::vector<std::string> subscribers;
    std::size_t resources = 0;                       // that a service knows as subscribed
    Reports reports;                                 // of the handlers, and of the listener: ""
    std::map<std::string, std::map<int, int>> told;  // each subscriber of each change, how often
    int changes = 0;
    std::function<void()> inNotification;
};

// --- the matrix ---

enum class Heard { No, Maybe, Yes };  // whether the application hears of the outage

struct Fault {
    std::string name;
    Heard heard;
    std::vector<std::string> steps;  // of which the last one heals: see FaultMatrix::take()
};

const Fault FAULTS[] = {
    {"CloseFrame", Heard::No, {"close"}},
    {"Reset", Heard::No, {"reset"}},
    {"EndOfStream", Heard::No, {"end"}},
    {"Silence", Heard::No, {"silence", "attempt", "speak"}},
    {"GoneForASecond", Heard::Yes, {"stop", "second", "start"}},
    {"GoneForLong", Heard::Yes, {"stop", "pause", "start"}},
    {"BackOnItsPort", Heard::Maybe, {"stop", "start"}},
    {"BackOnAnotherPort", Heard::Maybe, {"move"}},
    {"ClosesAtOnce", Heard::Maybe, {"accept and end"}},
    {"Refuses", Heard::Yes, {"refuse"}},
    {"NeverAnswers", Heard::Yes, {"hang", "attempt", "stop", "start"}},  // as one that hangs and is killed
    {"HungService", Heard::Yes, {"hang", "attempt", "patience"}},        // later attempts are answered
    {"RefusedThread", Heard::Maybe, {"refuse threads", "refused"}},      // of workers and to reconnect
};

struct Cell {
    Fault fault;
    std::string target, state;
};

std::vector<Cell> cells() {
    std::vector<Cell> all;
    for (const std::string target : {"Registry", "OneService", "AllServices", "Both"})
        for (const Fault& fault : FAULTS)
            for (const char* state :
                 {"Idle", "Subscribed", "InMidNotification", "Reconnecting", "DroppedTwice"})
                if (target != "Registry" || fault.name != "BackOnAnotherPort")  // its port is fixed
                    all.push_back({fault, target, state});
    return all;
}

class FaultMatrix : public RecoveryTest, public testing::WithParamInterface<Cell> {
protected:
    FaultMatrix() : RecoveryTest(is("Silence") ? 120 : 5000) {}

    static bool is(const std::string& what) {
        const Cell& cell = GetParam();
        return cell.fault.name == what || cell.target == what || cell.state == what;
    }
    static bool strikesRegistry() { return is("Registry") || is("Both"); }
    static bool concerns(const std::string& service) { return !is("OneService") || service == "Radio"; }

    void enterState() {
        if (is("InMidNotification")) {
            inNotification = [this] { attackInside(); };
            change();
            ASSERT_TRUE(eventually([this] { return !attacks.empty(); }));
        } else if (is("Reconnecting")) {
            for (Endpoint* victim : victims) victim->stop();
            ASSERT_TRUE(eventually([this] {
                return log.count(ATTEMPT) > 0 &&
                       std::all_of(subjects.begin(), subjects.end(), [](const auto& subject) {
                           return subject.second->isAvailable() != concerns(subject.first->name());
                       });
            }));
        }
        if (attacks.empty()) startAttack();
    }
    void startAttack() {
        const LibraryScope outside(false);
        for (Endpoint* victim : victims)
            attacks.push_back(std::async(std::launch::async, [this, victim] { attack(*victim); }));
    }
    // Within a callback, with others to come, and with half a frame on its way.
    void attackInside() {
        for (Endpoint* victim : victims) victim->pushBytes(Endpoint::encodeFrame("{}").substr(0, 3));
        startAttack();
        wait([this] { return struck == victims.size(); });
    }
    void attack(Endpoint& victim) {
        if (is("DroppedTwice")) {
            const auto before = victim.record().upgrades();
            victim.dropSockets(Ending_t::reset());
            wait([&] { return victim.record().upgrades() > before; });
        }
        const auto attempts = victim.record().upgradeRequests().size();
        const auto& steps = GetParam().fault.steps;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            take(steps[i], victim, attempts);
            if (i == 0) ++struck;
        }
    }
    // @param attempts how many upgrades were asked for before the first step
    void take(const std::string& step, Endpoint& victim, std::size_t attempts) {
        const auto meet = [&](const Fault_t& fault, int times) {
            victim.onUpgrade(fault, times);
            victim.dropSockets(Ending_t::reset());
            victim.start();
        };
        const auto drop = [&](const Ending_t& ending) {
            if (victim.dropSockets(ending) == 0) meet(Fault_t::openAndEnd(ending), 1);
        };
        auto* const service = dynamic_cast<Service*>(&victim);
        // While the registry is away, no other handler tries anything.
        const std::string who = strikesRegistry() ? "ServiceRegistry" : victim.name() + " (127.0.0.1)";
        const std::map<std::string, std::function<void()>> words{
            {"close", [&] { drop(Ending_t::closeFrame(1001, "away")); }},
            {"reset", [&] { drop(Ending_t::reset()); }},
            {"end", [&] { drop(Ending_t::endOfStream()); }},
            {"silence", [&] { victim.goSilent(), victim.start(); }},
            {"speak", [&] { victim.clearFaults(); }},
            {"accept and end", [&] { meet(Fault_t::openAndEnd(Ending_t::endOfStream()), 3); }},
            {"refuse", [&] { meet(Fault_t::status(503), 3); }},
            {"hang", [&] { meet(Fault_t::noAnswer(), 1); }},
            {"refuse threads", [&] { threadsToRefuse += 2, drop(Ending_t::reset()); }},
            {"refused", [&] { wait([] { return threadsToRefuse == 0; }); }},
            {"move",
             [&] {
                 service ? service->move() : victim.stop();
                 victim.start();
             }},
            {"stop", [&] { victim.stop(); }},
            {"attempt", [&] { wait([&] { return victim.record().upgradeRequests().size() > attempts; }); }},
            {"pause", [&] { wait([&] { return log.contains("service " + who + " is not reachable"); }); }},
            {"second", [&] { platform.waitFor([] { return false; }, 1s); }},
            // That of the reconnect thread; the caller's has less.
            {"patience",
             [&] {
                 if (is("Reconnecting") || is("DroppedTwice")) Nubo::Net::MonotonicClock::advance(60s);
             }},
            {"start", [&] { victim.clearFaults(), victim.start(); }}};
        words.at(step)();
    }
    void wait(const std::function<bool()>& until) { EXPECT_TRUE(platform.waitFor(until, DEADLINE)); }

    // Few connections, on none of which anything was subscribed twice; each handler hears the registry once.
    void expectOrder() {
        for (const Endpoint* endpoint : endpoints()) {
            EXPECT_LE(endpoint->record().upgradeRequests().size(), 12U) << endpoint->name();
            std::set<std::pair<unsigned, std::string>> subscribed;
            for (auto request : endpoint->record().requests("subscribe")) {
                // The number there is another each time that a handler starts.
                if (endpoint == &platform.registry()) request.event.erase(request.event.find('#'));
                EXPECT_TRUE(subscribed.emplace(request.socket, request.event).second) << request.text;
            }
        }
        for (const std::string type : {"x", "y"})
            platform.registry().pushRaw(R"({"event":"/#1-Nobody","type":")" + type + "\"}");
        const std::string line = R"(Info: OnWebSocketNotification: {"event":"/#1-Nobody","type":")";
        EXPECT_TRUE(eventually([&] { return log.count(line + "y\"}") == 4; }));
        EXPECT_EQ(4U, log.count(line + "x\"}"));  // the registry's own handler is one of them
    }
    // The listener hears of the first service that is lost, and that all are there: which they may be before
    // the last handler says so.
    void expectReports() {
        std::set<std::string> lost, everLost;
        bool available = true;
        for (std::size_t i = 0; i < reports.size(); ++i) {
            const auto& [who, up] = reports[i];
            SCOPED_TRACE("report " + std::to_string(i) + ": " + who + (up ? " is up" : " is down"));
            if (who.empty()) {
                EXPECT_TRUE(up != available && i > 0 && reports[i - 1].second == up);
                available = up;
                continue;
            }
            EXPECT_EQ(up, lost.erase(who) == 1);
            if (!up) everLost.insert(*lost.insert(who).first);
            if (up ? !available && lost.empty() : available) {
                EXPECT_TRUE(i + 1 < reports.size() && reports[i + 1].first.empty());
            }
        }
        EXPECT_TRUE(available && lost.empty());
        for (const std::string name : {"Media", "Radio", "Tuner"}) {
            Heard heard = is("Reconnecting") ? Heard::Yes : GetParam().fault.heard;
            // A connection that is lost before its handler listens to it has failed.
            if (heard == Heard::No && (is("DroppedTwice") || is("Both"))) heard = Heard::Maybe;
            if (!concerns(name)) heard = Heard::No;
            EXPECT_TRUE(heard == Heard::Maybe || (heard == Heard::Yes) == (everLost.count(name) == 1));
        }
    }

    std::vector<Endpoint*> victims;
    std::atomic<std::size_t> struck{0};
    std::vector<std::future<void>> attacks;
};

TEST_P(FaultMatrix, HealsWithoutHelp) {
    for (const char* name : {"Radio", "Tuner"}) platform.addService(name);
    const LibraryScope inside(true);
    connect(true, is("GoneForLong") ? 1 : 200);
    if (!is("Idle")) subscribe();
    expectEachToldOnce();
    if (strikesRegistry()) victims.push_back(&platform.registry());
    for (Service* service : platform.services())
        if (!is("Registry") && concerns(service->name())) victims.push_back(service);
    for (Endpoint* endpoint : endpoints()) endpoint->clearRecord();
    reports.clear();
    const auto before = footprint();
    const auto begin = Clock::now();

    enterState();
    if (!is("Idle")) resubscribe();
    for (auto& running : attacks)
        ASSERT_TRUE(eventually([&] { return running.wait_for(0s) == std::future_status::ready; }));
    for (auto& ended : attacks) ended.get();
    attacks.clear();
    ASSERT_TRUE(eventually([this] { return settled(); }));
    EXPECT_LT(Clock::now() - begin, DEADLINE);  // nobody waited for a peer that hangs
    if (is("Idle")) subscribe();
    expectEachToldOnce();
    EXPECT_TRUE(eventually([&] { return footprint() == before; })) << testing::PrintToString(footprint());
    // A reconnect thread waits 50 ms on average, and there are four of them.
    EXPECT_LE(log.count(ATTEMPT), static_cast<std::size_t>(40 + (Clock::now() - begin) / 5ms));
    expectReports();
    expectOrder();
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrix, testing::ValuesIn(cells()), [](const auto& cell) {
    return cell.param.target + "_" + cell.param.fault.name + "_" + cell.param.state;
});

// --- news that come late ---

class StaleNews : public RecoveryTest, public testing::WithParamInterface<std::tuple<std::string, bool>> {
protected:
    void await(std::size_t messages) {
        EXPECT_TRUE(platform.waitFor([&] { return sink.pending() == messages; }, DEADLINE));
    }
    /// Two messages are to be run now, which give the service up and connect to it anew.
    void replaceConnection() {
        media.withdraw();
        media.registerService();
        await(2);
    }
};

TEST_P(StaleNews, OfAReplacedConnectionCostOneRebuildAtMost) {
    const auto& [late, autoReconnect] = GetParam();
    connect(autoReconnect);
    subscribe();
    expectEachToldOnce();
    reports.clear();
    media.clearRecord();
    if (late == "Opened") {
        media.stop();
        ASSERT_TRUE(eventually([this] { return reports.size() == 2; }));
        replaceConnection();
        sink.dispatch();  // in vain, so that the reconnect thread is at work
    }
    replaceConnection();
    if (late == "Close") media.dropSockets(Ending_t::reset());
    if (late == "Opened") media.start();
    if (late == "Data") media.pushRaw(R"({"type":"data","data":{"n":0},"event":")" + subscribers[0] + "\"}");
    await(3);
    while (sink.dispatch() != 0) continue;
    EXPECT_EQ(late == "Data" ? 1 : 0, told[subscribers[1]][0]);
    const Reports once{{"Media", false}, {"", false}, {"Media", true}, {"", true}};
    Reports expected = once;
    if (late == "Close" && !autoReconnect) {  // which is torn down until the registry brings it back
        EXPECT_FALSE(subjects[0].second->isAvailable());
        replaceConnection();
        expected.insert(expected.end(), once.begin(), once.end());
    }
    expectEachToldOnce();
    EXPECT_EQ(expected, reports);
    EXPECT_EQ(late == "Data" ? 1U : 2U, media.record().upgrades());
}

INSTANTIATE_TEST_SUITE_P(Late, StaleNews,
                         testing::Combine(testing::Values("Close", "Opened", "Data"), testing::Bool()));

// --- single cases ---

TEST_F(RecoveryTest, SubscriptionsAroundTheAnnouncementAreSentOnce) {
    connect();
    subscribe();
    expectEachToldOnce();
    media.clearRecord();
    media.stop();
    ASSERT_TRUE(eventually([this] { return reports.size() == 4; }));
    listener.onState = [this](bool) { subscribers.push_back(subscribe(0, "5")); };
    media.start();
    ASSERT_TRUE(log.waitFor("Info: run: reconnect done"));  // but not announced yet
    resubscribe();
    ++resources;
    expectEachToldOnce();
    EXPECT_EQ(resources, media.record().requests("subscribe").size());
}

struct Mortal : ServiceHandler {
    Mortal(ClientLib* lib, MessageQueue* sink, bool& destroyed)
        : ServiceHandler("Media", lib, sink, 0, true), gone(destroyed) {}
    ~Mortal() override { gone = true; }
    bool& gone;
};

TEST_F(RecoveryTest, ReplacedHandlerIsGoneAndTheNewOneWorks) {
    bool gone = false;
    lib.startup();
    lib.addService(new Mortal(&lib, &sink, gone));
    ASSERT_TRUE(platform.waitFor([&] { return sink.pending() > 0; }, DEADLINE));
    watch(media, add());  // messages of the old one wait
    EXPECT_TRUE(gone);
    listener.startup();
    ASSERT_TRUE(eventually([this] { return settled(); }));
    subscribe();
    expectEachToldOnce();
}

// --- a week offline ---

/// Counts lines instead of keeping them.
struct LineCounter : Poco::Channel {
    void log(const Poco::Message& message) override {
        ++lines;
        if (message.getText() == ATTEMPT) ++attempts;
    }
    std::atomic<std::size_t> lines{0}, attempts{0};
};

// Series of five attempts half a second apart, and pauses of ten seconds, make 220,000 attempts in a week.
// Here they are those of 200 services, with delays of a tenth. ZOL_OUTAGE_ATTEMPTS: how many (6,000).
TEST_F(RecoveryTest, LongOutageLeavesNothingBehind) {
    const char* const setting = std::getenv("ZOL_OUTAGE_ATTEMPTS");
    const std::size_t wanted = setting ? std::strtoul(setting, nullptr, 10) : 6000;
    const Poco::AutoPtr<LineCounter> counter(new LineCounter);
    Logging::Log::Logger().setChannel(counter);
    media.stop();
    Service& radio = platform.addService("Radio");
    radio.onUpgrade(Fault_t::status(503));
    platform.addService("Tuner").onUpgrade(Fault_t::openAndEnd(Ending_t::reset()));
    lib.startup();
    std::vector<ServiceHandler::Ptr> handlers{add("Media"), add("Radio"), add("Tuner")};
    for (int i = 0; i < 197; ++i) {
        const auto name = "S" + std::to_string(i);
        const auto port = std::to_string((i % 2 == 0 ? media : radio).port());
        platform.registry().put(name, R"({"name":")" + name + R"(","uri":"/","port":)" + port + "}");
        handlers.push_back(add(name));
    }
    for (auto& handler : handlers) ASSERT_TRUE(eventually([&] { return handler->getServicePort() != 0; }));
    const auto attempt = [&](std::size_t times) {
        for (std::size_t until = counter->attempts + times, next = 0; next < until;) {
            next = std::min(until, counter->attempts + 500);
            ASSERT_TRUE(eventually([&] { return counter->attempts >= next; }));
            for (Service* service : platform.services()) service->clearRecord();
        }
    };
    attempt(wanted / 3);
    const auto before = footprint();
    const auto heap = mallinfo2().uordblks;  // 0 with a sanitizer, whose allocator is another
    const std::size_t lines = counter->lines, attempts = counter->attempts;
    attempt(wanted - wanted / 3);
    EXPECT_LT(mallinfo2().uordblks, heap + 128 * 1024);
    EXPECT_LE(counter->lines - lines, 4 * (counter->attempts - attempts));
    EXPECT_TRUE(eventually([&] {
        const auto [threads, descriptors] = footprint();
        return threads <= before.first && descriptors <= before.second;
    }));

    for (Service* service : platform.services()) {
        service->clearFaults();
        service->start();
    }
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(eventually([&] { return handlers[i]->isAvailable(); }));
}

}  // namespace
