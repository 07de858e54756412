// Shutdown and destruction of a client, a handler, a listener and a worker by the thread that owns them, in
// every state that they can be in; and what callbacks may do to them, and must not.
//
// ZOL_TEARDOWN_REPETITIONS: how often (3). scripts/stress sets it.

#include <Poco/Net/ServerSocket.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <deque>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

#include "ClientDoubles.h"
#include "EventLog.h"
#include "Footprint.h"
#include "RefusedThreads.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using std::chrono::milliseconds;

int setting(const char* name, int otherwise) {
    const char* const value = std::getenv(name);
    return value == nullptr ? otherwise : std::atoi(value);
}
const int REPETITIONS = setting("ZOL_TEARDOWN_REPETITIONS", 3);
// No end waits for a peer: half a minute to connect, a minute to upgrade, ten seconds to send.
constexpr milliseconds JOINS = 8s;  // of a few threads, on a machine that is busy

using Cell = std::pair<std::string, std::string>;  // how it ends, and in which state
/// A client with one service, of which something is torn down. Used by one thread, the caller's.
class Subject {
public:
    Subject(Platform& where, Service& its, const LogCapture& lines, const Cell& cell)
        : platform(where), service(its), log(lines), end(cell.first), state(cell.second) {}

    void live() {
        enterState();
        const auto begin = std::chrono::steady_clock::now();
        tearDown();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, JOINS);
        expectNothingMore();
    }

    bool hasClient() const { return client != nullptr; }

