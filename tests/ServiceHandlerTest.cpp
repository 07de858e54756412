#include <Nubo/Client/DataMessages/WebSocketOpenedMessage.h>
#include <Nubo/Client/SRServiceHandler.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/StringTokenizer.h>
#include <gmock/gmock.h>

#include "ClientDoubles.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;
using Row = Poco::StringTokenizer;  // of a table: columns between '|'

const std::string ADD = "Info: ServiceHandler::addSubscription";
const std::string REMOVE = "Info: ServiceHandler::removeSubscription: ";
const std::string NOT_FOUND =
    "Error: ServiceHandler::removeSubscription - cannot remove subscription, not found: ";
const std::string NO_CONNECTION =
    "Error: void Nubo::Client::ServiceHandler::operator<<(const Nubo::Command::WebSocketRequestObject&) - "
    "exception: Null pointer";
const std::string NOTIFY =
    "Info: virtual void Nubo::Client::ServiceHandler::WebSocketDataAvailableHandlerSync(const Ptr&) notify "
    "subscriber ";
const std::string SYNC = "Error: ServiceHandler::WebSocketDataAvailableHandlerSync - ";
const std::string START_FAILED = "Error: ServiceHandler::start - exception: Null pointer";
const std::string REFUSED =
    "Warning: ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!";

// The counter belongs to the process: its first value can be seen only once.
const std::string FIRST_ID = TestHandler("Media", nullptr, nullptr, 0, true).getUniqueId();

std::string message(const std::string& event, const std::string& value = "[]") {
    return R"({"type":"data","event":")" + event + R"(","data":)" + value + "}";
}

std::size_t countOf(const LogCapture& log, const std::string& start) {
    const auto lines = log.lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const auto& line) { return line.find(start) == 0; }));
}

class ServiceHandlerTest : public testing::Test {
protected:
    TestHandler::Ptr make() { return new TestHandler("Media", &lib, &sink, 5000, true); }
    std::string nextId() { return std::to_string(std::stoi(handler->getUniqueId()) + 1); }
    std::string subscribe(const std::string& uri, const std::string& tag = "") {
        return handler->addSubscription(uri, tag, false);
    }
    std::vector<std::string> taken() {
        const auto lines = log.lines();
        log.clear();
        return lines;
    }
    std::size_t count(const std::string& start) const { return countOf(log, start); }

    LogCapture log;
    FakeClientLib lib;
    RefusingQueue sink;
    TestHandler::Ptr handler = make();
};

TEST_F(ServiceHandlerTest, IdsCountFromElevenOverAllHandlers) {
    EXPECT_EQ("11", FIRST_ID);
    const std::string next = nextId();
    EXPECT_EQ(next, make()->getUniqueId());
}

TEST_F(ServiceHandlerTest, IsAvailableWithAddressAndConnection) {
    Announcements bad(handler), announced(handler);
    bad.then = [](bool available) {
        if (available) throw Poco::RuntimeException("delegate");
        throw 1;
    };
    lib.refusing = true;
    handler->setReconnectParameters(1, 60000);
    handler->setNewServiceAddress("10.0.0.5", 80);
    EXPECT_FALSE(handler->isAvailable());
    lib.refusing = false;
    handler->setNewServiceAddress("10.0.0.6", 81);
    handler->TriggerMicroServiceRegistrationChanged();  // nothing new
    EXPECT_EQ("Media@10.0.0.6:81/5000", lib.lastConnection());
    for (const char* line : {"Info: LogServiceAvailability (Media): : NOT AVAILABLE",
                             "Debug: ServiceHandler::ServiceAvailabilityChanged: Media (10.0.0.6) = 1",
                             "Debug: reconnectServiceSocket: reconnecting to service: Media (10.0.0.6)",
                             "Error: ServiceHandler::RaiseMicroServiceRegistrationChangedInternal - "
                             "exception: Runtime exception: delegate"})
        EXPECT_EQ(1U, log.count(line)) << line;
    EXPECT_EQ(2U, log.count("Info: LogServiceAvailability (Media): : AVAILABLE"));

    auto worker = handler->getWebSocket();  // as a handler that remembers the registry's would
    EXPECT_TRUE(handler->destroyWebsocket());
    EXPECT_EQ(1U, count("Warning: bool Nubo::Client::WebSocketRequestHandler::shutdown(): "));
    handler->shutdown();
    handler->setNewServiceAddress("10.0.0.6", 81);  // one that has shut down connects to nothing
    EXPECT_TRUE(handler->getWebSocket().isNull());
    EXPECT_THAT(announced.states, ElementsAre(true, false));
}

