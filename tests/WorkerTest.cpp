// The worker of one connection, on a real WebSocket over loopback whose other end the test holds.

#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/JSON/Parser.h>
#include <gtest/gtest.h>

#include <future>

#include "Footprint.h"
#include "LogCapture.h"
#include "RawPeer.h"

using Nubo::Client::WebSocketRequestHandler;
using Nubo::Command::WebSocketRequestObject;
using Events = std::vector<std::string>;
using namespace std::chrono_literals;

namespace {

const std::string RUN =
    "Warning: virtual void Nubo::Client::WebSocketRequestHandler::run(): A socket is may going down. Exp: ";
const std::string SHUTDOWN = "Warning: bool Nubo::Client::WebSocketRequestHandler::shutdown(): ";

class WorkerTest : public ::testing::Test {
protected:
    WorkerTest() { connect(); }
    void connect() {
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
        const Poco::Net::StreamSocket out(server.address());
        socket = asWebSocket(out, Side::Client);
        peer = asWebSocket(server.acceptConnection(), Side::Server);
        worker = new WebSocketRequestHandler(socket);
    }
    void request(const std::string& event) {
        *worker << WebSocketRequestObject(WebSocketRequestObject::TYPE_SUBSCRIBE, event, 0, 100, nullptr,
                                          false);
    }
    void data(const std::string& text) {
        Nubo::Net::WebsocketDataEventPayload payload(proxy);
        payload.data = text;
        worker->enqueueSocketData(payload);
    }
    void close(const std::string& reason) { worker->socketClosedHandler({proxy, reason}); }

    LogCapture log;
    Poco::SharedPtr<Poco::Net::WebSocket> socket, peer;
    Nubo::Net::WebSocketProxy proxy{nullptr, nullptr};
    EventLog events;
    WebSocketRequestHandler::Ptr worker;
};

}  // namespace

TEST_F(WorkerTest, SendsEachRequestAsOneTextFrameInOrder) {
    const Events sent{"/?name=Media#11-Media", "/M/t/?$fields=a,b#12-M-0xa", "/M/\xC3\xA4 \"q\"/"};
    for (const std::string& event : sent) request(event);
    for (const std::string& event : sent) {
        const std::string frame = frameFrom(*peer);
        EXPECT_EQ("81 {\"", frame.substr(0, 5));
        EXPECT_EQ(std::string::npos, frame.find('\n'));
        const auto json = Poco::JSON::Parser().parse(frame.substr(3)).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ(event, json->getValue<std::string>(WebSocketRequestObject::FIELD_EVENT));
    }
}

TEST_F(WorkerTest, ShutdownOfAnIdleWorkerClosesOnceAndThenOnlyReports) {
    EXPECT_EQ(socket->address(), worker->address());
    EXPECT_EQ(peer->address(), worker->peerAddress());
    events.listen(*worker);
    EXPECT_TRUE(worker->shutdown());
    EXPECT_TRUE(worker->shutdown());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(CLOSE_FRAME, frameFrom(*peer));
    EXPECT_EQ(1, socket.referenceCount());
    EXPECT_TRUE(worker->getSocket().isNull());
    EXPECT_EQ(Poco::Net::SocketAddress(), worker->address());
    EXPECT_EQ(Poco::Net::SocketAddress(), worker->peerAddress());

    data("late");
    request("/late");
    EXPECT_TRUE(worker->shutdown());
    worker = nullptr;
    socket = nullptr;
    EXPECT_EQ("0 ", frameFrom(*peer));  // the end of the stream, and nothing before it
    EXPECT_EQ(Events{}, events.events());
}

TEST_F(WorkerTest, NoWakeUpIsLost) {
    Poco::SharedPtr<Poco::Net::WebSocket> none;
    constexpr std::size_t ROUNDS = 500;
    for (std::size_t i = 0; i < ROUNDS; ++i) {
        worker = new WebSocketRequestHandler(none);
        if (i % 2 == 1) std::this_thread::yield();  // the thread is at another place then
        ASSERT_TRUE(worker->shutdown()) << "round " << i;
    }
    EXPECT_EQ(ROUNDS, log.count(SHUTDOWN + "Null pointer"));
}

TEST_F(WorkerTest, ShutdownFromInsideADelegateDropsDataAndRequestsButReportsTheClose) {
    std::promise<void> allQueued;
    std::promise<bool> result;
    events.inside = [&](const std::string& event) {
        if (event != "data 1") return;
        allQueued.get_future().wait();
        result.set_value(worker->shutdown());
    };
    events.listen(*worker);
    data("1");
    data("2");
    request("/never");
    close("connection reset by peer");
    allQueued.set_value();
    EXPECT_FALSE(result.get_future().get());  // its own thread cannot have ended
    EXPECT_TRUE(eventually([&] { return worker->shutdown(); }));
    EXPECT_EQ((Events{"data 1", "closed connection reset by peer"}), events.events());
    EXPECT_EQ(CLOSE_FRAME, frameFrom(*peer));
}