private:
    void construct() {
        client = std::make_unique<ClientLib>(
            &sink, ClientLib::ClientLibParameters{"test", 5000, false, 3, 10, 5, 3, 60, 10, 4, 1});
        if (isOf("Worker")) return;
        handler = new ServiceHandler(service.name(), client.get(), &sink, 5000, true);
        // One that is to end is its owner's alone: the client would keep it, and start it again.
        if (!isOf("Handler")) client->addService(handler);
        if (isOf("Listener")) {
            listener = std::make_unique<ScriptedListener>(client.get(), 10);
            listener->onState = [this](bool up) { called(up); };
            listener->onData = [this](const ScriptedListener::Data& data) { called(data); };
            listener->addServiceToMonitor(service.name(), false);
        } else {
            count(handler->SocketDataAvailable);
            count(handler->MicroServiceRegistrationChanged);
        }
    }

    void start() {
        construct();
        client->startup();
        if (isOf("Handler")) handler->start();
        if (listener) listener->startup();
    }

    void open() {
        start();
        if (isOf("Worker")) {
            worker = client->createNewWebsocket(service.name(), "127.0.0.1", service.port(), 5000);
            count(worker->SocketDataAvailable);
            return count(worker->SocketClosed);
        }
        run([&] { return handler->isAvailable(); });
        const std::string uri = "/" + service.name() + "/tracks/1";
        const auto subscription = listener ? listener->addSubscription(uri, "", 0, "", false)
                                           : handler->addSubscription(uri, "", false);
        notification = R"({"type":"data","data":{},"event":")" + subscription + "\"}";
        run([&] { return calls == 2; });  // it is there, and so is the data
    }

    void enterState() {
        if (state == "NeverStarted") return construct();
        if (state == "Connecting") return vanish();
        open();
        if (state == "MidMessage") {
            const std::string frame = Endpoint::encodeFrame(notification);
            service.pushBytes(frame + frame.substr(0, frame.size() / 2));
            waitFor([&] { return arrived() > 0; });
        } else if (state == "UnderFire") {
            fire = std::async(std::launch::async, [this] {
                for (; firing; push()) platform.registry().pushRaw(notification);
            });
            waitFor([&] { return arrived() > 5; });
        } else if (state == "MessagesQueued") {
            for (int i = 0; i < 100; ++i) push();
            waitFor([&] { return worker || arrived() > 50; });
        } else if (state == "SendingIntoAFullSocket") {
            fillSocket();
        } else if (state == "ReconnectWaiting") {
            lose(4, 600'000);
        } else if (state == "SemiPermanentWait") {
            lose(0, 600'000);
            EXPECT_TRUE(log.waitFor("is not reachable (semi-permanent)!"));
        } else if (state == "Upgrading") {
            lose(4, 1);
            service.onUpgrade(Fault_t::noAnswer());
            comeBack();
        } else if (state == "SinkRefuses") {
            lose(4, 1);
            sink.refuse(true);
            comeBack();  // the reconnect thread makes one connection after the other
        } else if (state == "RegistryAway") {
            platform.stopRegistry();
            run([&] { return client->getServiceRegistryWebSocket().isNull(); });
        } else if (state == "PeersGone") {
            service.stop();
            platform.stopRegistry();
        }
    }

    // Refuses the first attempt, which is this thread's, and swallows the reconnect thread's: there is room
    // for one connection that nobody accepts.
    void vanish() {
        hole.emplace().bind(Poco::Net::SocketAddress("127.0.0.1", 0), true, false);
        const auto port = hole->address().port();
        const std::string record = R"({"uri":"/","name":")" + service.name() + R"(","port":)";
        platform.registry().put(service.name(), record + std::to_string(port) + "}");
        start();
        run([&] { return handler->getServicePort() == port; });
        hole->listen(0);
        filler.connect(hole->address());
        const std::string unanswered = ":" + Poco::NumberFormatter::formatHex(port, 4) + " 02 ";
        waitFor([&] {
            std::ifstream table("/proc/net/tcp");
            return std::string(std::istreambuf_iterator<char>(table), {}).find(unanswered) !=
                   std::string::npos;
        });
    }

    void lose(uint8_t retries, uint32_t delayMs) {
        handler->setReconnectParameters(retries, delayMs);
        service.stop();
        run([&] { return !handler->isAvailable(); });
    }

    void comeBack() {
        const auto before = service.record().upgradeRequests().size();
        service.start();
        waitFor([&] { return service.record().upgradeRequests().size() > before; });
    }

    void fillSocket() {
        auto sender = worker ? worker : handler->getWebSocket();
        auto socket = sender->getSocket();
        ClientLib::setSocketOption(socket, SOL_SOCKET, SO_SNDBUF, 1);
        service.goSilent();
        *sender << Nubo::Command::WebSocketRequestObject("", std::string(1'000'000, 'x'), 0, 1, nullptr,
                                                         false);
        waitFor([&] {
            if (!sender->getSocketMutex().tryLock()) return true;  // its thread has it while it sends
            sender->getSocketMutex().unlock();
            return false;
        });
    }

    void tearDown() {
        if (end == "ClientShutdown") client->shutdown();
        if (end == "HandlerShutdown") handler->shutdown();
        if (end == "ListenerShutdown") listener->shutdown();
        while (end == "WorkerShutdown" && !worker->shutdown()) std::this_thread::yield();
        if (end == "WorkerDestruction") client->destroyWebsocket(worker);
        if (end == "WorkerDestruction") worker = nullptr;
        if (end == "HandlerDestruction" || end == "ClientDestruction") handler = nullptr;
        if (end == "ClientDestruction") client = nullptr;  // which has the handler still
        listener = nullptr;
    }

    void expectNothingMore() {
        const int before = calls;
        const bool closed = !isOf("Listener");
        EXPECT_TRUE(!closed || !handler || (handler->Disposing() && !handler->isAvailable()));
        heal();
        waitFor([&] { return !closed || service.openSockets() == 0; });
        service.setElement("tracks", "1", R"({"title":"late"})");
        while (sink.dispatch() != 0) {
        }
        EXPECT_TRUE(!closed || !handler || handler->getWebSocket().isNull());
        if (client) client->shutdown();
        EXPECT_EQ(before, calls);
    }

    void heal() {
        firing = false;
        if (fire.valid()) fire.get();
        hole.reset();
        filler = Poco::Net::StreamSocket();
        sink.refuse(false);
        service.clearFaults();
        service.start();
        service.registerService();
        platform.startRegistry();
    }

    bool isOf(const char* victim) const { return end.find(victim) == 0; }
    void push() const { service.pushRaw(notification); }
    int arrived() const { return worker ? calls.load() : static_cast<int>(sink.pending()); }
    void run(const std::function<bool()>& until) { EXPECT_TRUE(sink.dispatchUntil(until, 60s)); }
    void waitFor(const std::function<bool()>& until) const { EXPECT_TRUE(platform.waitFor(until, 60s)); }
    template <class Data>
    void count(Poco::BasicEvent<const Data, Poco::FastMutex>& event) {
        event += Poco::delegate(this, &Subject::called<Data>);
    }
    template <class Data>
    void called(const Data&) {
        ++calls;
    }

    Platform& platform;
    Service& service;
    const LogCapture& log;
    const std::string end, state;
    std::string notification = R"({"type":"data","event":"/#1-Nobody"})";
    std::atomic<int> calls{0};  // what was called back, on whatever thread
    std::optional<Poco::Net::ServerSocket> hole;
    Poco::Net::StreamSocket filler;
    RefusingQueue sink;
    std::unique_ptr<ClientLib> client;
    ServiceHandler::Ptr handler;
    std::unique_ptr<ScriptedListener> listener;
    WebSocketRequestHandler::Ptr worker;
    std::atomic<bool> firing{true};
    std::future<void> fire;
};

// --- each end in each state ---

std::vector<Cell> cells() {
    const std::vector<std::string> ofWorkers = {
        "Open", "MidMessage", "UnderFire", "SendingIntoAFullSocket", "MessagesQueued", "PeersGone"};
    const std::vector<std::string> further = {"NeverStarted",     "Connecting",        "Upgrading",
                                              "ReconnectWaiting", "SemiPermanentWait", "RegistryAway",
                                              "SinkRefuses"};
    std::vector<Cell> all;
    // A listener is shut down before it is destroyed.
    for (const char* const end :
         {"ClientShutdown", "ClientDestruction", "HandlerShutdown", "HandlerDestruction", "ListenerShutdown",
          "WorkerShutdown", "WorkerDestruction"}) {
        for (const auto& state : ofWorkers) all.emplace_back(end, state);
        // A worker has a connection, and knows neither registry nor sink nor reconnecting.
        if (end[0] != 'W')
            for (const auto& state : further) all.emplace_back(end, state);
    }
    return all;
}

class TeardownTest : public testing::TestWithParam<Cell> {};

TEST_P(TeardownTest, EndsAndNothingComesAfterIt) {
    LogCapture log(Poco::Message::PRIO_WARNING);
    Platform platform;
    const bool lasts = GetParam().second == "Connecting" || GetParam().second == "Upgrading";
    const bool sharesRegistry = GetParam().second != "RegistryAway" && GetParam().second != "PeersGone";
    const int inParallel = std::min(REPETITIONS, lasts ? 20 : sharesRegistry ? 5 : 1);
    for (int i = 0; i < inParallel; ++i)
        platform.addService("S" + std::to_string(i)).setElement("tracks", "1", R"({"title":"none"})");
    const auto before = footprint();
    const int rounds = lasts ? 1 : REPETITIONS / inParallel;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        std::deque<Subject> subjects;
        std::vector<std::future<void>> lives;
        for (Service* const service : platform.services()) {
            Subject& subject = subjects.emplace_back(platform, *service, log, GetParam());
            lives.push_back(std::async(std::launch::async, &Subject::live, &subject));
        }
        for (auto& life : lives) life.get();
        // What was only shut down has no thread either, and a client the one descriptor that it always has.
        const auto clients = std::count_if(subjects.begin(), subjects.end(),
                                           [](const Subject& subject) { return subject.hasClient(); });
        const auto left = std::make_pair(before.first, before.second + clients);
        EXPECT_TRUE(eventually([&] { return footprint() == left; }))
            << footprint().first - before.first << " threads, " << footprint().second - before.second
            << " descriptors too many in round " << round;
        log.clear();
    }
    std::cout << "repetitions: " << rounds * inParallel << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Cells, TeardownTest, testing::ValuesIn(cells()),
                         [](const auto& cell) { return cell.param.first + "_" + cell.param.second; });

