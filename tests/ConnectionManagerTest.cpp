// The connection manager against peers that behave and peers that do not, over real sockets. Timers are
// reached by advancing the transport's clock.

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Net/TransportLimits.h>
#include <Nubo/Net/WebSocketSender.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Poco/Net/NetException.h>

#include <condition_variable>
#include <future>
#include <new>
#include <optional>

#include "Footprint.h"
#include "Frames.h"
#include "RawPeer.h"

using namespace std::chrono_literals;
using Nubo::Net::MonotonicClock;
using Nubo::Net::sendFrame;
using Nubo::Net::TransportLimits;
using Nubo::Net::WebsocketConnectionManager;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketEventPayload;
using Nubo::Net::WebSocketProxy;
using Poco::Net::WebSocket;
using SocketPtr = Poco::SharedPtr<WebSocket>;
using ManagerPtr = Poco::SharedPtr<WebsocketConnectionManager>;
using Log = std::vector<std::string>;

namespace {

constexpr std::size_t TOO_LONG = TransportLimits::MAX_MESSAGE_BYTES + 1;

/// Writes down the events of a manager, in order.
class Recorder {
public:
    explicit Recorder(WebsocketConnectionManager& manager) : _manager(manager) {
        _manager.DataAvailable += Poco::delegate(this, &Recorder::onData);
        _manager.SocketClosed += Poco::delegate(this, &Recorder::onClosed);
    }

    std::function<void(const WebsocketDataEventPayload&)> onMessage;  // set before any message comes
    std::atomic<bool> recording{true};                                // messages, that is
    std::atomic<int> closedWithoutMemory{0};                          // so many closed events fail

    /// The events of one socket (all of them for null), once there are `count`.
    Log wait(std::size_t count, const SocketPtr& socket = nullptr) {
        std::unique_lock<std::mutex> lock(_mutex);
        EXPECT_TRUE(_changed.wait_for(lock, DEADLINE, [&] { return select(socket).size() >= count; }));
        return select(socket);
    }

    std::vector<WebsocketEventPayload> payloads() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _payloads;
    }

private:
    void onData(const WebsocketDataEventPayload& payload) {
        if (recording) add(payload, (payload.flags == 0x81 ? "text " : "binary ") + payload.data);
        if (onMessage) onMessage(payload);
    }

    void onClosed(const WebsocketEventPayload& payload) {
        if (closedWithoutMemory-- > 0) throw std::bad_alloc();
        add(payload, "closed " + payload.Reason);
    }

    void add(const WebsocketEventPayload& payload, const std::string& line) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _payloads.push_back(payload);
        _lines.push_back(line);
        _changed.notify_all();
    }

    Log select(const SocketPtr& socket) const {
        Log lines;
        for (std::size_t i = 0; i < _lines.size(); ++i)
            if (!socket || _payloads[i].webSocketProxy == *socket) lines.push_back(_lines[i]);
        return lines;
    }

    WebsocketConnectionManager& _manager;
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<WebsocketEventPayload> _payloads;
    Log _lines;
};

class ConnectionManager : public testing::Test {
protected:
    ~ConnectionManager() override { manager.reset(); }  // while the recorder lives, which hears of its end

    /// With small buffers, so that a peer that does not read is felt soon.
    static Poco::Net::ServerSocket smallListener() {
        Poco::Net::ServerSocket server;
        server.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
        server.setReceiveBufferSize(4096);
        server.listen(16);
        return server;
    }
    struct Link {
        SocketPtr socket;
        SocketPeer peer;
    };

    /// Opens a WebSocket to which its peer has sent something; not added yet.
    Link connect(const std::string& sent = "") {
        const Poco::Net::StreamSocket stream(listener.address());
        SocketPeer peer(listener.acceptConnection());
        peer.send(sent);
        return {asWebSocket(stream, Side::Client), std::move(peer)};
    }

    Link add(const std::string& sent = "", long silence = 0) {
        Link link = connect(sent);
        manager->addConnection(link.socket, silence);
        return link;
    }

    /// Returns when the manager has taken everything that the peer has sent so far.
    void sync(Link& link) {
        const std::size_t before = recorder.wait(0, link.socket).size();
        link.peer.send(frames::text("sync"));
        recorder.wait(before + 1, link.socket);
    }