TEST_F(ServiceHandlerTest, ListensOnceWhereverItWasStarted) {
    const auto frame = TestHandler::payload(message("/?name=Media#1-Media"));
    const auto pendingAfterFrameOn = [&](WebSocketRequestHandler::Ptr worker) {
        worker->SocketDataAvailable.notify(nullptr, frame);
        return sink.pending();
    };
    const auto old = lib.registry, current = FakeClientLib::worker();
    for (int i = 0; i < 2; ++i) handler->start();
    EXPECT_THAT(taken()[0], testing::MatchesRegex("Info: ServiceHandler::start: subscribe to service "
                                                  "registry /\\?name=Media#[0-9]+-Media"));
    EXPECT_EQ(1U, pendingAfterFrameOn(old));
    lib.registry = current;
    handler->start();
    EXPECT_EQ(1U, pendingAfterFrameOn(old));
    EXPECT_EQ(2U, pendingAfterFrameOn(current));
    lib.registry = nullptr;
    handler->shutdown();  // looks at the worker that it is on, not at the current one
    EXPECT_EQ(2U, pendingAfterFrameOn(current));
    EXPECT_EQ(0U, count("Error: "));
    lib.registry = current;
    handler->start();
    handler = nullptr;  // destroyed without shutdown(), as when it is replaced
    EXPECT_EQ(2U, pendingAfterFrameOn(current));
}

TEST_F(ServiceHandlerTest, NullInterfacesAreLogLines) {
    handler = new TestHandler("Media", nullptr, nullptr, 0, true);
    handler->start();
    handler->setNewServiceAddress("10.0.0.5", 80);
    handler->receive(message("/?name=Media#1-Media"));
    handler->close("reset");
    handler->shutdown();
    EXPECT_EQ(1U, log.count(START_FAILED));
    EXPECT_EQ(1U, log.count(REFUSED));
    EXPECT_TRUE(log.contains("Warning: ServiceHandler::WebSocketClosedHandler: Could not enqueue message!"));
}

TEST_F(ServiceHandlerTest, NormalizesUrls) {
    for (const char* text : {"http://me@10.0.0.5:80/media/tracks|/media/tracks/",
                             "/media/tracks///|/media/tracks/",
                             "/media|/media/",
                             "/media/tracks/4711//|/media/tracks/4711",
                             "/|/",
                             "|",
                             "?a=b|?a=b",
                             "/media/tracks/a/b/|/media/tracks/a/b",
                             "http://10.0.0.5|",
                             "/m/a%20b/c%25d|/m/a%20b/c%25d",
                             "/m/t?$fields=a,b#12-m-0xa|/m/t/?%24fields=a%2Cb#12-m-0xa",
                             "/m/t#a%20b|/m/t/#a%20b",
                             "/m/t/%2F|/m/t/",
                             "/m/$id/|/m/%24id/",
                             "/m/t?a=%2525|/m/t/?a=%2525",
                             "/m/t?n=C%2B%2b%20%26&m=a+b|/m/t/?n=C%2B%2B%20%26&m=a+b",
                             "/m/t?n=%252B|/m/t/?n=%252B",
                             "m/t:1|m/t:1/",
                             "m/t|m/t/",
                             "./a:b|./a:b/",
                             "/a:b|/a:b/"}) {
        const Row row(text, "|");
        EXPECT_EQ(row[1], handler->normalizeUrl(row[0])) << text;
        EXPECT_EQ(row[1], handler->normalizeUrl(row[1])) << text;
    }
    for (const char* bad :
         {"/m/%zz", "http://[::1", "/m?a=%zz", "/m?a=%2B%", "mailto:x", "a:b", "a:b:c", "a%3Ab"})
        EXPECT_THROW(handler->normalizeUrl(bad), Poco::SyntaxException) << bad;
}