// Nor does it let a handler begin another attempt while it shuts the others down.
TEST_F(ClientTest, ShutdownWaitsForNoServiceThatHangs) {
    const std::vector<Service*> services{&media, &platform.addService("Radio"),
                                         &platform.addService("Tuner")};
    lib.startup();
    for (Service* service : services) {
        const auto handler = add(service->name());
        ASSERT_TRUE(eventually([&] { return handler->isAvailable(); }));
        service->onUpgrade(Fault_t::noAnswer());
        service->clearRecord();
        service->dropSockets(Ending_t::reset());
        // The caller's attempt gives up soon, and the loss is told.
        ASSERT_TRUE(eventually([&] { return !handler->isAvailable(); }));
        ASSERT_TRUE(
            platform.waitFor([&] { return service->record().upgradeRequests().size() == 2; }, DEADLINE));
    }
    const auto attempts = [this] { return log.count("Debug: run: try reconnect"); };
    const auto before = attempts();
    const auto begin = std::chrono::steady_clock::now();
    lib.shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, JOINS);
    EXPECT_EQ(before, attempts());
}

// A timer starts it, though nothing else happens.
TEST_F(ClientTest, AReconnectThreadThatTheSystemRefusesIsTriedAgain) {
    const auto handler = connect();
    media.stop();
    ASSERT_TRUE(platform.waitFor([&] { return sink.pending() > 0; }, DEADLINE));
    refusedThreads = 1;
    ASSERT_TRUE(eventually([&] { return !handler->isAvailable(); }));
    EXPECT_TRUE(log.contains("Error: startReconnectThread: System exception: cannot start thread"));
    EXPECT_EQ(0, refusedThreads);
    media.start();
    ASSERT_TRUE(eventually([&] { return handler->isAvailable(); }));
}

