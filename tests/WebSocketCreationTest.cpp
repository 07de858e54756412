// Opening WebSockets with the ClientLib, and the way from the connection manager to the workers, against
// peers that answer byte for byte. A silent registry keeps the ClientLib's own connection quiet.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/Endpoint.h>
#include <Nubo/Simulator/MessageSink.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <filesystem>
#include <iterator>

#include "LogCapture.h"
#include "RawPeer.h"

using Nubo::Client::ClientLib;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebSocketProxy;
using Nubo::Simulator::Endpoint;
using Registry = Nubo::ServiceRegistryConnection;
using Events = std::vector<std::string>;

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
const std::string CLOSING = Endpoint::encodeFrame("\x03\xE9", Endpoint::CLOSE);
const std::string UPGRADED = RawPeer::UPGRADED;

std::string text(const std::string& data) {
    return Endpoint::encodeFrame(data);
}

std::size_t descriptorCount() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                                  std::filesystem::directory_iterator()));
}

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
    peer.send(0, text("{\"a\":1}\x1E{\"b\":2}"));
    peer.send(0, CLOSING);
    const Events expected{"data {\"a\":1}", "data {\"b\":2}", GOING_AWAY};
    EXPECT_TRUE(events.waitFor(expected));
    EXPECT_TRUE(all.waitFor(expected));
    WebSocketProxy proxy(worker->getSocket(), nullptr);
    client.SocketClosedHandler({proxy, "again"});
    EXPECT_EQ(expected, all.events());  // the worker was forgotten
    EXPECT_EQ((Events{SOCKET_CLOSED, SOCKET_CLOSED}), log.lines());
}

TEST_F(WebSocketCreationTest, ADestroyedWorkerIsForgottenButNotStopped) {
    startup();
    auto first = create(peer);
    auto second = create(peer);
    EventLog ofFirst;
    ofFirst.listen(*first);
    events.listen(*second);
    log.clear();
    client.destroyWebsocket(nullptr);
    client.destroyWebsocket(first);
    client.destroyWebsocket(first);
    EXPECT_FALSE(first->getSocket().isNull());
    WebSocketProxy gone(first->getSocket(), nullptr);
    client.DataAvailableHandler(WebsocketDataEventPayload(gone));  // dropped without a line
    WebSocketProxy known(second->getSocket(), nullptr);
    client.DataAvailableHandler(WebsocketDataEventPayload(known));
    EXPECT_TRUE(events.waitFor({"data "}));
    EXPECT_EQ(Events{}, ofFirst.events());
    EXPECT_EQ((Events{DESTROY, DESTROY, DESTROY}), log.lines());

    WebSocketProxy none(nullptr, nullptr);
    EXPECT_THROW(client.DataAvailableHandler(WebsocketDataEventPayload(none)), Poco::NullPointerException);
    EXPECT_THROW(client.SocketClosedHandler({none, ""}), Poco::NullPointerException);
}

TEST_F(WebSocketCreationTest, AWorkerThatShutDownDoesNotHideTheOthers) {
    startup();
    auto dead = create(peer);
    auto alsoDead = create(peer);
    auto live = create(peer);
    events.listen(*live);
    EXPECT_TRUE(dead->shutdown());
    EXPECT_TRUE(alsoDead->shutdown());
    peer.send(2, text("{}"));
    EXPECT_TRUE(events.waitFor({"data {}"}));
    client.destroyWebsocket(alsoDead);  // takes that one, though both have no socket to tell them apart
    EXPECT_EQ(1, alsoDead.referenceCount());
    EXPECT_EQ(2, dead.referenceCount());
    peer.send(2, CLOSING);
    EXPECT_TRUE(events.waitFor({"data {}", GOING_AWAY}));
}

