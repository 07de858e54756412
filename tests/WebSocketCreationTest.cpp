// Opening WebSockets with the ClientLib, and the way from the connection manager to the workers, against
// peers that answer byte for byte. A silent registry keeps the ClientLib's own connection quiet.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/MessageSink.h>
#include <netinet/tcp.h>

#include "Footprint.h"
#include "Frames.h"
#include "LogCapture.h"
#include "RawPeer.h"

using Nubo::Client::ClientLib;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebSocketProxy;
using Registry = Nubo::ServiceRegistryConnection;
using Events = std::vector<std::string>;
using frames::text;

namespace {

const std::string CREATE =
    "Info: virtual Nubo::Client::WebSocketRequestHandler::Ptr Nubo::Client::ClientLib::createNewWebsocket("
    "const string&, const string&, int, uint32_t): ";
const std::string SOCKET_CLOSED =
    "Debug: virtual void Nubo::Client::ClientLib::SocketClosedHandler(const "
    "Nubo::Net::WebsocketEventPayload&)";
const std::string DESTROY =
    "Debug: virtual void "
    "Nubo::Client::ClientLib::destroyWebsocket(Nubo::Client::WebSocketRequestHandler::Ptr)";
const std::string GOING_AWAY = "closed closed by peer (1001 going away)";
const std::string CLOSING = frames::closing(1001);
const std::string UPGRADED = RawPeer::UPGRADED;

class WebSocketCreationTest : public ::testing::Test {
protected:
    void startup() {
        client.startup();
        registry.connection(0);
        log.clear();
    }
    auto create(const RawPeer& at) { return client.createNewWebsocket("Media", "127.0.0.1", at.port(), 0); }

    LogCapture log;
    RawPeer registry{{UPGRADED}, RawPeer::Then::Keep, Registry::ADDRESS, Registry::PORT};
    RawPeer peer{{UPGRADED}, RawPeer::Then::Keep};
    Nubo::Simulator::MessageSink sink;
    EventLog events;
    ClientLib client{&sink, ClientLib::ClientLibParameters{}};
};

}  // namespace

TEST_F(WebSocketCreationTest, DataAndCloseReachTheWorkerAndTheClientLib) {
    EventLog all;
    all.listen(client);
    startup();
    auto worker = create(peer);
    EXPECT_EQ(Events{CREATE + "Media, addr: 127.0.0.1, port: " + std::to_string(peer.port()) +
                     ", timeoutBeforePing: 0"},
              log.lines());  // and nothing about keep-alive, which is off
    EXPECT_EQ(0u, peer.requests().at(0).find("GET /Media HTTP/1.1\r\n"));
    events.listen(*worker);
    log.clear();
    peer.send(0, text("{\"a\":1}\x1E{\"b\":2}") + CLOSING);
    const Events expected{"data {\"a\":1}", "data {\"b\":2}", GOING_AWAY};
    EXPECT_TRUE(events.waitFor(expected));
    EXPECT_TRUE(all.waitFor(expected));
    WebSocketProxy proxy(worker->getSocket(), nullptr);
    client.SocketClosedHandler({proxy, "again"});
    EXPECT_EQ(expected, all.events());  // the worker was forgotten
    EXPECT_EQ((Events{SOCKET_CLOSED, SOCKET_CLOSED}), log.lines());
}

// With the last pointer in the list the manager's thread would wait for the worker's, and hold a lock that
// the worker's delegate wants.
TEST_F(WebSocketCreationTest, AWorkerThatOnlyTheListHasEndsOnItsOwnThread) {
    startup();
    const auto threads = threadCount();
    EventLog all;
    all.listen(client);
    auto other = create(peer);
    events.inside = [&](const std::string& event) {
        if (event != "data {}") return;
        EXPECT_TRUE(eventually([&] { return all.events().size() == 2; }));  // the close is past the manager
        client.destroyWebsocket(other);
    };
    events.listen(*create(peer));
    peer.send(1, text("{}") + CLOSING);
    EXPECT_TRUE(events.waitFor({"data {}", GOING_AWAY}));
    EXPECT_TRUE(eventually([&] { return threadCount() == threads + 1; }));
}