// --- callbacks ---

class CallbackTest : public ClientTest {
protected:
    ~CallbackTest() override { listener.shutdown(); }
    /// Subscribes a listener to a track whose changes are numbered.
    void listen() {
        connect();
        listener.addServiceToMonitor("Media", false);
        listener.startup();
        subscription = subscribe();
        ASSERT_TRUE(eventually([&] { return heard.size() == 1; }));
    }
    std::string subscribe() { return listener.addSubscription("Media/tracks/1", "", 0, "", false); }
    void change(int title) {
        media.setElement("tracks", "1", R"({"title":")" + std::to_string(title) + R"("})");
    }

    ScriptedListener listener{&lib, 10};
    std::string subscription;
    std::vector<std::string> heard;
};

TEST_F(CallbackTest, OneThatIsSlowHoldsUpNothingButItsThread) {
    listener.onData = [&](const ScriptedListener::Data& data) {
        heard.push_back(data.container->getObject("data")->getValue<std::string>("title"));
        if (heard.size() != 2) return;
        for (int i = 2; i <= 60; ++i) change(i);
        EXPECT_TRUE(platform.waitFor([&] { return sink.pending() == 59; }, DEADLINE));
    };
    listen();
    change(1);
    ASSERT_TRUE(eventually([&] { return heard.size() == 61; }));
    for (std::size_t i = 1; i <= 60; ++i) EXPECT_EQ(std::to_string(i), heard[i]);
    EXPECT_EQ(1U, media.record().upgrades());
}

TEST_F(CallbackTest, MayChangeSubscriptionsAndServices) {
    platform.addService("Tuner");
    int rounds = 0;
    listener.onData = [&](const ScriptedListener::Data& data) {
        heard.push_back(data.event);
        if (heard.size() == 1 || rounds == 20) return;
        ++rounds;  // a new subscription brings the data, and so the next round
        listener.removeSubscription(data.event);
        subscription = subscribe();
        add("Tuner");
        listener.addServiceToMonitor("Tuner", true);
    };
    listen();
    change(1);
    ASSERT_TRUE(
        eventually([&] { return heard.size() == 22 && lib.getServiceHandler("Tuner")->isAvailable(); }));
    heard.clear();
    for (const int title : {2, 3}) change(title);
    ASSERT_TRUE(eventually([&] { return heard.size() == 2; }));
    EXPECT_THAT(heard, testing::Each(subscription));
    EXPECT_EQ(std::vector<std::string>{subscription}, media.subscribedEvents());
}