    /// Waits until it is closed.
    static bool isClosed(const SocketPtr& socket) {
        return eventually([&] { return socket->impl()->sockfd() == POCO_INVALID_SOCKET; });
    }
    /// Begins to send more than the systems buffer, on a thread.
    std::future<void> sendMuch(Link& link) {
        auto sending = std::async(std::launch::async, [socket = link.socket]() mutable {
            sendFrame(*socket, std::string(8'000'000, 'x'), WebSocket::FRAME_TEXT);
        });
        link.peer.awaitData();
        return sending;
    }

    Poco::Net::ServerSocket listener = smallListener();
    ManagerPtr manager{new WebsocketConnectionManager};
    Recorder recorder{*manager};
};

TEST_F(ConnectionManager, HalfAFrameHoldsUpNobodyElse) {
    const std::string half = frames::text("half");
    Link slow = add(frames::text("one") + frames::frame(0x82, "two") + half.substr(0, 3));
    Link other = add();
    sync(other);
    EXPECT_EQ(recorder.wait(2, slow.socket), (Log{"text one", "binary two"}));
    slow.peer.send(half.substr(3));
    EXPECT_EQ(recorder.wait(3, slow.socket).back(), "text half");
}

TEST_F(ConnectionManager, AddingRefusesWhatIsNoOpenSocketAndIgnoresASecondTime) {
    SocketPtr null;
    EXPECT_THROW(manager->addConnection(null, 0), Poco::NullPointerException);
    Link link = connect();
    link.socket->close();
    EXPECT_THROW(manager->addConnection(link.socket, 0), Poco::Net::InvalidSocketException);
    Link twice = add();
    manager->addConnection(twice.socket, 0);
    sync(twice);
    EXPECT_EQ(recorder.wait(1).size(), 1U);
}

// Every way in which a peer ends a connection.
TEST_F(ConnectionManager, AnEndByThePeerIsOneClosedEventAfterTheLastData) {
    const struct {
        std::string stream;
        void (SocketPeer::*act)();
        std::string reason;
        std::optional<std::string> answer;  // payload of the close frame
    } table[] = {
        {frames::closing(1001, "bye"), nullptr, "closed by peer (1001 going away)", frames::number(1001, 2)},
        {frames::closing(4711), nullptr, "closed by peer (4711)", frames::number(4711, 2)},
        {frames::frame(0x88), nullptr, "closed by peer (no status)", ""},
        {"\xC1", nullptr, "protocol error: reserved bit set", frames::number(1002, 2)},
        {frames::text("\xFF"), nullptr, "protocol error: text is not UTF-8", frames::number(1007, 2)},
        {frames::header(0x81, TOO_LONG), nullptr, "message too big", frames::number(1009, 2)},
        {"", &SocketPeer::close, "end of stream", std::nullopt},
        {"", &SocketPeer::reset, "connection reset by peer", std::nullopt},
    };
    Link other = add();
    std::vector<std::pair<SocketPtr, Log>> all;
    for (const auto& [stream, act, reason, answer] : table) {
        SCOPED_TRACE(reason);
        Link link = add();
        link.peer.send(frames::text("last") + stream + frames::text("ignored"));
        recorder.wait(1, link.socket);
        Log expected{"text last", "closed " + reason};
        if (answer) {
            const SocketPeer::Frame frame = link.peer.receive();
            EXPECT_EQ(frame.first, 0x88U);
            EXPECT_EQ(frame.payload, *answer);
            sync(other);
            EXPECT_FALSE(link.peer.hasEnded()) << "the server ends the stream first";
        } else {
            expected.insert(expected.begin() + 1, "text ignored");
            recorder.wait(2, link.socket);
            (link.peer.*act)();
        }
        EXPECT_EQ(recorder.wait(expected.size(), link.socket), expected);
        MonotonicClock::advance(TransportLimits::CLOSE_LINGER);
        EXPECT_TRUE(isClosed(link.socket));
        all.emplace_back(link.socket, expected);
    }
    manager.reset();
    for (const auto& [socket, expected] : all)
        EXPECT_EQ(recorder.wait(0, socket), expected) << "nothing comes after the closed event";
}

