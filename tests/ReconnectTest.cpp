#include <gmock/gmock.h>

#include <future>
#include <memory>

#include "ClientDoubles.h"
#include "LogCapture.h"
#include "RefusingQueue.h"

namespace {

using namespace Nubo::Client;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string DONE = "Info: run: reconnect done";
const std::string OPENED = "Info: WebSocketOpenedHandlerSync: reconnect msg received";

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
    RefusingQueue sink;
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

TEST_F(ReconnectTest, PeerThatEndsEveryConnectionIsNotAskedAtOnceForEver) {
    handler->setReconnectParameters(4, 60000);
    handler->setNewServiceAddress("10.0.0.5", 80);
    for (int lost = 1; lost <= 12; ++lost) {
        EXPECT_EQ(lost <= 11, handler->isAvailable());
        handler->close("away");
        sink.dispatch();
    }
    EXPECT_EQ(11, lib.connections);
    EXPECT_EQ(1U, log.count("Debug: startReconnectThread"));
}

// The application was told of it: a gap in it would go unheard.
TEST_F(ReconnectTest, ConnectionThatTheCallerMadeMeanwhileStays) {
    handler->setReconnectParameters(4, 500);
    registerUnreachable();
    lib.refusing = false;
    handler->setNewServiceAddress("10.0.0.6", 80);
    EXPECT_TRUE(handler->isAvailable());
    ASSERT_TRUE(eventually([&] { return log.count(OPENED) == 1; }));
    EXPECT_EQ(1, lib.connections);
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
    explicit GateSink(MessageQueue& sink) : to(sink) {}
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        const bool accepted = to.enqueueDataMessage(message);
        if (!passed.exchange(true)) {
            entered.set_value();
            open.get_future().wait();
        }
        return accepted;
    }
    MessageQueue& to;
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

}  // namespace