TEST_F(CallbackTest, MayReplaceItsHandlerWhichThenHearsAndDoesNothing) {
    struct {
        void announced(const Announcements::Data& data) {
            ++count;
            replace();
            EXPECT_EQ("Media", data.handler->getServiceName());  // it is there until the callback returns
        }
        std::function<void()> replace;
        int count = 0;
    } replaced{[&] { add(); }};
    auto kept = connect();
    kept->MicroServiceRegistrationChanged += Poco::delegate(&replaced, &decltype(replaced)::announced);
    const auto announcement = R"({"name":"Media","uri":"/","port":)" + std::to_string(media.port()) + "}";
    media.clearRecord();
    platform.registry().remove("Media");
    platform.registry().put("Media", announcement);  // would have it connect again
    ASSERT_TRUE(platform.waitFor([&] { return sink.pending() >= 2; }, DEADLINE));
    EXPECT_TRUE(eventually([&] { return sink.pending() == 0; }));
    EXPECT_TRUE(eventually([&] { return lib.getServiceHandler("Media")->isAvailable(); }));
    EXPECT_EQ(1U, media.record().upgrades());
    auto second = lib.getServiceHandler("Media");
    lib.addService(kept);  // and now the other way round, from outside
    EXPECT_TRUE(eventually([&] { return kept->isAvailable(); }));
    EXPECT_FALSE(second->isAvailable() || second->Disposing());  // left alone, but not shut down
    EXPECT_TRUE(platform.waitFor([&] { return media.openSockets() == 1; }, DEADLINE));
    lib.shutdown();
    EXPECT_EQ(1, replaced.count);
}

TEST_F(CallbackTest, MayReplaceTheServiceAndEndAnotherListener) {
    std::unique_ptr<ScriptedListener> other;
    listener.onData = [&](const ScriptedListener::Data& data) {
        heard.push_back(data.event);
        if (!other) return;
        add();
        other->shutdown();  // finds the new handler only
        other.reset();
    };
    listen();
    other = std::make_unique<ScriptedListener>(&lib, 11);
    int served = 0;
    other->onData = [&](const ScriptedListener::Data&) { ++served; };
    other->addServiceToMonitor("Media", false);
    other->startup();
    other->addSubscription("Media/tracks/1", "", 0, "", false);
    ASSERT_TRUE(eventually([&] { return served == 1; }));
    change(1);
    EXPECT_TRUE(eventually([&] { return !other && lib.getServiceHandler("Media")->isAvailable(); }));
    EXPECT_EQ(1, served);
}

TEST_F(CallbackTest, FurtherSubscribersEndWithTheNewestData) {
    std::vector<std::string> titles;
    listener.onData = [&](const ScriptedListener::Data& data) {
        heard.push_back(data.event);
        titles.push_back(data.container->getObject("data")->getValue<std::string>("title"));
    };
    listen();
    change(1);
    ASSERT_TRUE(platform.waitFor([&] { return sink.pending() == 1; }, DEADLINE));
    const std::string second = subscribe();  // the data of before is posted behind the change
    ASSERT_TRUE(eventually([&] { return heard.size() == 4; }));
    EXPECT_EQ(second, heard.back());
    subscribe();
    ASSERT_TRUE(eventually([&] { return heard.size() == 5; }));
    EXPECT_EQ((std::vector<std::string>{"none", "1", "1", "1", "1"}), titles);
}

TEST_F(CallbackTest, OnTheManagersThreadCannotShutTheClientDown) {
    EventLog mistaken;
    mistaken.inside = [&](const std::string&) { lib.shutdown(); };
    listener.onData = [&](const ScriptedListener::Data& data) { heard.push_back(data.event); };
    listen();
    mistaken.listen(lib);
    change(1);
    EXPECT_TRUE(eventually([&] { return heard.size() == 2; }));
    EXPECT_TRUE(log.waitFor("Error: ClientLib::shutdown: called from inside a delegate"));
    lib.shutdown();
}

}  // namespace