TEST_F(WebSocketCreationTest, RefusedUpgradesThrowAndLeakNothing) {
    const auto status = [](const std::string& line) {
        return "HTTP/1.1 " + line + "\r\nLocation: /\r\nContent-Length: 0\r\n\r\n";
    };
    const std::pair<std::string, std::string> table[] = {
        {status("401 Unauthorized"), "Not authorized"},
        {status("403 Forbidden"), "Forbidden"},
        {status("404 Not Found"), "Not Found"},
        {status("503 Service Unavailable"), "Service Unavailable"},
        {status("302 Found"), "Found"},
        {status("200 OK"), "does not understand the WebSocket protocol"},
        {status("101 Switching Protocols"), "Upgrade"},
        {UPGRADED.substr(0, UPGRADED.find("{accept}")) + "wrong\r\n\r\n", "Sec-WebSocket-Accept"},
        {"garbage\r\n\r\n", "Malformed message"},
        {UPGRADED.substr(0, 20), "Malformed message"},
        {"", "No message received"},
    };
    startup();
    const std::size_t descriptors = descriptorCount();
    for (const auto& [answer, cause] : table) {
        SCOPED_TRACE(answer);
        try {
            create(RawPeer({answer}));
            ADD_FAILURE() << "no exception";
        } catch (const Poco::Exception& e) {
            EXPECT_NE(std::string::npos, e.displayText().find(cause)) << e.displayText();
        }
        EXPECT_TRUE(eventually([&] { return descriptorCount() == descriptors; }));
    }
}

TEST_F(WebSocketCreationTest, WhatComesWithTheUpgradeIsNotLost) {
    const struct {
        std::string glued;
        RawPeer::Then then;
        Events data;
        std::string closed;  // empty when the connection stays
    } table[] = {
        {text("{\"a\":1}"), RawPeer::Then::Keep, {"data {\"a\":1}"}, ""},
        {text("{\"a\":1}") + text("{}"), RawPeer::Then::Keep, {"data {\"a\":1}", "data {}"}, ""},
        {text("{}") + CLOSING, RawPeer::Then::Keep, {"data {}"}, GOING_AWAY},
        {CLOSING, RawPeer::Then::Keep, {}, GOING_AWAY},
        {"", RawPeer::Then::Close, {}, "closed end of stream"},
    };
    startup();
    for (const auto& row : table) {
        SCOPED_TRACE(row.glued + row.closed);
        EventLog seen;
        const RawPeer gluing({UPGRADED + row.glued}, row.then);
        auto worker = create(gluing);
        seen.listen(*worker);
        EXPECT_TRUE(eventually([&] { return seen.events().size() >= row.data.size(); }));
        EXPECT_TRUE(eventually([&] { return worker->closeReported() || row.closed.empty(); }));
        worker->shutdown();
        // A close that came between the two delegates has no event: the flag is there for that.
        Events expected = row.data;
        if (seen.events().size() > expected.size()) expected.push_back(row.closed);
        EXPECT_EQ(expected, seen.events());
    }
}

TEST_F(WebSocketCreationTest, WithoutTheTransportNothingIsKept) {
    const auto expectNull = [&](std::size_t connection) {
        EXPECT_THROW(create(peer), Poco::NullPointerException);
        // The handshake has taken place, the socket is released: the stream ends.
        EXPECT_EQ("0 ", frameFrom(*asWebSocket(peer.connection(connection), Side::Server)));
    };
    expectNull(0);
    startup();
    create(peer);
    client.shutdown();
    expectNull(2);
}