TEST_F(ConnectionManager, OfAFloodOfPingsTheLatestIsAnswered) {
    Link link = add();
    std::string burst;
    for (int i = 0; i < 1000; ++i) burst += frames::ping(std::string(125, 'p'));
    int sent = 0;
    for (; sent < 120000; sent += 1000) link.peer.send(burst);
    link.peer.send(frames::ping("last"));
    sync(link);
    int answers = 1;
    while (link.peer.receive().payload != "last") ++answers;
    EXPECT_LT(answers, sent) << "some had no room";
}

TEST_F(ConnectionManager, SilenceIsBrokenByAPingAndEndsTheConnectionWhenItGoesOn) {
    Link link = add("", 5000);
    sync(link);
    for (int i = 0; i < 3; ++i) {
        MonotonicClock::advance(5s);
        EXPECT_EQ(link.peer.receive().first, 0x89U);
        link.peer.send(frames::pong());
        sync(link);
    }
    MonotonicClock::advance(5s);
    EXPECT_EQ(link.peer.receive().first, 0x89U);
    MonotonicClock::advance(5s);
    EXPECT_EQ(recorder.wait(5).back(), "closed no pong within 5000 ms");
    EXPECT_EQ(link.peer.receive().payload, frames::number(1000, 2));
}

TEST_F(ConnectionManager, AFrameThatStallsEndsTheConnection) {
    Link link = add(frames::text("whole") + frames::header(0x81, 10) + "ha");
    recorder.wait(1);
    MonotonicClock::advance(TransportLimits::FRAME_STALL);
    EXPECT_EQ(recorder.wait(2), (Log{"text whole", "closed frame stalled"}));
    EXPECT_EQ(link.peer.receive().payload, frames::number(1000, 2));
}

TEST_F(ConnectionManager, RemovedConnectionsGetACloseFrameAndNoEvent) {
    Link removed = add();
    Link proxied = add();
    Link forgotten = add();
    for (Link* link : {&removed, &proxied, &forgotten}) sync(*link);
    manager->removeConnection(removed.socket);
    WebSocketProxy(proxied.socket, manager.get()).shutdown();
    manager->removeConnection(forgotten.socket, WebsocketConnectionManager::ONLY_REMOVE_WEBSOCKET_DATA);
    for (Link* link : {&removed, &proxied}) {
        EXPECT_EQ(link->peer.receive().payload, frames::number(1000, 2));
        EXPECT_THROW(sendFrame(*link->socket, "late", WebSocket::FRAME_TEXT), Poco::Exception);
        link->peer.close();
        EXPECT_TRUE(isClosed(link->socket));
    }
    manager->removeConnection(removed.socket);
    manager->removeConnection(nullptr);
    manager.reset();
    EXPECT_EQ(recorder.wait(3), (Log{"text sync", "text sync", "text sync"}));
    sendFrame(*forgotten.socket, "still open", WebSocket::FRAME_TEXT);
    EXPECT_EQ(forgotten.peer.receive().payload, "still open");
}

TEST_F(ConnectionManager, DelegatesMaySendAddRemoveAndThrow) {
    Link first = connect(frames::text("add") + frames::text("remove") + frames::text("never"));
    Link second = connect(frames::text("echo"));
    recorder.onMessage = [&](const WebsocketDataEventPayload& payload) {
        if (payload.data == "add") manager->addConnection(second.socket, 0);
        if (payload.data == "remove") manager->removeConnection(first.socket);
        if (payload.data == "echo") payload.webSocketProxy.write("echoed");
        throw std::runtime_error("thrown by a delegate");
    };
    manager->addConnection(first.socket, 0);
    EXPECT_EQ(second.peer.receive().payload, "echoed");
    EXPECT_EQ(first.peer.receive().payload, frames::number(1000, 2));
    EXPECT_EQ(recorder.wait(2, first.socket), (Log{"text add", "text remove"}));
}