TEST_F(ServiceHandlerTest, SubscriptionsAreBookedAndLogged) {
    const std::string id = nextId(), tag = "booked" + id;  // the counters are the process's
    const std::string first = subscribe("http://10.0.0.5:80/Media/tracks", tag);
    const std::string second = subscribe("/Media/tracks/");
    EXPECT_EQ("/Media/tracks/#" + id + "-Media-" + tag, first);
    for (int i = 0; i < 2; ++i) handler->removeSubscription(first);
    {
        LogCapture quiet(Poco::Message::PRIO_WARNING);  // the total stands still while Info is off
        subscribe("/Media/quiet");
        EXPECT_THAT(quiet.lines(), ElementsAre(NO_CONNECTION));
    }
    handler->removeSubscription(second);
    EXPECT_EQ("", subscribe("/Media/%zz"));
    handler->removeSubscription("/Media/%zz");

    const auto lines = taken();
    const int total = std::stoi(lines.at(1).substr(lines[1].rfind('=') + 1));
    const auto at = [&](int change) { return std::to_string(static_cast<uint16_t>(total + change)); };
    const std::string asked = ", firstSubscrUri=" + first, sum = ", total counter=";
    EXPECT_THAT(
        lines,
        ElementsAre(
            ADD + ": subscriptionUri (virtual)=" + first,
            ADD + ": subscriptionUri=" + first + ", counter=" + at(0), NO_CONNECTION,
            ADD + ": subscriptionUri=" + second + ", counter=" + at(1), REMOVE + "uri=" + first + asked,
            REMOVE + "subscriptionUri (virtual)=" + first + ", subscribers left:1",
            REMOVE + "subscriptionUri=" + first + ", fragment=" + tag + ", fragmentCounter=0" + sum + at(0),
            REMOVE + "uri=" + first + asked, NOT_FOUND + first, REMOVE + "uri=" + second + asked,
            REMOVE + "subscriptionUri (virtual)=" + second + ", subscribers left:0", NO_CONNECTION,
            AllOf(StartsWith(REMOVE + "subscriptionUri=" + second), EndsWith(sum + at(-1))),
            StartsWith("Error: ServiceHandler::addSubscription - exception: "),
            StartsWith("Error: ServiceHandler::removeSubscription - exception: ")));
}

TEST_F(ServiceHandlerTest, ExpansionNeedsAnElementAndAtMostThreeLevels) {
    const std::string error = "Error: ServiceHandler::addSubscription: expansion level not valid for URI ";
    for (const char* text : {"/Media/t/1?$expand=1|0", "/Media/t/1?$expand=3|0", "/Media/t/1?$expand=4|1",
                             "/Media/t/1?%24expand=5|1", "/Media/t?$expand=1|1", "/Media/t?$expand=0|0",
                             "/Media/t?$expand=x|0", "/Media/t/1|0", "/Media/t/1?$expand=4294967297|1"}) {
        const Row row(text, "|");
        EXPECT_NE("", subscribe(row[0])) << text;
        EXPECT_EQ(row[1], std::to_string(log.count(error + handler->normalizeUrl(row[0])))) << text;
    }
}

TEST_F(ServiceHandlerTest, NotifiesSubscribersInOrder) {
    const std::string uri = "/Media/tracks?$fields=x,y";
    const std::string a = subscribe(uri, "0xa"), b = subscribe(uri), c = subscribe(uri, "0xc-d");
    const std::string id = a.substr(a.find('#'));
    Notifications notified(handler);
    // As it was sent, and as services may spell it.
    for (const std::string& echo :
         {a, "/Media/tracks/?$fields=x,y" + id, "http://h/Media/tracks?$fields=x%2Cy" + id}) {
        notified.received.clear();
        handler->handle(message(echo));
        EXPECT_THAT(notified.events(), ElementsAre(a, b, c)) << echo;
    }
    EXPECT_EQ(3U, log.count(NOTIFY + b));
    EXPECT_EQ("0xc-d", notified.received[2].additionalFragment);
    handler->removeSubscription(a);  // the first one's URI stays the one that the service knows
    notified.received.clear();
    handler->handle(message(a));
    EXPECT_THAT(notified.events(), ElementsAre(b, c));

    notified.received.clear();
    for (const auto& other :
         {R"({"type":"subscribe","event":")" + a + R"("})", message("/Media/tracks/#1-Tuner"),
          message("/Media/tracks/#1-media"), message("/Media/tracks/#1"), message("/Media/tracks/"),
          message("/?name=Media#1-Media")}) {
        handler->handle(other);
        handler->receive(other);
    }
    sink.dispatch();
    EXPECT_THAT(notified.events(), IsEmpty());
    handler->handle(message("/Media/tracks/#1-Media-gone"));  // to which nobody ever subscribed
    EXPECT_THAT(notified.events(), ElementsAre("/Media/tracks/#1-Media-gone"));
}