TEST_F(WebSocketCreationTest, AddressesAndTheirKeepalive) {
    ClientLib::ClientLibParameters settings{};
    settings.tcp_keepalive_enabled = true;
    settings.tcp_keepalive_count_local = 3;
    settings.tcp_keepalive_time_local = 40;
    settings.tcp_keepalive_intval_local = 5;
    settings.tcp_keepalive_count_external = 200;  // the kernel takes none of these three
    settings.tcp_keepalive_time_external = 0;
    settings.tcp_keepalive_intval_external = 40000;
    ClientLib keeping(&sink, settings);
    keeping.startup();
    registry.connection(0);
    const std::string name = "setTcpKeepaliveParameters: ";
    const std::string info = "Info: " + name + "set TCP_KEEP";
    const std::string error = "Error: " + name + "setsockopt TCP_KEEP";
    const Events local{info + "CNT = 3", info + "IDLE = 40", info + "INTVL = 5"};
    const Events external{info + "CNT = 200",     error + "CNT returned an error",
                          info + "IDLE = 0",      error + "IDLE returned an error",
                          info + "INTVL = 40000", error + "INTVL returned an error"};
    for (const std::string address : {"127.0.0.1", "localhost", "::1", "[::1]"}) {
        SCOPED_TRACE(address);
        const auto there = RawPeer::at(address, UPGRADED, RawPeer::Then::Keep);
        if (!there) GTEST_SKIP() << "no IPv6 on this machine";
        log.clear();
        auto worker = keeping.createNewWebsocket("", address, there->port(), 1000);
        EXPECT_EQ(there->port(), worker->peerAddress().port());
        EXPECT_EQ(0u, there->requests().at(0).find("GET / HTTP/1.1\r\n"));
        Events lines;
        for (const std::string& line : log.lines())
            if (line.find(name) != std::string::npos) lines.push_back(line);
        EXPECT_EQ(address == "localhost" ? external : local, lines);
        const auto option = [&](int level, int which) {
            int value = -1;
            worker->getSocket()->impl()->getOption(level, which, value);
            return value;
        };
        EXPECT_EQ(1, option(SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(address != "localhost", option(IPPROTO_TCP, TCP_KEEPCNT) == 3);
        EXPECT_EQ(address != "localhost", option(IPPROTO_TCP, TCP_KEEPIDLE) == 40);
        EXPECT_EQ(address != "localhost", option(IPPROTO_TCP, TCP_KEEPINTVL) == 5);
    }
    Poco::SharedPtr<Poco::Net::WebSocket> none;
    EXPECT_FALSE(ClientLib::setSocketOption(none, SOL_SOCKET, SO_KEEPALIVE, 1));
}

TEST_F(WebSocketCreationTest, EventsAfterShutdownForgetTheWorkerWithoutTellingIt) {
    startup();
    auto worker = create(peer);
    events.listen(*worker);
    events.listen(client);
    WebSocketProxy proxy(worker->getSocket(), nullptr);
    client.shutdown();
    client.DataAvailableHandler(WebsocketDataEventPayload(proxy));
    const int references = worker.referenceCount();
    client.SocketClosedHandler({proxy, "late"});
    EXPECT_EQ(references - 1, worker.referenceCount());
    EXPECT_TRUE(worker->shutdown());
    EXPECT_EQ(Events{}, events.events());
    EXPECT_FALSE(worker->closeReported());
}

TEST_F(WebSocketCreationTest, ShutdownClosesEverySocketAndIsFinal) {
    startup();
    create(peer);
    create(peer);
    client.shutdown();
    client.shutdown();
    for (const auto& connection : {peer.connection(0), peer.connection(1), registry.connection(0)})
        EXPECT_EQ(CLOSE_FRAME, frameFrom(*asWebSocket(connection, Side::Server)));
    EXPECT_THROW(client.getServiceRegistryWebSocket(), Poco::NullPointerException);
    EXPECT_THROW(client.startup(), Poco::NullPointerException);
    EXPECT_THROW(client.startup(), Poco::NullPointerException);
}

TEST_F(WebSocketCreationTest, ShutdownWithoutStartup) {
    const LogCapture faults(Poco::Message::PRIO_WARNING);
    client.shutdown();
    client.shutdown();
    EXPECT_EQ(Events{}, registry.requests());
    EXPECT_EQ(Events{}, faults.lines());
    EXPECT_TRUE(ClientLib(&sink, ClientLib::ClientLibParameters{}).getServiceRegistryWebSocket().isNull());
}
