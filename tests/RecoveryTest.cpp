#include <gmock/gmock.h>

#include <future>
#include <memory>

#include "ClientDoubles.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string DONE = "Info: run: reconnect done";
const std::string OPENED = "Info: WebSocketOpenedHandlerSync: reconnect msg received";

// --- the reconnect thread, without a network ---

class ReconnectTest : public testing::Test {
protected:
    TestHandler::Ptr make(uint8_t count, uint32_t delayMs, IMessageSyncInterface& messages) {
        TestHandler::Ptr made = new TestHandler("Media", &lib, &messages, 5000, true);
        made->setReconnectParameters(count, delayMs);
        return made;
    }
    TestHandler::Ptr make(uint8_t count, uint32_t delayMs) { return make(count, delayMs, sink); }
    void registerUnreachable() {
        lib.refusing = true;
        handler->setNewServiceAddress("10.0.0.5", 80);
    }
    bool eventually(const std::function<bool()>& condition) { return sink.dispatchUntil(condition, 30s); }

    LogCapture log;
    FakeClientLib lib;
    MessageSink sink;
    TestHandler::Ptr handler = make(4, 1);
};

TEST_F(ReconnectTest, TriesInSeriesWithOneMoreAfterThePause) {
    const std::string pause = "Warning: run: service Media (10.0.0.5) is not reachable (semi-permanent)!";
    const std::string attempt = "Debug: run: try reconnect";
    for (const auto& [count, delayMs] :
         {std::pair<uint8_t, uint32_t>(2, 1), std::pair<uint8_t, uint32_t>(0, 5)}) {
        handler = make(count, delayMs);
        log.clear();
        registerUnreachable();
        ASSERT_TRUE(eventually([&] { return log.count(pause) == 2; }));
        std::vector<std::string> lines, expected(count, attempt);
        for (const auto& line : log.lines())
            if (line == pause || line == attempt) lines.push_back(line);
        expected.push_back(pause);
        expected.insert(expected.end(), count + 1U, attempt);
        expected.push_back(pause);
        lines.resize(expected.size());
        EXPECT_EQ(expected, lines);
        lib.refusing = false;
        Announcements announced(handler);
        ASSERT_TRUE(eventually([&] { return !announced.states.empty(); }));
        EXPECT_THAT(announced.states, ElementsAre(true));
        EXPECT_EQ(1U, log.count(OPENED));
    }
}

TEST_F(ReconnectTest, StopsAtOnceAndStartsAgain) {
    for (int round = 0; round < 3; ++round) {
        const int before = lib.attempts;
        handler->setReconnectParameters(4, 60000);
        registerUnreachable();
        handler->handle(R"({"type":"data","event":"/#1-Media","data":)"  // which is nothing new
                        R"([{"name":"Media","uri":"http://10.0.0.5/","port":80}]})");
        for (int i = 0; i < 2; ++i) EXPECT_TRUE(handler->stopReconnectThread());
        EXPECT_EQ(before + 1, lib.attempts);  // the caller's own; the thread was waiting
        handler->setReconnectParameters(4, 1);
        registerUnreachable();
        lib.refusing = false;
        ASSERT_TRUE(eventually([&] { return log.count(OPENED) == round + 1U; }));
        EXPECT_TRUE(handler->isAvailable());
        EXPECT_TRUE(handler->stopReconnectThread());
        handler->setNewServiceAddress("", 0);
    }
}

TEST_F(ReconnectTest, GivesUpAServiceWithdrawnMeanwhile) {
    registerUnreachable();
    handler->setNewServiceAddress("", 0);
    ASSERT_TRUE(log.waitFor("Info: run: won't try reconnect since service is not registered at SR"));
    EXPECT_TRUE(handler->stopReconnectThread());
    const int before = lib.attempts;
    lib.refusing = false;
    handler->setNewServiceAddress("10.0.0.6", 80);
    EXPECT_TRUE(handler->isAvailable());
    EXPECT_EQ(before + 1, lib.attempts);
}

TEST_F(ReconnectTest, ConnectionOfAServiceWithdrawnMeanwhileIsClosed) {
    Announcements announced(handler);
    registerUnreachable();
    lib.refusing = false;
    ASSERT_TRUE(log.waitFor(DONE));  // its message waits
    handler->setNewServiceAddress("", 0);
    EXPECT_FALSE(handler->getWebSocket().isNull());
    sink.dispatch();
    EXPECT_TRUE(handler->getWebSocket().isNull());
    EXPECT_THAT(announced.states, IsEmpty());
}

TEST_F(ReconnectTest, RefusedMessageCountsAsAFailedAttempt) {
    sink.refuse(true);
    registerUnreachable();
    lib.refusing = false;
    ASSERT_TRUE(
        log.waitFor("Error: ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!"));
    sink.refuse(false);
    ASSERT_TRUE(eventually([&] { return log.count(OPENED) == 1; }));
    EXPECT_TRUE(handler->isAvailable());
    EXPECT_TRUE(handler->stopReconnectThread());
    EXPECT_EQ(lib.connections - 1, lib.destroyed);
}

/// Holds up whoever posts the first message, when it is posted.
struct GateSink : IMessageSyncInterface {
    explicit GateSink(MessageSink& sink) : to(sink) {}
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        const bool accepted = to.enqueueDataMessage(message);
        if (!passed.exchange(true)) {
            entered.set_value();
            open.get_future().wait();
        }
        return accepted;
    }
    MessageSink& to;
    std::atomic<bool> passed{false};
    std::promise<void> entered, open;
};