TEST_F(ConnectionManager, TheSendQueueOfDelegatesIsLimitedAndEmptiesAgain) {
    const std::string message(TransportLimits::MAX_QUEUED_BYTES / 4, 'x');  // with their headers, three fit
    std::atomic<int> accepted{0};
    Link link = connect();
    recorder.onMessage = [&](const WebsocketDataEventPayload& payload) {
        int count = 0;
        EXPECT_THROW(for (;; ++count) payload.webSocketProxy.write(message), Poco::IOException);
        accepted = count;
    };
    manager->addConnection(link.socket, 0);
    link.peer.send(frames::text("fill"));
    ASSERT_TRUE(eventually([&] { return accepted == 3; }));
    EXPECT_EQ(link.peer.receive().payload, message);
    accepted = 0;
    link.peer.send(frames::text("fill again"));
    ASSERT_TRUE(eventually([&] { return accepted >= 1; }));
    EXPECT_LT(accepted, 3) << "what the peer has not read counts";
    for (int i = 0; i < 3; ++i) EXPECT_EQ(link.peer.receive().payload, message);
}

TEST_F(ConnectionManager, FramesOfSendersAndManagerNeverMix) {
    constexpr int TEXTS = 40;
    constexpr int PINGS = 50;
    const auto message = [](int i) { return std::string(256 * 1024, static_cast<char>('a' + i % 26)); };
    Link link = add();
    auto sending = std::async(std::launch::async, [&] {
        for (int i = 0; i < TEXTS; ++i) sendFrame(*link.socket, message(i), WebSocket::FRAME_TEXT);
    });
    link.peer.awaitData();
    std::string burst;
    for (int i = 0; i < PINGS; ++i) burst += frames::ping(std::to_string(i));
    link.peer.send(burst);
    sync(link);
    for (int texts = 0, pongs = 0; texts < TEXTS || pongs < PINGS;) {
        const SocketPeer::Frame frame = link.peer.receive();
        ASSERT_TRUE(frame.first == 0x81 || frame.first == 0x8A);
        ASSERT_EQ(frame.payload, frame.first == 0x81 ? message(texts++) : std::to_string(pongs++));
    }
    sending.get();
}

// The peer reads nothing: no progress for five seconds. The peer reads a little: ten seconds in all.
TEST_F(ConnectionManager, AStalledSendEndsTheConnection) {
    std::future<void> sending;  // goes after its peer, which ends it
    Link other = add();
    recorder.onMessage = [&](const WebsocketDataEventPayload& payload) {
        if (payload.data == "write") payload.webSocketProxy.write(std::string(8'000'000, 'x'));
    };
    for (const auto& [byDelegate, peerReads] :
         {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
        SCOPED_TRACE(testing::PrintToString(std::pair(byDelegate, peerReads)));
        Link link = add(byDelegate ? frames::text("write") : "");
        const std::size_t messages = byDelegate ? 1 : 0;
        const auto untilClosed = [&, socket = link.socket] { recorder.wait(2, socket); };
        sending = byDelegate ? std::async(std::launch::async, untilClosed) : sendMuch(link);
        link.peer.awaitData();
        const auto start = MonotonicClock::now();
        while (recorder.wait(0, link.socket).size() <= messages && MonotonicClock::now() - start < 60s) {
            if (peerReads) link.peer.readALittle();
            sending.wait_for(50ms);  // the systems' buffers fill
            MonotonicClock::advance(500ms);
            sync(other);
            sync(other);  // the turn in which the first one came is over
        }
        EXPECT_EQ(recorder.wait(messages + 1, link.socket).back(), "closed send stalled");
        EXPECT_EQ(MonotonicClock::now() - start > 9s, peerReads);
        if (byDelegate)
            sending.get();
        else
            EXPECT_THROW(sending.get(), Poco::TimeoutException);
        EXPECT_TRUE(isClosed(link.socket));
    }
}

TEST_F(ConnectionManager, ADelegateMayWaitForASenderWhosePeerDoesNotRead) {
    std::future<void> sending;
    Link link = add();
    Link other = connect();
    std::promise<bool> ended;
    recorder.onMessage = [&](const auto&) {
        ended.set_value(sending.wait_for(DEADLINE) == std::future_status::ready);
    };
    manager->addConnection(other.socket, 0);
    sending = sendMuch(link);
    other.peer.send(frames::text("wait"));
    auto result = ended.get_future();
    EXPECT_TRUE(eventually([&] {
        MonotonicClock::advance(100ms);
        return result.wait_for(1ms) == std::future_status::ready;
    }));
    EXPECT_TRUE(result.get());
    EXPECT_THROW(sending.get(), Poco::TimeoutException);
    EXPECT_EQ(recorder.wait(1, link.socket), Log{"closed send stalled"});
}

TEST_F(ConnectionManager, APongDoesNotWaitForTheDelegatesOfTheMessageBehindThePing) {
    Link link = connect(frames::ping("now") + frames::text("slow"));
    std::promise<void> answered;
    std::atomic<bool> inTime{false};
    recorder.onMessage = [&](const auto&) {
        inTime = answered.get_future().wait_for(DEADLINE) == std::future_status::ready;
    };
    manager->addConnection(link.socket, 0);
    EXPECT_EQ(link.peer.receive().payload, "now");
    answered.set_value();
    EXPECT_TRUE(eventually([&] { return inTime.load(); }));
}

// A message that is kept from ending: between its first byte and the rest comes `more` every twenty seconds.
TEST_F(ConnectionManager, AMessageIsWholeInTime) {
    Link other = add();
    for (const auto& [first, more] : {std::pair(frames::frame(0x01, "a"), frames::frame(0x00)),
                                      std::pair(frames::header(0x81, 100), std::string("x"))}) {
        Link link = add(first);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(recorder.wait(0, link.socket), Log{});
            link.peer.send(more);
            sync(other);
            sync(other);
            MonotonicClock::advance(TransportLimits::MESSAGE_TOTAL / 3);
        }
        EXPECT_EQ(recorder.wait(1, link.socket), Log{"closed message not complete within 60000 ms"});
        EXPECT_EQ(link.peer.receive().payload, frames::number(1008, 2));
    }
}