TEST_F(WorkerTest, ItLeavesAtShutdownThoughRequestsKeepComing) {
    std::promise<void> entered, leave;
    events.inside = [&](const std::string& event) {
        if (event != "data 1") return;
        entered.set_value();
        leave.get_future().wait();
    };
    events.listen(*worker);
    data("1");
    entered.get_future().wait();
    close("before");
    auto ended = std::async(std::launch::async, [&] { return worker->shutdown(); });
    EXPECT_TRUE(eventually([&] { return !worker->getSocket(); }));  // it gave up the join
    for (int i = 0; i < 100'000; ++i) request("/late");
    close("after");
    leave.set_value();
    ended.get();
    EXPECT_TRUE(eventually([&] { return worker->shutdown(); }));
    EXPECT_EQ((Events{"data 1", "closed before"}), events.events());
}

TEST_F(WorkerTest, AnExceptionOfADelegateCostsItsNotificationOnly) {
    const struct {
        std::function<void()> fail;
        Events lines;
    } table[] = {
        {[] { throw Poco::IOException("pipe"); }, {RUN + "I/O error: pipe", RUN + "I/O error: pipe"}},
        {[] { throw std::runtime_error("x"); }, {}},
        {[] { throw 7; }, {}},
    };
    std::function<void()> fail;
    events.inside = [&](const std::string& event) {
        if (event.find("bad") != std::string::npos) fail();
    };
    events.listen(*worker);
    Events expected;
    for (const auto& row : table) {
        fail = row.fail;
        log.clear();
        data("bad");
        close("bad");
        data("good");
        for (const char* event : {"data bad", "closed bad", "data good"}) expected.push_back(event);
        ASSERT_TRUE(events.waitFor(expected));
        EXPECT_EQ(row.lines, log.lines());
        for (const Poco::Message& message : log.messages())
            EXPECT_EQ(Poco::Message::PRIO_WARNING, message.getPriority());
    }
}

TEST_F(WorkerTest, DataBeforeTheFirstDelegateWaitsForItButRequestsDoNot) {
    data("1");
    data("2");
    request("/a");
    EXPECT_EQ("81", frameFrom(*peer).substr(0, 2));  // so the data has been looked at
    worker->SocketDataAvailable += Poco::delegate(&events, &EventLog::data);
    data("3");
    EXPECT_TRUE(events.waitFor({"data 1", "data 2", "data 3"}));
    EXPECT_FALSE(worker->closeReported());
}

TEST_F(WorkerTest, ACloseBeforeTheFirstDelegateWaitsForIt) {
    close("end of stream");
    EXPECT_TRUE(eventually([&] { return worker->closeReported(); }));
    worker->SocketClosed += Poco::delegate(&events, &EventLog::closed);
    EXPECT_TRUE(events.waitFor({"closed end of stream"}));
}

TEST_F(WorkerTest, TheLastPointerMayBeDroppedInsideADelegate) {
    const auto threads = threadCount();
    std::promise<void> allQueued;
    events.inside = [&](const std::string&) {
        allQueued.get_future().wait();
        worker = nullptr;
        throw Poco::IOException("thrown when the worker was gone");
    };
    events.listen(*worker);
    data("1");
    data("2");
    allQueued.set_value();
    EXPECT_TRUE(log.waitFor(RUN + "I/O error: thrown when the worker was gone"));
    EXPECT_TRUE(eventually([&] { return threadCount() < threads; }));
    EXPECT_EQ(Events{"data 1"}, events.events());
    EXPECT_EQ(CLOSE_FRAME, frameFrom(*peer));
}

TEST_F(WorkerTest, DestructionWaitsForARunningDelegate) {
    std::promise<void> leave;
    events.inside = [&](const std::string&) { leave.get_future().wait(); };
    events.listen(*worker);
    data("1");
    ASSERT_TRUE(events.waitFor({"data 1"}));
    auto destroyed = std::async(std::launch::async, [&] { worker = nullptr; });
    EXPECT_EQ(std::future_status::timeout, destroyed.wait_for(1100ms));  // longer than shutdown() joins
    leave.set_value();
    EXPECT_EQ(std::future_status::ready, destroyed.wait_for(DEADLINE));
}

// A peer that does not read holds up neither shutdown() nor a question for the addresses. Row: on the
// manager's thread, or on the caller's.
TEST_F(WorkerTest, AStuckSendHoldsNobodyUp) {
    for (const bool onManagersThread : {true, false}) {
        SCOPED_TRACE(onManagersThread);
        if (!onManagersThread) connect();
        Nubo::Net::WebsocketConnectionManager manager;
        manager.addConnection(socket, 0);
        const auto local = socket->address(), remote = socket->peerAddress();
        request(std::string(20'000'000, 'x'));  // more than the system buffers, and nobody reads it
        ASSERT_TRUE(peer->poll(Poco::Timespan(DEADLINE.count(), 0), Poco::Net::Socket::SELECT_READ));
        const auto act = [&] {
            EXPECT_EQ(local, worker->address());
            EXPECT_EQ(remote, worker->peerAddress());
            EXPECT_TRUE(eventually([&] { return worker->shutdown(); }));
            worker = nullptr;
        };
        std::promise<void> done;
        if (onManagersThread) {
            manager.callLater(0ms, [&] {
                act();
                done.set_value();
            });
        } else {
            act();
            done.set_value();
        }
        ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(DEADLINE));
        EXPECT_TRUE(log.contains(RUN));
        EXPECT_FALSE(log.contains("send stalled"));  // it was ended long before the transport gives it up
        log.clear();
    }
}