// A connection that is lost while the thread which made it has not ended: that thread has to go on.
TEST_F(ReconnectTest, LossIsNotMissedByAThreadAboutToEnd) {
    GateSink gate(sink);
    handler = make(4, 1, gate);
    registerUnreachable();
    lib.refusing = false;
    gate.entered.get_future().wait();
    auto worker = handler->getWebSocket();
    worker->socketClosedHandler(TestHandler::payload(""));
    while (!worker->closeReported()) std::this_thread::yield();
    sink.dispatch();
    EXPECT_FALSE(handler->isAvailable());
    gate.open.set_value();
    EXPECT_TRUE(eventually([&] { return handler->isAvailable() && log.count(OPENED) == 2; }));
    handler = nullptr;  // before its sink
}

TEST_F(ReconnectTest, DestructorOutlastsTheThread) {
    GateSink gate(sink);
    handler = make(4, 1, gate);
    registerUnreachable();
    lib.refusing = false;
    gate.entered.get_future().wait();
    log.clear();
    auto end = std::async(std::launch::async, [&] { handler = nullptr; });
    const auto joins = [&] { return log.count("Debug: stopReconnectThread"); };
    for (int i = 0; i < 3000 && joins() < 2; ++i) end.wait_for(10ms);
    EXPECT_GE(joins(), 2U);  // the first one has timed out
    EXPECT_EQ(std::future_status::timeout, end.wait_for(0s));
    gate.open.set_value();
    end.get();
    EXPECT_EQ(1U, log.count(DONE));
}

TEST_F(ReconnectTest, ConnectionClosedBeforeItWasListenedToCountsAsFailed) {
    lib.onConnected = [](WebSocketRequestHandler& worker) {
        worker.socketClosedHandler(TestHandler::payload(""));
        while (!worker.closeReported()) std::this_thread::yield();
    };
    handler = make(4, 60000);
    handler->setNewServiceAddress("10.0.0.5", 80);
    EXPECT_FALSE(handler->isAvailable());
    EXPECT_EQ(1U, log.count("Debug: startReconnectThread"));
}

TEST_F(ReconnectTest, ShutdownOutlastsAConnectUnderWay) {
    std::promise<void> entered, gate;
    lib.onConnect = [&] {
        if (lib.attempts != 2) return;  // that one is the thread's
        entered.set_value();
        gate.get_future().wait();
    };
    registerUnreachable();
    lib.refusing = false;
    entered.get_future().wait();
    auto end = std::async(std::launch::async, [&] { handler->shutdown(); });
    EXPECT_EQ(std::future_status::timeout, end.wait_for(50ms));
    gate.set_value();
    end.get();
    EXPECT_TRUE(handler->stopReconnectThread());
    sink.dispatch();
    EXPECT_TRUE(handler->getWebSocket().isNull());
}

// --- the whole client against the simulated platform ---

class RecoveryTest : public ClientTest {
protected:
    using Uris = std::vector<std::string>;

    /// Connects, with two subscribers of one resource and one of another.
    void subscribe(bool autoReconnect = true) {
        observe(connect(autoReconnect));
        first = handler->addSubscription("/Media/tracks/1", "0xa", false);
        further = handler->addSubscription("/Media/tracks/1", "0xb", true);
        list = handler->addSubscription("/Media/tracks", "0xa", true);
        expectAllWork();
    }
    void observe(ServiceHandler::Ptr observed) {
        handler = observed;
        notified = std::make_unique<Notifications>(handler);
        announced = std::make_unique<Announcements>(handler);
    }
    bool becomes(const std::vector<bool>& states) {
        return eventually([&] { return announced->states == states; });
    }
    /// Everything that was posted has been run, and what that posted in turn.
    void settle() {
        while (sink.dispatch() != 0) {
        }
    }
    void expectAllWork() { expectWorks({first, list}, {first, further, list}); }