TEST_F(ConnectionManager, AFloodOfTinyMessagesLeavesTheOthersTheirTurn) {
    std::string flood;
    for (int i = 0; i < 20000; ++i) flood += frames::text("");
    Link other = add();
    Link link = connect();
    std::promise<void> begun, sent;
    std::atomic<std::size_t> tiny{0}, tinyBefore{0};
    recorder.onMessage = [&](const WebsocketDataEventPayload& payload) {
        if (!payload.data.empty()) tinyBefore = tiny.load();
        if (!payload.data.empty() || ++tiny != 1) return;
        begun.set_value();
        sent.get_future().wait_for(DEADLINE);
    };
    manager->addConnection(link.socket, 0);
    link.peer.send(flood);
    begun.get_future().wait_for(DEADLINE);
    other.peer.send(frames::text("prompt"));
    sent.set_value();
    EXPECT_TRUE(eventually([&] { return tiny == 20000; }));
    EXPECT_LE(tinyBefore, 2 * TransportLimits::TURN_MESSAGES);
    EXPECT_EQ(recorder.wait(1, other.socket), Log{"text prompt"});
}

TEST_F(ConnectionManager, TooManyObjectsInOneMessageCostTheConnection) {
    struct {
        void onObject(const WebsocketDataEventPayload&) { ++count; }
        std::size_t count = 0;
    } receiver;
    Nubo::Net::WebsocketDataObjectSplitter splitter;
    splitter.ObjectAvailable += Poco::delegate(&receiver, &decltype(receiver)::onObject);
    manager->DataAvailable +=
        Poco::delegate(&splitter, &Nubo::Net::WebsocketDataObjectSplitter::onDataBlockAvailable);
    std::string objects;
    for (std::size_t i = 0; i < TransportLimits::MAX_OBJECTS; ++i) objects += "{}";
    Link link = add(frames::text(objects) + frames::text(objects + "{}") + frames::text("{}"));
    EXPECT_EQ(recorder.wait(3).back(), "closed more than 16384 JSON objects in one message");
    EXPECT_EQ(link.peer.receive().payload, frames::number(1008, 2));
    manager.reset();
    EXPECT_EQ(receiver.count, 2 * TransportLimits::MAX_OBJECTS);
}

TEST_F(ConnectionManager, WithoutMemoryForAMessageTheConnectionFailsAndItsEndIsReported) {
    Link link = connect(frames::text("a") + frames::text("b"));
    recorder.onMessage = [](const auto&) { throw std::bad_alloc(); };
    recorder.closedWithoutMemory = 3;
    manager->addConnection(link.socket, 0);
    EXPECT_EQ(link.peer.receive().payload, frames::number(1011, 2));
    link.peer.close();
    EXPECT_EQ(recorder.wait(2), (Log{"text a", "closed internal error: std::bad_alloc"}));
    EXPECT_TRUE(isClosed(link.socket));
}

