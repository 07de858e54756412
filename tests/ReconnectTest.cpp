#include <gmock/gmock.h>

#include <poll.h>

#include <future>
#include <memory>

#include "ClientDoubles.h"
#include "EventLog.h"
#include "LogCapture.h"
#include "LossRate.h"
#include "ReconnectThread.h"
#include "RefusedThreads.h"
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

// --- the thread, without a handler ---

/// A body that counts its rounds, and stays in each until it is let out.
class ReconnectThreadTest : public testing::Test, public Poco::Runnable {
protected:
    ~ReconnectThreadTest() override {
        inRound = nullptr;
        thread.stopForGood();
        while (!thread.join(1000)) {
        }
    }
    void run() override {
        ReconnectThread::Run run(thread);
        do {
            delays.push_back(run.retries().delayMs);
            ++rounds;
            if (inRound) inRound();
        } while (run.again([this] { return needed.load(); }));
    }
    void start(uint32_t delayMs) { thread.start(*this, {1, delayMs}); }

    Poco::Thread object;
    Poco::Event wait;
    ReconnectThread thread{object, wait};
    std::atomic<bool> needed{true};
    std::function<void()> inRound;
    std::vector<uint32_t> delays;  // of the rounds; the thread's until it is joined
    std::atomic<int> rounds{0};
};

TEST_F(ReconnectThreadTest, RunsAgainAndAgainAndIsJoinedOnce) {
    EXPECT_TRUE(thread.join(0));  // it never ran
    for (uint32_t i = 1; i <= 6000; ++i) {
        start(i);  // the last one may be about to end
        if (i % 3 != 0) continue;
        ASSERT_TRUE(thread.join(30000));
        EXPECT_TRUE(thread.join(0));
    }
    refusedThreads = 1;
    EXPECT_THROW(start(1), Poco::SystemException);
    EXPECT_TRUE(thread.join(0));
    const int before = rounds;
    start(1);
    EXPECT_TRUE(eventually([&] { return rounds == before + 1; }));
    thread.stopForGood();
    start(1);
    ASSERT_TRUE(thread.join(30000));
    EXPECT_EQ(before + 1, rounds);
}

TEST_F(ReconnectThreadTest, RoundsAskedForMeanwhileAreOneUnlessTakenBackOrNotNeeded) {
    const struct {
        bool takenBack, needed;
        std::vector<uint32_t> delays;
    } table[] = {{false, true, {1, 3}}, {true, true, {1}}, {false, false, {1}}};
    for (const auto& row : table) {
        std::promise<void> entered, leave;
        delays.clear();
        rounds = 0;
        needed = row.needed;
        inRound = [&] {
            if (rounds > 1) return;
            entered.set_value();
            leave.get_future().wait();
        };
        start(1);
        entered.get_future().wait();
        for (const uint32_t delayMs : {2, 3}) start(delayMs);
        EXPECT_FALSE(row.takenBack && thread.join(0));
        leave.set_value();
        EXPECT_TRUE(eventually([&] { return rounds == static_cast<int>(row.delays.size()); }));
        ASSERT_TRUE(thread.join(30000));
        EXPECT_EQ(row.delays, delays);
    }
}

// Whoever wants what an attempt holds ends it, and those that begin before he has it.
TEST_F(ReconnectThreadTest, AttemptsGiveWay) {
    Poco::Mutex held;
    std::atomic<int> attempts{0};
    inRound = [&] {
        const ReconnectThread::Overtake lock(thread, held);
        const ReconnectThread::Attempt attempt(thread);
        ++attempts;
        pollfd ended{attempt.cancellation()->descriptor(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&ended, 1, 30000));
    };
    const std::function<void()> ways[] = {[&] { const ReconnectThread::Overtake lock(thread, held); },
                                          [&] { thread.wake(); }, [&] { EXPECT_TRUE(thread.join(30000)); },
                                          [&] { thread.stopForGood(); }};
    int expected = 0;
    for (const auto& way : ways) {
        start(1);
        ++expected;
        while (attempts != expected) std::this_thread::yield();
        way();
        EXPECT_TRUE(thread.join(30000));
    }
}

TEST(LossRateTest, IsTooHighAfterTenShortLivesInARow) {
    LossRate rate;
    for (const bool late : {false, true}) {
        for (int i = 0; i <= 10; ++i) {
            EXPECT_FALSE(rate.tooHigh());
            rate.lost(999ms);
        }
        EXPECT_TRUE(rate.tooHigh()) << late;
        rate.lost(1s);
    }
}

}  // namespace