    /// No reconnect thread is at work; on the one open connection each resource was subscribed exactly once,
    /// and a change reaches each subscriber exactly once.
    void expectWorks(const Uris& resources, const Uris& subscribers) {
        ASSERT_TRUE(eventually([&] {
            return handler->isAvailable() && media.openSockets() == 1 &&
                   log.count(DONE) == log.count(OPENED) &&
                   media.subscribedEvents().size() == resources.size();
        }));
        settle();
        const std::string value = change(subscribers);
        change(subscribers);  // whatever the first was doubled into came before this
        for (const auto& subscriber : subscribers)
            EXPECT_EQ(1U, notified->count(subscriber, value)) << subscriber;
        Uris subscribed;
        for (const auto& request : media.record().requests("subscribe"))
            if (request.socket == media.socketNumbers().at(0)) subscribed.push_back(request.event);
        EXPECT_THAT(subscribed, testing::UnorderedElementsAreArray(resources));
        EXPECT_EQ(1U, media.openSockets());
    }
    std::string change(const Uris& subscribers) {
        const std::string value = "value " + std::to_string(++changes) + ".";
        media.setElement("tracks", "1", R"({"title":")" + value + R"("})");
        for (const auto& subscriber : subscribers)
            EXPECT_TRUE(eventually([&] { return notified->count(subscriber, value) != 0; })) << subscriber;
        return value;
    }
    /// The registry's word still counts, and comes in once per handler, the registry's own included.
    void expectFollowsRegistry(std::size_t handlers) {
        auto states = announced->states;
        media.withdraw();
        states.push_back(false);
        EXPECT_TRUE(becomes(states));
        log.clear();
        media.registerService();
        states.push_back(true);
        EXPECT_TRUE(becomes(states));
        for (const char* event : {"/#1-Nobody", "/#2-Nobody"})
            platform.registry().pushRaw(R"({"type":"data","event":")" + std::string(event) + R"("})");
        EXPECT_TRUE(eventually([&] { return lines("/#2-Nobody") == handlers; }));
        EXPECT_EQ(handlers, lines("/#1-Nobody"));
    }
    std::size_t lines(const std::string& part) const {
        const auto all = log.lines();
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](const auto& line) { return line.find(part) != std::string::npos; }));
    }

    int changes = 0;
    std::string first, further, list;
    ServiceHandler::Ptr handler;
    std::unique_ptr<Notifications> notified;
    std::unique_ptr<Announcements> announced;
};

const Ending_t ENDINGS[] = {Ending_t::closeFrame(1001, "away"), Ending_t::endOfStream(), Ending_t::reset()};

TEST_F(RecoveryTest, DroppedServiceConnectionIsRebuiltAtOnce) {
    subscribe();
    for (const Ending_t& ending : ENDINGS) {
        const auto upgrades = media.record().upgrades();
        ASSERT_EQ(1U, media.dropSockets(ending));
        ASSERT_TRUE(eventually([&] { return media.record().upgrades() == upgrades + 1; }));
        expectAllWork();
    }
    EXPECT_THAT(announced->states, IsEmpty());
    EXPECT_EQ(3U, lines("communication error with service: Media (127.0.0.1);"));
}

TEST_F(RecoveryTest, DroppedRegistryConnectionTakesAllHandlersAlong) {
    subscribe();
    platform.addService("Tuner");
    auto tuner = add("Tuner");
    ASSERT_TRUE(eventually([&] { return tuner->isAvailable(); }));
    Registry& registry = platform.registry();
    for (const Ending_t& ending : ENDINGS) {
        const auto upgrades = registry.record().upgrades();
        ASSERT_EQ(1U, registry.dropSockets(ending));
        ASSERT_TRUE(eventually([&] {
            return registry.record().upgrades() == upgrades + 1 && registry.subscribedEvents().size() == 2;
        }));
        expectAllWork();
        EXPECT_EQ(1U, registry.openSockets());
        EXPECT_EQ(2U, registry.subscribedEvents().size());
    }
    EXPECT_THAT(announced->states, IsEmpty());
    EXPECT_TRUE(tuner->isAvailable());
    expectFollowsRegistry(3);
    expectAllWork();
}