TEST_F(WebSocketCreationTest, ADelegateThatThrowsCostsNobodyElseAnything) {
    startup();
    EventLog throwing, all;
    int round = 0;
    throwing.inside = [&](const std::string&) {
        if (++round == 1) throw Poco::IOException("pipe");
        if (round == 2) throw std::runtime_error("x");
        throw 7;
    };
    throwing.listen(client);
    all.listen(client);
    auto worker = create(peer);
    events.listen(*worker);
    log.clear();
    peer.send(0, text("{\"a\":1}{\"b\":2}") + CLOSING);
    const Events expected{"data {\"a\":1}", "data {\"b\":2}", GOING_AWAY};
    EXPECT_TRUE(events.waitFor(expected));
    EXPECT_TRUE(all.waitFor(expected));
    for (const char* what : {"I/O error: pipe", "x", "unspecified exception"})
        EXPECT_TRUE(
            log.waitFor("Warning: ClientLib: a delegate of SocketDataAvailable or SocketClosed has thrown: " +
                        std::string(what)));
}

TEST_F(WebSocketCreationTest, ADestroyedWorkerIsForgottenButNotStopped) {
    startup();
    auto first = create(peer), second = create(peer);
    for (auto worker : {first, second}) events.listen(*worker);
    log.clear();
    client.destroyWebsocket(nullptr);
    for (int i = 0; i < 2; ++i) client.destroyWebsocket(first);
    EXPECT_FALSE(first->getSocket().isNull());
    WebSocketProxy gone(first->getSocket(), nullptr), known(second->getSocket(), nullptr);
    client.DataAvailableHandler(WebsocketDataEventPayload(gone));  // dropped without a line
    client.DataAvailableHandler(WebsocketDataEventPayload(known));
    EXPECT_TRUE(events.waitFor({"data "}));
    EXPECT_EQ((Events{DESTROY, DESTROY, DESTROY}), log.lines());

    WebSocketProxy none(nullptr, nullptr);
    EXPECT_THROW(client.DataAvailableHandler(WebsocketDataEventPayload(none)), Poco::NullPointerException);
    EXPECT_THROW(client.SocketClosedHandler({none, ""}), Poco::NullPointerException);
}

TEST_F(WebSocketCreationTest, AWorkerThatShutDownDoesNotHideTheOthers) {
    startup();
    auto dead = create(peer), alsoDead = create(peer), live = create(peer);
    events.listen(*live);
    for (auto each : {dead, alsoDead}) EXPECT_TRUE(each->shutdown());
    peer.send(2, text("{}"));
    EXPECT_TRUE(events.waitFor({"data {}"}));
    client.destroyWebsocket(alsoDead);  // takes that one, though both have no socket to tell them apart
    EXPECT_EQ(1, alsoDead.referenceCount());
    EXPECT_EQ(2, dead.referenceCount());
    peer.send(2, CLOSING);
    EXPECT_TRUE(events.waitFor({"data {}", GOING_AWAY}));
}

TEST_F(WebSocketCreationTest, RefusedUpgradesThrowAndLeakNothing) {
    const std::pair<std::string, std::string> table[] = {
        {"HTTP/1.1 401 Unauthorized\r\n\r\n", "Not authorized"},
        {"HTTP/1.1 302 Found\r\nLocation: /\r\n\r\n", "Found"},
        {"HTTP/1.1 200 OK\r\n\r\n", "does not understand the WebSocket protocol"},
        {"HTTP/1.1 101 Switching Protocols\r\n\r\n", "Upgrade"},
        {UPGRADED.substr(0, UPGRADED.find("{accept}")) + "wrong\r\n\r\n", "Sec-WebSocket-Accept"},
        {UPGRADED.substr(0, 20), "Malformed message"},
        {"", "No message received"},
    };
    startup();
    const auto descriptors = descriptorCount();
    for (const auto& [answer, cause] : table) {
        try {
            create(RawPeer({answer}));
            ADD_FAILURE() << answer;
        } catch (const Poco::Exception& e) {
            EXPECT_NE(std::string::npos, e.displayText().find(cause)) << e.displayText();
        }
        EXPECT_TRUE(eventually([&] { return descriptorCount() == descriptors; })) << answer;
    }
}

