// Opening WebSockets with the ClientLib, and the way from the connection manager to the workers, against
// peers that answer byte for byte. A silent registry keeps the ClientLib's own connection quiet.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <netinet/tcp.h>

#include <cstdio>

#include "BoundedSession.h"
#include "Footprint.h"
#include "Frames.h"
#include "LogCapture.h"
#include "RawPeer.h"
#include "RefusedThreads.h"

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
    /// What the upgrade fails with while the peer sends a byte now and then.
    template <class Upgrade>
    static std::string failureAt(const RawPeer& dripping, std::size_t connection, const Upgrade& upgrade) {
        auto failure = std::async(std::launch::async, [&]() -> std::string {
            try {
                upgrade();
                return "opened";
            } catch (const Poco::Exception& e) {
                return e.displayText();
            }
        });
        return dripping.dripUntil(connection, "x", failure) ? failure.get() : "";
    }
    /// How many sockets, events and timers of this process a program that it starts has.
    static std::size_t inherited() {
        std::string list;
        FILE* const program = ::popen("ls -l /proc/self/fd", "r");
        for (int c = std::fgetc(program); c != EOF; c = std::fgetc(program)) list += static_cast<char>(c);
        ::pclose(program);
        std::size_t count = 0;
        for (const std::string kind : {"socket:[", "anon_inode:"})
            for (auto at = list.find(kind); at != std::string::npos; at = list.find(kind, at + 1)) ++count;
        return count;
    }
    auto create(const RawPeer& at) { return client.createNewWebsocket("Media", "127.0.0.1", at.port(), 0); }

    LogCapture log;
    RawPeer registry{{UPGRADED}, RawPeer::Then::Keep, Registry::ADDRESS, Registry::PORT};
    RawPeer peer{{UPGRADED}, RawPeer::Then::Keep};
    Nubo::Client::MessageQueue sink;
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
    for (const EventLog* each : {&events, &all}) EXPECT_TRUE(each->waitFor(expected));
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
    for (const EventLog* each : {&events, &all}) EXPECT_TRUE(each->waitFor(expected));
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

TEST_F(WebSocketCreationTest, NothingIsInjectedIntoUpgrades) {
    startup();
    const std::string good = "Media", host = "127.0.0.1";
    const struct {
        std::string service, address;
        int port;
    } table[] = {{good, host + "\r\nX: y", peer.port()},
                 {good, host + " ", peer.port()},
                 {good, "", peer.port()},
                 {good, "a/b", peer.port()},
                 {"a b", host, peer.port()},
                 {"a\r\n", host, peer.port()},
                 {good, host, 0},
                 {good, host, -1},
                 {good, host, 65536 + peer.port()}};
    for (const auto& [service, address, port] : table)
        EXPECT_THROW(client.createNewWebsocket(service, address, port, 0), Poco::InvalidArgumentException)
            << service << address << port;
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(WebSocketCreationTest, UpgradesThatDripEndByTimeAndByShutdown) {
    startup();
    const RawPeer dripping({"HTTP/1.1 10"}, RawPeer::Then::Keep);
    const auto inTime = [&] {
        using namespace Nubo::Client;
        const auto bounds =
            std::make_shared<WaitBounds>(std::chrono::milliseconds(300), WaitBounds::Cancellations{});
        BoundedSession session("127.0.0.1", dripping.port(), bounds);
        session.open(ConnectBudget::Names::LiteralsAndLocalhostOnly);
        Poco::Net::HTTPRequest request("GET", "/", "HTTP/1.1");
        Poco::Net::HTTPResponse response;
        Poco::Net::WebSocket(session, request, response);
    };
    EXPECT_EQ("Timeout: answer not finished in time by 127.0.0.1", failureAt(dripping, 0, inTime));
    auto stop = std::async(std::launch::async, [&] {
        dripping.connection(1);
        client.shutdown();
    });
    EXPECT_EQ("Software caused connection abort: ended by this side",
              failureAt(dripping, 1, [&] { create(dripping); }));
}

TEST_F(WebSocketCreationTest, NoDescriptorIsInheritedByPrograms) {
    const auto before = inherited();
    startup();
    auto worker = create(peer);
    const RawPeer silent({""}, RawPeer::Then::Keep);
    Poco::Net::HTTPResponse response;
    std::string body;
    auto request = std::async(std::launch::async, [&] {
        return client.sendRequest("127.0.0.1", silent.port(), response, body, "GET", "/a", "");
    });
    silent.connection(0);
    EXPECT_EQ(before, inherited());
    client.shutdown();
    EXPECT_FALSE(request.get());
}

TEST_F(WebSocketCreationTest, AThreadThatTheSystemRefusesIsToldAndLeavesNothing) {
    startup();
    refusedThreads = 1;
    EXPECT_THROW(create(peer), Poco::SystemException);
    EXPECT_TRUE(log.contains("Error: " + CREATE.substr(6) + "System exception: cannot start thread"));
    EXPECT_TRUE(SocketPeer(peer.connection(0)).atEnd());
}

TEST_F(WebSocketCreationTest, WhatComesWithTheUpgradeIsNotLost) {
    // With an interim answer, and a Connection header that says more than "Upgrade" (RFC 6455, 4.1).
    std::string answer = "HTTP/1.1 103 Early Hints\r\n\r\n" + UPGRADED;
    answer.replace(answer.find(": Upgrade") + 2, 7, "keep-alive, Upgrade");
    const std::string last = text("{}");
    const RawPeer gluing({answer + text("{\"a\":1}") + last.substr(0, 3)}, RawPeer::Then::Keep);
    startup();
    auto worker = create(gluing);
    gluing.send(0, last.substr(3) + CLOSING);
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
    EXPECT_THROW(create(peer), Poco::NullPointerException);
    for (int i = 0; i < 2; ++i) EXPECT_THROW(client.startup(), Poco::NullPointerException);
}

TEST_F(WebSocketCreationTest, WithoutTheTransportNothingIsKept) {
    EXPECT_THROW(create(peer), Poco::NullPointerException);
    EXPECT_TRUE(SocketPeer(peer.connection(0)).atEnd());  // the handshake has taken place
}