TEST_F(ServiceHandlerTest, FurtherSubscribersAreServedCurrentData) {
    const std::string first = subscribe("/Media/tracks");
    handler->handle(R"({"code":410,"data":{"a":[1]},"event":")" + first + R"(","type":"error"})");
    Notifications notified(handler);
    log.clear();
    const std::string second = subscribe("/Media/tracks", "0xb");
    EXPECT_THAT(taken(),  // nothing is sent
                ElementsAre(ADD + " and notify with current data: subscriptionUri (virtual)=" + second,
                            StartsWith(ADD + ": subscriptionUri=" + second)));
    EXPECT_THAT(notified.events(), IsEmpty());  // on the caller's thread, but not inside the call
    EXPECT_EQ(1U, sink.dispatch());
    ASSERT_THAT(notified.events(), ElementsAre(second));
    EXPECT_EQ("0xb", notified.received[0].additionalFragment);
    EXPECT_EQ(R"({"code":410,"data":{"a":[1]},"event":")" + second + R"(","type":"error"})",
              written(*notified.received[0].container));
    sink.refuse(true);
    EXPECT_NE("", subscribe("/Media/tracks"));
    EXPECT_EQ(1U, log.count(REFUSED));
}

TEST_F(ServiceHandlerTest, WhoHasLeftHearsNoMore) {
    const std::string first = subscribe("/Media/t");
    Notifications notified(handler);
    handler->handle(message(first, R"("old")"));
    handler->removeSubscription(subscribe("/Media/t"));  // is served, and leaves before
    handler->handle(message(first, R"("new")"));
    sink.dispatch();
    EXPECT_THAT(notified.events(), ElementsAre(first, first));
    const std::string second = subscribe("/Media/t");
    sink.dispatch();
    EXPECT_EQ(1U, notified.count(second, "new"));  // not put back to the old one

    notified.received.clear();
    handler->receive(message(first, R"("queued")"));
    for (const auto& uri : {first, second}) handler->removeSubscription(uri);
    const std::string third = subscribe("/Media/t");
    sink.dispatch();
    handler->handle(message("/Media/t#" + second.substr(second.find('#') + 1)));
    subscribe("/Media/t");
    EXPECT_EQ(0U, sink.dispatch());  // what came for those who have left is nobody's current data
    EXPECT_THAT(notified.events(), IsEmpty());
    const std::string unknown = "/Media/t/#1-Media-x";
    handler->handle(message(unknown, R"("unknown")"));
    EXPECT_THAT(notified.events(), ElementsAre(unknown));
    const std::string last = subscribe("/Media/t");
    sink.dispatch();
    EXPECT_EQ(1U, notified.count(last, "unknown"));
    handler->handle(message("/Media/t/5" + third.substr(third.find('#'))));  // of an element of the list
    EXPECT_EQ("/Media/t/5" + third.substr(third.find('#')), notified.events().back());
}

TEST_F(ServiceHandlerTest, SubscribersMayChangeSubscriptionsAndThrow) {
    std::vector<std::string> uris;
    for (const char* tag : {"0", "1", "2", "3"}) uris.push_back(subscribe("/Media/t", tag));
    Notifications bad(handler), notified(handler);
    std::string late;
    bad.then = [&](const auto& received) {
        if (received.event == uris[1]) throw 1;
        if (received.event != uris[0]) return;
        handler->removeSubscription(uris[0]);
        handler->removeSubscription(uris[2]);
        late = subscribe("/Media/t", "late");
        throw Poco::RuntimeException("subscriber");
    };
    handler->handle(message(uris[0]));
    EXPECT_THAT(notified.events(), ElementsAre(uris[0], uris[1], uris[3]));
    EXPECT_EQ(1U, log.count(SYNC + "exception: Runtime exception: subscriber"));
    EXPECT_EQ(1U, log.count(SYNC + "unknown exception: "));
    sink.dispatch();
    EXPECT_EQ(late, notified.events().back());
}