TEST_F(RecoveryTest, ServiceRestartsOnItsPort) {
    subscribe();
    media.stop();
    media.start();
    const std::string added = handler->addSubscription("/Media/tracks/1?$fields=title", "", false);
    handler->removeSubscription(list);
    expectWorks({first, added}, {first, further, added});
    EXPECT_THAT(announced->states, IsEmpty());

    std::string inCallback;
    announced->then = [&](bool up) {
        if (up) inCallback = handler->addSubscription("/Media/", "", false);
    };
    media.stop();
    ASSERT_TRUE(becomes({false}));
    handler->removeSubscription(added);
    handler->removeSubscription(first);
    media.start();
    ASSERT_TRUE(log.waitFor(DONE));  // connected, but not yet announced
    const std::string late = handler->addSubscription("/Media/tracks", "", false);
    ASSERT_TRUE(becomes({false, true}));
    expectWorks({first, late, inCallback}, {further, late});
    EXPECT_THAT(announced->states, ElementsAre(false, true));
}

TEST_F(RecoveryTest, ServiceMoves) {
    subscribe();
    media.move();
    ASSERT_TRUE(eventually([&] {
        return handler->getServicePort() == media.port() && media.openSockets() == 1 &&
               log.count(OPENED) >= log.count("Debug: startReconnectThread");
    }));
    expectAllWork();
    expectFollowsRegistry(2);
}

TEST_F(RecoveryTest, ServiceThatClosesAtOnce) {
    subscribe();
    for (const bool whileRetrying : {false, true})
        for (const Ending_t& ending : ENDINGS) {
            const auto upgrades = media.record().upgrades();
            media.onUpgrade(Fault_t::openAndEnd(ending), 3);
            if (whileRetrying) {
                media.stop();
                ASSERT_TRUE(eventually([&] { return !handler->isAvailable(); }));
                media.start();
            } else {
                media.dropSockets(ending);
            }
            ASSERT_TRUE(eventually([&] { return media.record().upgrades() >= upgrades + 4; }));
            expectAllWork();
        }
}

TEST_F(RecoveryTest, RegistryAwayAndBack) {
    platform.addService("Alpha");
    subscribe();
    auto alpha = add("Alpha");
    ASSERT_TRUE(eventually([&] { return alpha->isAvailable(); }));
    std::string order;
    Announcements ofAlpha(alpha);
    ofAlpha.then = [&](bool) { order += 'a'; };
    announced->then = [&](bool) { order += 'm'; };
    platform.stopRegistry();
    ASSERT_TRUE(becomes({false}));
    EXPECT_EQ("am", order);  // by name
    ASSERT_TRUE(platform.waitFor([&] { return media.openSockets() == 0; }, DEADLINE));
    const std::string added = handler->addSubscription("/Media/tracks/1?$fields=title", "", false);
    handler->removeSubscription(list);
    media.stop();  // the registry comes back first
    platform.startRegistry();
    ASSERT_TRUE(
        eventually([&] { return log.contains("ServiceAvailabilityChanged: Media (127.0.0.1) = 1"); }));
    media.start();
    ASSERT_TRUE(becomes({false, true}));
    expectWorks({first, added}, {first, further, added});
    ASSERT_TRUE(eventually([&] { return alpha->isAvailable(); }));
    expectFollowsRegistry(3);
}

TEST_F(RecoveryTest, WithoutAutoReconnectTheRegistryBringsItBack) {
    subscribe(false);
    media.dropSockets(Ending_t::reset());
    ASSERT_TRUE(becomes({false}));
    EXPECT_EQ(1U, media.record().upgrades());
    media.withdraw();
    media.registerService();
    ASSERT_TRUE(becomes({false, true}));
    expectAllWork();
}

// --- a handler replaced by another of the same name ---

struct Mortal : ServiceHandler {
    Mortal(ClientLib* lib, MessageSink* sink, bool& destroyed)
        : ServiceHandler("Media", lib, sink, 0, true), gone(destroyed) {}
    ~Mortal() override { gone = true; }
    bool& gone;
};

TEST_F(RecoveryTest, ReplacedHandlerIsGoneAndTheNewOneWorks) {
    bool gone = false;
    lib.startup();
    lib.addService(new Mortal(&lib, &sink, gone));
    ASSERT_TRUE(platform.waitFor([&] { return sink.pending() > 0; }, DEADLINE));
    observe(add());  // messages of the old one wait
    EXPECT_TRUE(gone);
    ASSERT_TRUE(becomes({true}));
    first = handler->addSubscription("/Media/tracks/1", "", false);
    expectWorks({first}, {first});
    expectFollowsRegistry(2);
}