TEST_F(WebSocketCreationTest, WhatComesWithTheUpgradeIsNotLost) {
    const RawPeer gluing({UPGRADED + text("{\"a\":1}") + text("{}") + CLOSING}, RawPeer::Then::Keep);
    startup();
    auto worker = create(gluing);
    worker->SocketDataAvailable += Poco::delegate(&events, &EventLog::data);
    EXPECT_TRUE(events.waitFor({"data {\"a\":1}", "data {}"}));
    EXPECT_TRUE(eventually([&] { return worker->closeReported(); }));
}

TEST_F(WebSocketCreationTest, AddressesAndTheirKeepalive) {
    const struct {
        std::string name;
        int option, local, external;  // the kernel takes none of the external values
    } options[] = {
        {"CNT", TCP_KEEPCNT, 3, 200}, {"IDLE", TCP_KEEPIDLE, 40, 0}, {"INTVL", TCP_KEEPINTVL, 5, 40000}};
    ClientLib keeping(&sink, {"", 0, true, 3, 40, 5, 200, 0, 40000, 4, 500});
    keeping.startup();
    for (const std::string address : {"127.0.0.1", "127.1", "::1", "[::1]"}) {
        const bool isLocal = address != "127.1";  // looked up like a name, without needing /etc/hosts
        const auto there = RawPeer::at(address, UPGRADED, RawPeer::Then::Keep);
        if (!there) GTEST_SKIP() << "no IPv6 on this machine";
        log.clear();
        auto worker = keeping.createNewWebsocket("", address, there->port(), 1000);
        EXPECT_EQ(0u, there->requests().at(0).find("GET / HTTP/1.1\r\n"));
        int value = 0;
        worker->getSocket()->impl()->getOption(SOL_SOCKET, SO_KEEPALIVE, value);
        EXPECT_EQ(1, value) << address;
        for (const auto& [name, option, local, external] : options) {
            SCOPED_TRACE(address + name);
            const std::string line = "setTcpKeepaliveParameters: set";
            EXPECT_EQ(1U, log.count("Info: " + line + " TCP_KEEP" + name + " = " +
                                    std::to_string(isLocal ? local : external)));
            EXPECT_EQ(isLocal ? 0U : 1U,
                      log.count("Error: " + line + "sockopt TCP_KEEP" + name + " returned an error"));
            worker->getSocket()->impl()->getOption(IPPROTO_TCP, option, value);
            EXPECT_EQ(isLocal, value == local);
        }
    }
}

TEST_F(WebSocketCreationTest, ShutdownClosesEverySocketAndIsFinal) {
    startup();
    auto worker = create(peer);
    events.listen(*worker);
    events.listen(client);
    WebSocketProxy proxy(worker->getSocket(), nullptr);
    client.shutdown();
    for (const auto& connection : {peer.connection(0), registry.connection(0)})
        EXPECT_EQ("\x03\xE8", SocketPeer(connection).receive().payload);
    client.DataAvailableHandler(WebsocketDataEventPayload(proxy));
    const int references = worker.referenceCount();
    client.SocketClosedHandler({proxy, "late"});
    // Forgotten, but not told.
    EXPECT_TRUE(eventually([&] { return worker.referenceCount() == references - 1; }));
    EXPECT_TRUE(worker->shutdown());
    EXPECT_EQ(Events{}, events.events());
    EXPECT_THROW(client.getServiceRegistryWebSocket(), Poco::NullPointerException);
    for (int i = 0; i < 2; ++i) EXPECT_THROW(client.startup(), Poco::NullPointerException);
}

TEST_F(WebSocketCreationTest, WithoutTheTransportNothingIsKept) {
    EXPECT_THROW(create(peer), Poco::NullPointerException);
    EXPECT_TRUE(SocketPeer(peer.connection(0)).atEnd());  // the handshake has taken place
}