/// Messages that come faster than they are delivered: `count` of them, each ending in `text`, of which so
/// many may wait.
struct Flood {
    const char* name;
    std::string text;
    std::size_t count;
    std::size_t mayWait;
};

class Flooded : public ConnectionManager, public testing::WithParamInterface<Flood> {
protected:
    ~Flooded() override { manager.reset(); }  // before what its events use here

    /// Returns when so many have come as may wait.
    Link begin() {
        Link link = connect();
        recorder.recording = false;
        recorder.onMessage = [this](const auto& payload) { hold(payload); };
        manager->addConnection(link.socket, 5000);
        sending = std::async(std::launch::async, [peer = link.peer]() mutable {
            std::string some;
            for (std::size_t i = 0; i < GetParam().count; ++i) {
                some += frames::text(std::to_string(i) + GetParam().text);
                if (some.size() < 65536 && i + 1 < GetParam().count) continue;
                peer.send(some);
                some.clear();
            }
        });
        EXPECT_TRUE(eventually([&] { return came >= GetParam().mayWait; }));
        return link;
    }

    void hold(const WebsocketDataEventPayload& payload) {
        if (payload.data == "sync") return;
        const std::lock_guard<std::mutex> lock(mutex);
        inOrder = inOrder && payload.data == std::to_string(came++) + GetParam().text;
        held.push_back(payload.receipt);
    }

    /// What has come is delivered, on this thread.
    void deliver() {
        std::vector<std::shared_ptr<const void>> delivered;
        const std::lock_guard<std::mutex> lock(mutex);
        held.swap(delivered);
    }

    std::atomic<std::size_t> came{0};
    std::atomic<bool> inOrder{true};
    std::mutex mutex;
    std::vector<std::shared_ptr<const void>> held;  // guarded by mutex
    std::future<void> sending;
};

TEST_P(Flooded, ReadsNoMoreThanMayWaitAndGoesOnWhenItIsDelivered) {
    Link other = add();
    Link link = begin();
    recorder.recording = true;
    for (int i = 0; i < 50; ++i) {
        sync(other);  // has its turn, and the flood has none
        MonotonicClock::advance(5s);
    }
    recorder.recording = false;
    EXPECT_EQ(came, GetParam().mayWait) << "neither more, nor its end for silence";
    EXPECT_TRUE(eventually([&] {
        deliver();
        return came == GetParam().count;
    }));
    sending.get();
    EXPECT_TRUE(inOrder);
}

TEST_P(Flooded, IsRemovedAtOnceWhileItIsNotRead) {
    Link link = begin();
    manager->removeConnection(link.socket);
    EXPECT_EQ(link.peer.receive().payload, frames::number(1000, 2));
    MonotonicClock::advance(TransportLimits::CLOSE_LINGER);
    EXPECT_TRUE(isClosed(link.socket));
    sending.wait();
    EXPECT_EQ(came, GetParam().mayWait);
}