TEST_F(RecoveryTest, HandlerReplacedInsideItsOwnCallback) {
    struct {
        void announced(const Announcements::Data& data) {
            action();
            EXPECT_EQ("Media", data.handler->getServiceName());  // it is there until the callback returns
        }
        std::function<void()> action;
    } replace;
    replace.action = [&] {
        if (!handler) observe(add());
    };
    bool gone = false;
    lib.startup();
    auto* const mortal = new Mortal(&lib, &sink, gone);
    mortal->MicroServiceRegistrationChanged += Poco::delegate(&replace, &decltype(replace)::announced);
    lib.addService(mortal);
    ASSERT_TRUE(eventually([&] { return handler && handler->isAvailable(); }));
    EXPECT_FALSE(gone);
    observe(add());
    EXPECT_TRUE(gone);
    ASSERT_TRUE(becomes({true}));
    expectFollowsRegistry(2);
}

// --- shutdown, in whatever state ---

class ShutdownTest : public RecoveryTest, public testing::WithParamInterface<const char*> {
protected:
    void start() {
        client->startup();
        client->addService(handler);
        ASSERT_TRUE(becomes({true}));
        handler->addSubscription("/Media/tracks/1", "", false);
        ASSERT_TRUE(eventually([&] { return !notified->received.empty(); }));
    }
    bool is(const std::string& state) const { return state == GetParam(); }

    /// Brings the client into the state that the test is named after.
    void enterState() {
        if (is("ReconnectThreadsAtWork")) platform.stopRegistry();
        if (is("NeverStarted")) return void(client->addService(handler));
        if (is("ReconnectThreadsAtWork")) {
            client->startup();
            return void(client->addService(handler));
        }
        start();
        if (is("Connecting")) {
            media.onUpgrade(Fault_t::status(503), 1);
            media.dropSockets(Ending_t::reset());
            ASSERT_TRUE(becomes({true, false}));
            media.onUpgrade(Fault_t::late(300ms));
            ASSERT_TRUE(log.waitFor("Debug: run: try reconnect"));
        } else if (is("SinkRefuses")) {
            sink.refuse(true);
            media.dropSockets(Ending_t::reset());
            ASSERT_TRUE(
                log.waitFor("Warning: ServiceHandler::WebSocketClosedHandler: Could not enqueue message!"));
        } else if (is("UnderFire")) {
            fire = std::async(std::launch::async, [this] {
                while (firing) {
                    media.setElement("tracks", "1", R"({"title":"fire"})");
                    platform.registry().pushRaw(R"({"type":"data","event":"/#1-Media","data":[]})");
                }
            });
            ASSERT_TRUE(platform.waitFor([&] { return sink.pending() > 5; }, DEADLINE));
        } else if (is("PeersJustGone")) {
            media.stop();
            platform.stopRegistry();
        }
    }

    std::unique_ptr<ClientLib> client = std::make_unique<ClientLib>(&sink, parameters());
    std::atomic<bool> firing{true};
    std::future<void> fire;
};

TEST_P(ShutdownTest, ReturnsAndNothingComesAfterIt) {
    observe(new ServiceHandler("Media", client.get(), &sink, 5000, true));
    enterState();
    const auto before = notified->received.size();
    if (!is("ReconnectThreadsAtWork"))  // there the destructor does it
        for (int i = 0; i < 2; ++i) client->shutdown();
    client = nullptr;
    EXPECT_TRUE(handler->Disposing());
    EXPECT_FALSE(handler->isAvailable());
    const auto states = announced->states;
    firing = false;
    if (fire.valid()) fire.get();
    settle();
    EXPECT_EQ(before, notified->received.size());
    EXPECT_EQ(states, announced->states);
    EXPECT_TRUE(platform.waitFor(
        [&] { return media.openSockets() == 0 && platform.registry().openSockets() == 0; }, DEADLINE));
}

INSTANTIATE_TEST_SUITE_P(States, ShutdownTest,
                         testing::Values("NeverStarted", "ReconnectThreadsAtWork", "Connected", "Connecting",
                                         "SinkRefuses", "UnderFire", "PeersJustGone"),
                         [](const auto& state) { return std::string(state.param); });

}  // namespace