TEST_F(ServiceHandlerTest, RefreshMovesASubscription) {
    std::string current, id;
    for (int i = 0; i < 2; ++i) handler->RefreshSubscription(current, id, "/Media/a");
    const std::string first = id;
    EXPECT_EQ(1U, count(ADD + ": subscriptionUri=/Media/a/#"));
    handler->RefreshSubscription(current, id, "/Media/b");
    EXPECT_EQ("/Media/b", current);
    EXPECT_THAT(id, StartsWith("/Media/b/#"));
    EXPECT_TRUE(log.contains(first + ", subscribers left:0"));
    handler->RefreshSubscription(current, id, "");
    EXPECT_EQ("", current + id);
}

TEST_F(ServiceHandlerTest, ElementHasGoneWithError410) {
    for (const char* text : {R"(error|{"code":410}|1)", R"(error|{"code":"410"}|1)",
                             R"(error|{"code":404}|0)", R"(error|{}|0)", R"(data|{"code":410}|0)"}) {
        const Row row(text, "|");
        const Notifications::Data notification{handler.get(), "", parsed(row[1]), "", row[0]};
        EXPECT_EQ(row[2] == "1", notification.hasElementGone()) << text;
    }
}

TEST_F(ServiceHandlerTest, FollowsTheRegistrysRecords) {
    const std::string here = "Media (" + Nubo::ServiceRegistryConnection::ADDRESS + "):";
    const std::string kept = "Media (1.2.3.4):5", gone = "Media ():0";
    const auto expectAfter = [&](const std::string& data, const std::string& expected, unsigned errors = 0) {
        handler = make();
        handler->setNewServiceAddress("1.2.3.4", 5);
        const int before = lib.attempts;
        log.clear();
        handler->handle(message("/?name=Media#1-Media", data));
        EXPECT_EQ(expected,
                  handler->getServiceDescription() + ":" + std::to_string(handler->getServicePort()))
            << data;
        EXPECT_EQ(before, lib.attempts) << data;  // a connected service keeps its connection
        EXPECT_EQ(errors, count(SYNC + "exception: ")) << data;
        EXPECT_TRUE(expected != kept || errors == log.lines().size()) << data;
    };
    const auto record = [](const std::string& rest) { return R"([{"name":"Media",)" + rest + "}]"; };
    expectAfter(record(R"("uri":"http://10.0.0.5:99/Media/","port":80)"), "Media (10.0.0.5):80");
    expectAfter(record(R"("uri":"http://1.2.3.4/","port":6)"), "Media (1.2.3.4):6");
    expectAfter(record(R"("uri":"/Media/","port":"80")"), here + "80");
    expectAfter(record(R"("uri":"http://[::1]:1/Media/","port":65535)"), "Media (::1):65535");
    expectAfter(R"([null,7,[],{"port":1},{"name":7},{"name":"media","uri":"/","port":1},)"
                R"({"name":"Media","uri":"//x","port":2},{"name":"Media","uri":"/","port":3}])",
                here + "2");
    for (const char* without : {"[]", R"([{"name":"Tuner","uri":"/","port":1}])"}) expectAfter(without, gone);
    for (const std::string& same : {record(R"("uri":"http://1.2.3.4/","port":5)"), std::string("{}")})
        expectAfter(same, kept);
    for (const char* invalid :
         {R"("uri":"/","port":65536)", R"("uri":"/","port":-1)", R"("uri":"/","port":"80x")",
          R"("uri":"/","port":"")", R"("uri":"/","port":{})", R"("uri":"/","port":null)", R"("uri":"/")",
          R"("uri":"http://[::1/","port":1)", R"("uri":{},"port":1)", R"("port":1)"})
        expectAfter(record(invalid), kept, 1);
    handler->handle(R"({"type":"error","event":"/#1-Media","data":[]})");
    EXPECT_TRUE(handler->isAvailable());
}

TEST_F(ServiceHandlerTest, AnEventWithoutServiceIsNobodys) {
    SRServiceHandler registry(&lib, &sink, 5000);
    registry.start();
    for (const char* event : {"/", "/#", "/#1", "/#-", "/#1-", "/?name=#1--x"}) {
        registry.WebSocketDataAvailableHandlerSync(parsed(message(event)));
        EXPECT_TRUE(registry.isAvailable()) << event;
    }
    EXPECT_EQ("ServiceRegistry", registry.getServiceDescription());
}

TEST_F(ServiceHandlerTest, FramesBecomeMessages) {
    const std::string good = message("/Media/t/#1-Media");
    const auto expectLines = [&](const std::string& frame, std::size_t messages, std::size_t errors,
                                 std::size_t warnings) {
        log.clear();
        handler->receive(frame);
        EXPECT_EQ(messages, sink.dispatch()) << frame;
        EXPECT_EQ(messages, log.count("Info: OnWebSocketNotification: " + good)) << frame;
        EXPECT_EQ(errors, count("Error: OnWebSocketNotification: error parsing JSON: ")) << frame;
        EXPECT_EQ(warnings, count("Warning: ")) << frame;
    };
    expectLines("\x1E" + good + " \x1E\n[" + good + "," + good + "]", 3, 0, 0);
    expectLines(good + R"({"type":"data","event)", 1, 0, 1);
    expectLines("[1,2] }} \xFF", 0, 0, 0);
    std::string nested = "1";
    for (int i = 0; i < 300; ++i) nested = R"({"a":)" + nested + "}";
    nested = message("/Media/t/#1-Media", nested);
    for (const char* bad : {"{broken json}", R"({"type":"data"})", R"({"event":"/#1-Media"})", nested.c_str(),
                            R"({"type":7,"event":"/#1-Media"})", R"({"type":"data","event":["/#1-Media"]})",
                            R"({"type":"data","event":null})", R"({"type":"data","event":"/%zz#1-Media"})",
                            R"({"type":"data","event":"/Media/t/#1-Media","data":1e999})"})
        expectLines(good + bad + good, 2, 1, 0);
    sink.refuse(true);
    handler->receive(good + good);
    EXPECT_EQ(2U, log.count(REFUSED));
}

TEST_F(ServiceHandlerTest, WhatPeersSendMakesFewAndShortLines) {
    const std::string line = "Error: OnWebSocketNotification: error parsing JSON: ", bad = R"({"a":1})";
    const auto frame = TestHandler::payload("");
    handler->WebSocketDataAvailableHandler({frame, "3 of 7 bytes"});
    handler->receive(R"({"type":"data","event":"http://h:)" + std::string(100000, '9') + R"("})");
    const auto lines = taken();
    EXPECT_EQ("Warning: WebsocketDataObjectSplitter: 3 of 7 bytes", lines.at(0));
    for (std::size_t i = 1; i < lines.size(); ++i) EXPECT_LT(lines[i].size(), 20000U);
    for (int i = 0; i < 1000; ++i) {
        handler->receive(bad);
        handler->handle(bad);
    }
    EXPECT_GT(count(line), 5U);
    EXPECT_GT(count(SYNC), 5U);
    EXPECT_LT(count("Error: "), 500U);  // 20 in each second
    handler->close("end of stream");
    sink.dispatch();
    EXPECT_TRUE(log.contains(" further lines about bad data from this peer were left out"));

    TestHandler::Ptr all[] = {make(), make(), make()};  // one of them says what is bad
    for (auto& each : all) each->start();
    log.clear();
    for (const auto& text : {bad, message("/?name=Media#1-Media")})
        lib.registry->enqueueSocketData(TestHandler::payload(text));
    lib.registry->enqueueSocketData({frame, "3 of 7 bytes"});
    EXPECT_TRUE(log.waitFor("3 of 7 bytes"));
    lib.registry->shutdown();
    EXPECT_EQ(1U, count(line));
    EXPECT_EQ(1U, count("Warning: WebsocketDataObjectSplitter: "));
    EXPECT_EQ(3U, sink.dispatch());
}

TEST_F(ServiceHandlerTest, DataIsUndeliveredUntilItsMessagesHaveRun) {
    for (const bool refused : {false, true}) {
        sink.refuse(refused);
        auto payload = TestHandler::payload(message("/Media/t/#1-Media") + message("/Media/t/#2-Media"));
        const auto receipt = std::make_shared<int>();
        payload.receipt = receipt;
        handler->WebSocketDataAvailableHandler(payload);
        payload.receipt = nullptr;
        EXPECT_EQ(refused ? 1 : 3, receipt.use_count());
        sink.dispatch();
        EXPECT_EQ(1, receipt.use_count());
    }
}

TEST_F(ServiceHandlerTest, AServiceDoesNotSpeakForTheRegistry) {
    handler->start();
    handler->setNewServiceAddress("10.0.0.5", 80);
    const auto withdrawn = TestHandler::payload(message("/?name=Media#1-Media"));
    handler->getWebSocket()->SocketDataAvailable.notify(nullptr, withdrawn);
    EXPECT_EQ(0U, sink.pending());
    for (const char* uri : {"/", "//", "/?name=Media", "http://10.0.0.5/"}) {
        log.clear();
        EXPECT_EQ("", subscribe(uri)) << uri;
        EXPECT_THAT(log.lines(),
                    ElementsAre(StartsWith("Error: ServiceHandler::addSubscription - exception: ")));
    }
    EXPECT_TRUE(handler->isAvailable());
    lib.registry->SocketDataAvailable.notify(nullptr, withdrawn);
    EXPECT_EQ(1U, sink.dispatch());
    EXPECT_FALSE(handler->isAvailable());
}

TEST_F(ServiceHandlerTest, LateMessagesDoNothing) {
    for (const bool destroyed : {false, true}) {
        handler->start();
        handler->setNewServiceAddress("10.0.0.5", 80);
        handler->receive(message("/Media/t/#1-Media"));
        handler->close("end of stream");
        sink.enqueueDataMessage(new WebSocketOpenedMessage(handler.get()));
        destroyed ? void(handler = nullptr) : handler->shutdown();
        log.clear();
        EXPECT_EQ(3U, sink.dispatch());
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

// --- with a client on the wire ---

struct ServiceHandlerWireTest : ClientTest {
    std::size_t count(const std::string& start) const { return countOf(log, start); }
};

TEST_F(ServiceHandlerWireTest, OneRequestPerResource) {
    auto handler = connect();
    const std::string first = handler->addSubscription("/Media/tracks?$fields=a,b", "0xa", true);
    const std::string second = handler->addSubscription("/Media/tracks?$fields=a,b", "0xb", false);
    const std::string other = handler->addSubscription("/Media/tracks/1", "", false);
    for (const auto& uri : {first, other, second}) handler->removeSubscription(uri);
    ASSERT_TRUE(eventually([&] { return media.record().requests().size() >= 4; }));
    const auto request = [](const std::string& type, const std::string& event, const std::string& more = "") {
        return "{" + more + R"("event":")" + event + R"(","interval":0,"type":")" + type +
               R"(","updateLimit":100})";
    };
    std::vector<std::string> texts;
    for (const auto& received : media.record().requests()) texts.push_back(written(*parsed(received.text)));
    const std::string automatic = R"("autosubscribe":true,)";
    EXPECT_THAT(texts, ElementsAre(request("subscribe", first, automatic), request("subscribe", other),
                                   request("unsubscribe", other), request("unsubscribe", first, automatic)));
    EXPECT_EQ("/Media", media.record().upgradeRequests()[0].uri);
    EXPECT_THAT(platform.registry().record().requests().at(0).text,
                testing::MatchesRegex(R"(.*"event":"/\?name=Media#[0-9]+-Media","type":"subscribe"\})"));
}

TEST_F(ServiceHandlerWireTest, ClientKnowsItsHandlersByName) {
    EXPECT_THROW(lib.addService(nullptr), Poco::NullPointerException);
    auto handler = add();
    EXPECT_EQ(0U, count("Warning: ClientLib::addService: "));
    add("My-Media");
    EXPECT_EQ(1U, count("Warning: ClientLib::addService: service My-Media "));
    EXPECT_EQ(handler, lib.getServiceHandler("Media"));
    EXPECT_TRUE(lib.getServiceHandler("media").isNull());
    EXPECT_EQ(1U, log.count("Error: virtual Nubo::Client::ServiceHandler::Ptr Nubo::Client::ClientLib::"
                            "getServiceHandler(const string&) const: getServiceHandler returned nullptr for "
                            "service: media"));
}

}  // namespace