INSTANTIATE_TEST_SUITE_P(By, Flooded,
                         testing::Values(Flood{"Bytes", std::string(65536 - 6, 'x'), 1000, 513},
                                         Flood{"Messages", "", 250000,
                                               TransportLimits::MAX_UNDELIVERED_MESSAGES},
                                         Flood{"Values", "[" + std::string(1600, ',') + "]", 2000, 991}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ConnectionManager, TheOwnersCloseEndsWithThePeersAnswerOrWithoutIt) {
    Link answered = add();
    Link silent = add();
    for (Link* link : {&answered, &silent}) {
        Nubo::Net::sendClose(*link->socket);
        Nubo::Net::sendClose(*link->socket);
        EXPECT_EQ(link->peer.receive().payload, frames::number(1000, 2));
    }
    answered.peer.send(frames::closing(1000));
    EXPECT_EQ(recorder.wait(1, answered.socket),
              Log{"closed closed by this side, answered by peer (1000 normal closure)"});
    const SocketPtr socket = silent.socket;
    EXPECT_TRUE(eventually([&] {
        MonotonicClock::advance(TransportLimits::CLOSE_LINGER);
        return socket->impl()->sockfd() == POCO_INVALID_SOCKET;
    }));
    EXPECT_EQ(recorder.wait(1, socket), Log{"closed closed by this side, no answer within 1000 ms"});
    EXPECT_TRUE(silent.peer.hasEnded());
}

// A machine that is held up for the time of the linger shows nothing, hence the attempts.
TEST_F(ConnectionManager, OfTooManyThatLingerTheOldestIsClosedAtOnce) {
    bool atOnce = false;
    for (int attempt = 0; attempt < 10 && !atOnce; ++attempt) {
        std::vector<Link> links;
        while (links.size() <= TransportLimits::MAX_LINGERING) links.push_back(add());
        const auto start = MonotonicClock::now();
        for (Link& link : links) link.peer.send(frames::closing(1000));
        EXPECT_TRUE(isClosed(links.front().socket));
        atOnce = MonotonicClock::now() - start < TransportLimits::CLOSE_LINGER;
    }
    EXPECT_TRUE(atOnce);
}

TEST_F(ConnectionManager, AConnectionWithoutOwnerIsGivenUp) {
    Link link = add();
    sync(link);
    link.socket.reset();
    MonotonicClock::advance(TransportLimits::OWNER_CHECK);
    EXPECT_EQ(link.peer.receive().payload, frames::number(1000, 2));
    link.peer.close();
    EXPECT_EQ(recorder.wait(2).back(), "closed closed by this side, end of stream");
}

TEST_F(ConnectionManager, ItsEndIsReportedAndPayloadsOutliveIt) {
    Link link = add();
    sync(link);
    manager.reset();
    EXPECT_EQ(recorder.wait(2), (Log{"text sync", "closed connection manager stopped"}));
    EXPECT_EQ(link.peer.receive().payload, frames::number(1000, 2));
    const WebsocketEventPayload kept = recorder.payloads().back();
    EXPECT_EQ(kept.webSocketProxy.peerAddress().port(), listener.address().port());
    kept.webSocketProxy.shutdown();
    EXPECT_THROW(kept.webSocketProxy.write("late"), Poco::Exception);
}

TEST_F(ConnectionManager, CallsLaterWhenTheTimeHasComeUnlessItIsGoneBefore) {
    std::atomic<int> calls{0};
    const auto id = std::this_thread::get_id();
    manager->callLater(1h, [&] { calls += 100; });
    manager->callLater(2s, [&] { calls += std::this_thread::get_id() == id ? 100 : 1; });
    manager->callLater(1s, [&] {
        ++calls;
        throw std::runtime_error("thrown by an action");
    });
    manager->callLater(0s, [&] { ++calls; });
    EXPECT_TRUE(eventually([&] { return calls == 1; }));
    MonotonicClock::advance(2s);
    EXPECT_TRUE(eventually([&] { return calls == 3; }));
    manager.reset();
    EXPECT_EQ(calls, 3);
}

TEST_F(ConnectionManager, CancelledSendsFailAtOnceAndCloseStillWorks) {
    std::future<void> sending;
    Link link = add();
    Link idle = add();
    sending = sendMuch(link);
    for (Link* each : {&link, &idle}) {
        Nubo::Net::cancelSends(*each->socket);
        EXPECT_THROW(sendFrame(*each->socket, "late", WebSocket::FRAME_TEXT), Poco::Exception);
    }
    EXPECT_THROW(sending.get(), Poco::Exception);
    Nubo::Net::sendClose(*idle.socket);
    EXPECT_EQ(idle.peer.receive().payload, frames::number(1000, 2));
}

TEST_F(ConnectionManager, ManyConnectionsLeaveNothingBehind) {
    const auto threads = threadCount();
    const auto descriptors = descriptorCount();
    for (int i = 0; i < 600; ++i) {
        Link link = add(i % 3 == 0 ? frames::closing(1000) : "", 1000);
        if (i % 3 == 1) manager->removeConnection(link.socket);
        if (i % 3 == 2) Nubo::Net::sendClose(*link.socket);
    }
    EXPECT_TRUE(eventually([&] { return descriptorCount() == descriptors; }));
    // A thread that was joined may be listed for a moment.
    EXPECT_TRUE(eventually([&] { return threadCount() <= threads; }));
    EXPECT_EQ(recorder.wait(400).size(), 400U) << "one event for each that was not removed";
}

}  // namespace
