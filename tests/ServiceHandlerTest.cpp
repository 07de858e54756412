#include <Nubo/Client/DataMessages/WebSocketOpenedMessage.h>
#include <Nubo/Client/SRServiceHandler.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/StringTokenizer.h>
#include <gmock/gmock.h>

#include <thread>

#include "ClientDoubles.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using testing::ElementsAre;
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
const std::string SYNC = "Error: ServiceHandler::WebSocketDataAvailableHandlerSync - ";
const std::string REFUSED =
    "Warning: ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!";

// The counter belongs to the process: its first value can be seen only once.
const std::string FIRST_ID = TestHandler("Media", nullptr, nullptr, 0, true).getUniqueId();

std::string message(const std::string& event, const std::string& value = "[]") {
    return R"({"type":"data","event":")" + event + R"(","data":)" + value + "}";
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
    std::size_t count(const std::string& start) const {
        const auto lines = log.lines();
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
            return line.compare(0, start.size(), start) == 0;
        }));
    }
    /// Lets the registry's worker raise an answer, and says how many messages wait when all delegates have
    /// run.
    std::size_t pendingAfterFrameOn(WebSocketRequestHandler::Ptr worker) {
        struct {
            void set(const Nubo::Net::WebsocketDataEventPayload&) { event.set(); }
            Poco::Event event;
        } last;
        const auto delegate = Poco::delegate(&last, &decltype(last)::set);
        worker->SocketDataAvailable += delegate;
        worker->enqueueSocketData(TestHandler::payload(message("/?name=Media#1-Media")));
        EXPECT_TRUE(last.event.tryWait(20000));
        worker->SocketDataAvailable -= delegate;
        return sink.pending();
    }

    LogCapture log;
    FakeClientLib lib;
    Nubo::Simulator::MessageSink sink;
    TestHandler::Ptr handler = make();
};

TEST_F(ServiceHandlerTest, IdsCountFromElevenOverAllHandlers) {
    EXPECT_EQ("11", FIRST_ID);
    const std::string next = nextId();
    EXPECT_EQ(next, make()->getUniqueId());
    constexpr int EACH = 500;
    const auto take = [](TestHandler::Ptr from) {
        for (int i = 0; i < EACH; ++i) from->getUniqueId();
    };
    std::thread thread(take, make());
    take(handler);
    thread.join();
    EXPECT_EQ(std::stoi(next) + 2 * EACH + 1, std::stoi(handler->getUniqueId()));
}

TEST_F(ServiceHandlerTest, AvailableWithAddressAndConnection) {
    Announcements announced(handler);
    EXPECT_EQ("Media ()", handler->getServiceDescription());
    lib.refusing = true;
    handler->setReconnectParameters(1, 60000);
    handler->setNewServiceAddress("10.0.0.5", 80);
    EXPECT_EQ("Media (10.0.0.5)", handler->getServiceDescription());
    EXPECT_FALSE(handler->isAvailable());
    EXPECT_THAT(announced.states, IsEmpty());

    lib.refusing = false;
    handler->setNewServiceAddress("10.0.0.6", 81);
    EXPECT_TRUE(handler->isAvailable());
    EXPECT_EQ(81, handler->getServicePort());
    EXPECT_EQ("Media@10.0.0.6:81/5000", lib.lastConnection());
    handler->TriggerMicroServiceRegistrationChanged();
    EXPECT_THAT(announced.states, ElementsAre(true));
    EXPECT_EQ(1U, log.count("Info: LogServiceAvailability (Media): : NOT AVAILABLE"));
    EXPECT_EQ(2U, log.count("Info: LogServiceAvailability (Media): : AVAILABLE"));
    EXPECT_EQ(1U, log.count("Debug: ServiceHandler::ServiceAvailabilityChanged: Media (10.0.0.6) = 1"));
    EXPECT_EQ(1U, log.count("Debug: reconnectServiceSocket: reconnecting to service: Media (10.0.0.6)"));

    for (int i = 0; i < 2; ++i) handler->shutdown();
    EXPECT_THAT(announced.states, ElementsAre(true, false));
    EXPECT_TRUE(handler->Disposing());
    EXPECT_EQ("Media ()", handler->getServiceDescription());
    handler->setNewServiceAddress("10.0.0.6", 81);  // one that has shut down connects to nothing
    EXPECT_TRUE(handler->getWebSocket().isNull());

    handler->start();
    handler->setNewServiceAddress("10.0.0.7", 82);
    EXPECT_THAT(announced.states, ElementsAre(true, false, true));
    auto worker = handler->getWebSocket();  // as a handler that remembers the registry's would
    log.clear();
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(handler->destroyWebsocket());  // also without one
    EXPECT_FALSE(handler->isAvailable());
    EXPECT_EQ(1U, count("Warning: bool Nubo::Client::WebSocketRequestHandler::shutdown(): "));  // no socket
}

TEST_F(ServiceHandlerTest, AnnouncementSurvivesThrowingDelegates) {
    Announcements bad(handler), good(handler);
    bad.then = [](bool available) {
        if (available) throw Poco::RuntimeException("delegate");
        throw 1;
    };
    handler->setNewServiceAddress("10.0.0.5", 80);
    handler->setNewServiceAddress("", 0);
    EXPECT_THAT(good.states, ElementsAre(true, false));
    EXPECT_EQ(1U, log.count("Error: ServiceHandler::RaiseMicroServiceRegistrationChangedInternal - "
                            "exception: Runtime exception: delegate"));
}

TEST_F(ServiceHandlerTest, ListensOnceWhereverItWasStarted) {
    const auto old = lib.registry;
    const std::string id = nextId();
    for (int i = 0; i < 2; ++i) handler->start();
    EXPECT_EQ("Info: ServiceHandler::start: subscribe to service registry /?name=Media#" + id + "-Media",
              taken()[0]);
    EXPECT_EQ(1U, pendingAfterFrameOn(old));
    const auto current = lib.registry = FakeClientLib::worker();
    handler->start();
    EXPECT_EQ(1U, pendingAfterFrameOn(old));
    EXPECT_EQ(2U, pendingAfterFrameOn(current));

    lib.registry = nullptr;
    handler->shutdown();  // looks at the worker that it is on, not at the current one
    EXPECT_EQ(2U, pendingAfterFrameOn(current));
    EXPECT_EQ(0U, count("Error: "));
    handler->start();
    EXPECT_EQ(1U, log.count("Error: ServiceHandler::start - exception: Null pointer"));
    EXPECT_FALSE(handler->Disposing());
    lib.registry = current;
    handler->start();
    handler = nullptr;  // destroyed without shutdown(), as when it is replaced
    EXPECT_EQ(2U, pendingAfterFrameOn(current));
}

TEST_F(ServiceHandlerTest, NullInterfacesAreLogLines) {
    handler = new TestHandler("Media", nullptr, nullptr, 0, true);
    handler->setReconnectParameters(1, 60000);
    handler->start();
    handler->setNewServiceAddress("10.0.0.5", 80);
    handler->receive(message("/?name=Media#1-Media"));
    handler->close("reset");
    handler->shutdown();
    EXPECT_EQ(1U, log.count("Error: ServiceHandler::start - exception: Null pointer"));
    EXPECT_EQ(1U, log.count(REFUSED));
    EXPECT_EQ(1U, log.count("Warning: ServiceHandler::WebSocketClosedHandler: Could not enqueue message!"));
}

TEST_F(ServiceHandlerTest, NormalizesUrls) {
    for (const char* text :
         {"http://me@10.0.0.5:80/media/tracks|/media/tracks/", "/media/tracks///|/media/tracks/",
          "/media|/media/", "/media/tracks/4711/|/media/tracks/4711",
          "/media/tracks/4711//|/media/tracks/4711", "/|/", "|", "?a=b|?a=b",
          "/media/tracks/a/b/|/media/tracks/a/b", "http://10.0.0.5|", "/m/a%20b/c%25d|/m/a%20b/c%25d",
          "/m/t?$fields=a,b#12-m-0xa|/m/t/?%24fields=a%2Cb#12-m-0xa",
          "/m/t?%24fields=a%2Cb|/m/t/?%24fields=a%2Cb", "/m/t#a%20b|/m/t/#a%20b"}) {
        const Row row(text, "|");
        EXPECT_EQ(row[1], handler->normalizeUrl(row[0])) << text;
    }
    for (const char* bad : {"/m/%zz", "http://[::1", "/m?a=%zz"})
        EXPECT_THROW(handler->normalizeUrl(bad), Poco::SyntaxException) << bad;
    for (const std::string prefix : {"", "http://10.0.0.5:80"})
        for (const std::string path :
             {"",         "/",       "//",       "/m",     "/m//",         "//m/t",      "/m/t",
              "/m/t/",    "/m/t/1",  "/m/t/1//", "/m//t",  "/m/t/1/2///",  "/m/a%25b/c", "/m/a%3Fb/c%23",
              "/m/t/%2F", "/m/$id/", "/m/t/%24", "/m/a:b", "/m/t/1%2F%2F", "/ä/ö",       "/m/t/1/$id",
              "/m/t/a+b"})
            for (const char* query : {"", "?", "?a=b&c=d", "?$fields=a,b&$expand=2", "?a=%25", "?a=%2525",
                                      "?a=%3F%2F+%2B", "?a=ä b"})
                for (const char* fragment : {"", "#", "#12-m-0xa", "#a%20b%25c", "#a%23b?", "#ä"}) {
                    const std::string url = prefix + path + query + fragment;
                    const std::string once = handler->normalizeUrl(url);
                    EXPECT_EQ(once, handler->normalizeUrl(once)) << url;
                }
}

TEST_F(ServiceHandlerTest, SplitsFragments) {
    for (const char* text :
         {"/x/#12-Media-player|Media|player", "/x/#12-Media|Media|", "/x/#12-Media-|Media|",
          "/x/#12-Media-a-b|Media|a-b", "/x/#12--a||a", "/x/#-||", "/x/#12||", "/x/||"}) {
        const Row row(text, "|");
        std::string first = "old", second = "old";
        handler->parseUriFragments(row[0], first, second);
        EXPECT_EQ(row[1] + "|" + row[2], first + "|" + second) << text;
    }
}

TEST_F(ServiceHandlerTest, SubscriptionsAreBookedAndLogged) {
    const auto number = [](const std::string& line) { return std::stoi(line.substr(line.rfind('=') + 1)); };
    const std::string tag = "booked" + nextId();  // the counters are the process's
    subscribe("/Media/other", tag);
    const int total = number(taken()[1]);
    const auto after = [&](int change) { return std::to_string(static_cast<uint16_t>(total + change)); };
    const std::string first = "/Media/tracks/#" + nextId() + "-Media-" + tag;
    EXPECT_EQ(first, subscribe("http://10.0.0.5:80/Media/tracks", tag));
    EXPECT_THAT(taken(),
                ElementsAre(ADD + ": subscriptionUri (virtual)=" + first,
                            ADD + ": subscriptionUri=" + first + ", counter=" + after(1), NO_CONNECTION));
    const std::string second = "/Media/tracks/#" + nextId() + "-Media";
    EXPECT_EQ(second, subscribe("/Media/tracks/"));
    EXPECT_THAT(taken(), ElementsAre(ADD + ": subscriptionUri=" + second + ", counter=" + after(2)));

    const std::string isFirst = ", firstSubscrUri=" + first;
    handler->removeSubscription(first);
    EXPECT_THAT(taken(), ElementsAre(REMOVE + "uri=" + first + isFirst,
                                     REMOVE + "subscriptionUri (virtual)=" + first + ", subscribers left:1",
                                     REMOVE + "subscriptionUri=" + first + ", fragment=" + tag +
                                         ", fragmentCounter=1, total counter=" + after(1)));
    handler->removeSubscription(first);
    EXPECT_THAT(taken(), ElementsAre(REMOVE + "uri=" + first + isFirst, NOT_FOUND + first));
    handler->removeSubscription("/Media/none/#1-Media");
    EXPECT_THAT(taken(), ElementsAre(REMOVE + "uri=/Media/none/#1-Media, firstSubscrUri=",
                                     NOT_FOUND + "/Media/none/#1-Media"));
    {
        LogCapture quiet(Poco::Message::PRIO_WARNING);  // the total stands still while Info is off
        subscribe("/Media/quiet");
        EXPECT_THAT(quiet.lines(), ElementsAre(NO_CONNECTION));
    }
    handler->removeSubscription(second);
    const auto lines = taken();
    EXPECT_THAT(lines, ElementsAre(REMOVE + "uri=" + second + isFirst,
                                   REMOVE + "subscriptionUri (virtual)=" + second + ", subscribers left:0",
                                   NO_CONNECTION, StartsWith(REMOVE + "subscriptionUri=" + second)));
    EXPECT_EQ(after(0), std::to_string(number(lines.back())));

    EXPECT_EQ("", subscribe("/Media/%zz"));
    handler->removeSubscription("/Media/%zz");
    EXPECT_THAT(taken(), ElementsAre(StartsWith("Error: ServiceHandler::addSubscription - exception: "),
                                     StartsWith("Error: ServiceHandler::removeSubscription - exception: ")));
}

TEST_F(ServiceHandlerTest, ExpansionNeedsAnElementAndAtMostThreeLevels) {
    for (const char* text : {"/Media/t/1?$expand=1|0", "/Media/t/1?$expand=3|0", "/Media/t/1?$expand=4|1",
                             "/Media/t/1?%24expand=5|1", "/Media/t?$expand=1|1", "/Media/t?$expand=0|0",
                             "/Media/t?$expand=x|0", "/Media/t/1|0", "/Media/t/1?$expand=4294967297|1"}) {
        const Row row(text, "|");
        EXPECT_NE("", subscribe(row[0])) << text;
        EXPECT_EQ(row[1], std::to_string(
                              log.count("Error: ServiceHandler::addSubscription: expansion level not valid "
                                        "for URI " +
                                        handler->normalizeUrl(row[0]))))
            << text;
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
    EXPECT_THAT(notified.received[0].additionalFragment, "0xa");
    EXPECT_THAT(notified.received[1].additionalFragment, "");
    EXPECT_THAT(notified.received[2].additionalFragment, "0xc-d");
    EXPECT_EQ("data", notified.received[1].type);
    EXPECT_EQ(handler.get(), notified.received[1].handler);
    EXPECT_EQ(
        3U,
        log.count("Info: virtual void Nubo::Client::ServiceHandler::WebSocketDataAvailableHandlerSync(const "
                  "Ptr&) notify subscriber " +
                  b));
    handler->removeSubscription(a);  // the first one's URI stays the one that the service knows
    notified.received.clear();
    handler->handle(message(a));
    EXPECT_THAT(notified.events(), ElementsAre(b, c));

    const std::string others[] = {R"({"type":"subscribe","event":")" + a + R"("})",
                                  message("/Media/tracks/#1-Tuner"),
                                  message("/Media/tracks/#1-media"),
                                  message("/Media/tracks/#1"),
                                  message("/Media/tracks/"),
                                  message("/?name=Media#1-Media")};
    notified.received.clear();
    for (const auto& other : others) {
        handler->handle(other);
        handler->receive(other);
    }
    sink.dispatch();
    EXPECT_THAT(notified.events(), IsEmpty());
    handler->handle(message("/Media/tracks/#1-Media-gone"));  // of a subscription that has just ended
    EXPECT_THAT(notified.events(), ElementsAre("/Media/tracks/#1-Media-gone"));
}

TEST_F(ServiceHandlerTest, FurtherSubscribersAreServedCurrentData) {
    const std::string first = subscribe("/Media/tracks");
    handler->handle(R"({"code":410,"data":{"a":[1]},"event":")" + first + R"(","type":"error"})");
    Notifications notified(handler);
    log.clear();
    const std::string second = subscribe("/Media/tracks", "0xb");
    EXPECT_EQ(ADD + " and notify with current data: subscriptionUri (virtual)=" + second, taken()[0]);
    EXPECT_THAT(notified.events(), IsEmpty());  // on the caller's thread, but not inside the call
    EXPECT_EQ(1U, sink.dispatch());
    ASSERT_THAT(notified.events(), ElementsAre(second));
    EXPECT_EQ("0xb", notified.received[0].additionalFragment);
    EXPECT_EQ(R"({"code":410,"data":{"a":[1]},"event":")" + second + R"(","type":"error"})",
              written(*notified.received[0].container));
    EXPECT_EQ(0U, count("Error: "));  // nothing was sent
    sink.refuse(true);
    EXPECT_NE("", subscribe("/Media/tracks"));
    EXPECT_EQ(1U, log.count(REFUSED));
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
    notified.received.clear();
    sink.dispatch();
    EXPECT_THAT(notified.events(), ElementsAre(late));

    bad.then = [&](const auto&) {
        for (const auto& uri : {uris[1], uris[3], late}) handler->removeSubscription(uri);
    };
    notified.received.clear();
    handler->handle(message(uris[0]));
    EXPECT_THAT(notified.events(), ElementsAre(uris[1]));
}

TEST_F(ServiceHandlerTest, RefreshMovesASubscription) {
    std::string current, id;
    handler->RefreshSubscription(current, id, "/Media/a");
    const std::string first = id;
    EXPECT_THAT(first, StartsWith("/Media/a/#"));
    handler->RefreshSubscription(current, id, "/Media/a");
    EXPECT_EQ(first, id);
    handler->RefreshSubscription(current, id, "/Media/b");
    EXPECT_EQ("/Media/b", current);
    EXPECT_THAT(id, StartsWith("/Media/b/#"));
    EXPECT_TRUE(log.contains(first + ", subscribers left:0"));
    handler->RefreshSubscription(current, id, "");
    EXPECT_EQ("", current + id);
}

TEST_F(ServiceHandlerTest, ElementHasGoneWithError410) {
    for (const char* text :
         {R"(error|{"code":410}|1)", R"(error|{"code":"410"}|1)", R"(error|{"code":404}|0)", "error|{}|0",
          R"(data|{"code":410}|0)", R"(subscribe|{"code":410}|0)"}) {
        const Row row(text, "|");
        const Notifications::Data notification{handler.get(), "", parsed(row[1]), "", row[0]};
        EXPECT_EQ(row[2] == "1", notification.hasElementGone()) << text;
    }
    const Notifications::Data empty{handler.get(), "", parsed(R"({"code":null})"), "", "error"};
    EXPECT_THROW(empty.hasElementGone(), Poco::InvalidAccessException);
}

TEST_F(ServiceHandlerTest, FollowsTheRegistrysRecords) {
    const auto record = [](const std::string& rest) { return R"([{"name":"Media",)" + rest + "}]"; };
    const std::string here = "Media (" + Nubo::ServiceRegistryConnection::ADDRESS + "):";
    const std::string kept = "Media (1.2.3.4):5", gone = "Media ():0";
    const struct {
        std::string data, expected;
        unsigned errors;
    } cases[] = {
        {record(R"("uri":"http://10.0.0.5:99/Media/","port":80)"), "Media (10.0.0.5):80", 0},
        {record(R"("uri":"/Media/","port":80)"), here + "80", 0},
        {record(R"("uri":"/Media/","port":"80")"), here + "80", 0},
        {record(R"("uri":"http://[::1]:1/Media/","port":65535)"), "Media (::1):65535", 0},
        {R"([null,7,[],{"port":1},{"name":7},{"name":"media","uri":"/","port":1},)"
         R"({"name":"Media","uri":"//x","port":2},{"name":"Media","uri":"/","port":3}])",
         here + "2", 0},
        {"[]", gone, 0},
        {R"([{"name":"Tuner","uri":"/","port":1}])", gone, 0},
        {record(R"("uri":"http://1.2.3.4/","port":5)"), kept, 0},
        {record(R"("uri":"/","port":65536)"), kept, 1},
        {record(R"("uri":"/","port":-1)"), kept, 1},
        {record(R"("uri":"/","port":"80x")"), kept, 1},
        {record(R"("uri":"/","port":"")"), kept, 1},
        {record(R"("uri":"/","port":{})"), kept, 1},
        {record(R"("uri":"/","port":null)"), kept, 1},
        {record(R"("uri":"/")"), kept, 1},
        {record(R"("uri":"http://[::1/","port":1)"), kept, 1},
        {record(R"("uri":{},"port":1)"), kept, 1},
        {record(R"("port":1)"), kept, 1},
        {"{}", kept, 0},
        {"7", kept, 0},
        {"null", kept, 0},
    };
    for (const auto& row : cases) {
        handler = make();
        handler->setNewServiceAddress("1.2.3.4", 5);
        const int before = lib.attempts;
        log.clear();
        handler->handle(message("/?name=Media#1-Media", row.data));
        EXPECT_EQ(row.expected,
                  handler->getServiceDescription() + ":" + std::to_string(handler->getServicePort()))
            << row.data;
        EXPECT_EQ(row.expected != gone, handler->isAvailable()) << row.data;
        EXPECT_EQ(before, lib.attempts) << row.data;  // a connected service keeps its connection
        EXPECT_EQ(row.errors, count(SYNC + "exception: ")) << row.data;
        if (row.expected == kept) {
            EXPECT_EQ(row.errors, log.lines().size()) << row.data;
        }
    }
    handler->handle(R"({"type":"error","event":"/#1-Media","data":[]})");
    EXPECT_TRUE(handler->isAvailable());
    handler->handle(message("/#1-Media", record(R"("uri":"/")")));
    EXPECT_THAT(taken().back(), testing::HasSubstr("Can not convert empty value."));
}

TEST_F(ServiceHandlerTest, AnEventWithoutServiceIsNobodys) {
    SRServiceHandler registry(&lib, &sink, 5000);
    registry.start();
    for (const char* event : {"/", "/#", "/#1", "/#-", "/#1-", "/?name=#1--x"}) {
        registry.WebSocketDataAvailableHandlerSync(parsed(message(event)));
        EXPECT_TRUE(registry.isAvailable()) << event;
    }
    EXPECT_EQ("ServiceRegistry", registry.getServiceDescription());
    registry.shutdown();
    EXPECT_FALSE(registry.isAvailable());
}

TEST_F(ServiceHandlerTest, FramesBecomeMessages) {
    const std::string good = message("/Media/t/#1-Media");
    std::string nested = "1";
    for (int i = 0; i < 300; ++i) nested = R"({"a":)" + nested + "}";
    const struct {
        std::string frame;
        std::size_t messages, errors, warnings;
    } cases[] = {
        {good, 1, 0, 0},
        {good + good, 2, 0, 0},
        {"\x1E" + good + " \x1E\n[" + good + "," + good + "]", 3, 0, 0},
        {"{broken json}" + good, 1, 1, 0},
        {good + message("/%zz#1-Media") + good, 2, 1, 0},
        {R"({"type":"data"})" + good, 1, 1, 0},
        {R"({"event":"/#1-Media"})" + good, 1, 1, 0},
        {R"({"type":7,"event":"/#1-Media"})" + good, 1, 1, 0},
        {R"({"type":"data","event":["/#1-Media"]})" + good, 1, 1, 0},
        {R"({"type":"data","event":null})" + good, 1, 1, 0},
        {message("/Media/t/#1-Media", nested) + good, 1, 1, 0},
        {message("/Media/t/#1-Media", "1e999") + good, 1, 1, 0},
        {good + R"({"type":"data","event)", 1, 0, 1},
        {"[1,2] }} \xFF", 0, 0, 0},
    };
    for (const auto& row : cases) {
        log.clear();
        handler->receive(row.frame);
        EXPECT_EQ(row.messages, sink.pending()) << row.frame;
        EXPECT_EQ(row.messages, log.count("Info: OnWebSocketNotification: " + good)) << row.frame;
        EXPECT_EQ(row.errors, count("Error: OnWebSocketNotification: error parsing JSON: ")) << row.frame;
        EXPECT_EQ(row.warnings, count("Warning: ")) << row.frame;
        EXPECT_EQ(row.messages + row.errors + row.warnings, log.lines().size()) << row.frame;
        sink.dispatch();
    }
    sink.refuse(true);
    log.clear();
    handler->receive(good + good);
    EXPECT_EQ(2U, log.count(REFUSED));
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

using ServiceHandlerWireTest = ClientTest;

TEST_F(ServiceHandlerWireTest, OneRequestPerResource) {
    auto handler = connect();
    const auto sent = [&](std::size_t n) {
        return eventually([&] { return media.record().requests().size() == n; });
    };
    const std::string first = handler->addSubscription("/Media/tracks?$fields=a,b", "0xa", true);
    const std::string second = handler->addSubscription("/Media/tracks?$fields=a,b", "0xb", false);
    const std::string other = handler->addSubscription("/Media/tracks/1", "", false);
    ASSERT_TRUE(sent(2));
    handler->removeSubscription(first);
    handler->removeSubscription(other);
    ASSERT_TRUE(sent(3));
    handler->removeSubscription(second);
    ASSERT_TRUE(sent(4));
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
    const auto registered = platform.registry().record().requests();
    ASSERT_EQ(1U, registered.size());
    EXPECT_THAT(registered[0].text,
                testing::MatchesRegex(R"(.*"event":"/\?name=Media#[0-9]+-Media","type":"subscribe"\})"));
}

TEST_F(ServiceHandlerWireTest, OddRegistryFramesWithdrawNothing) {
    auto handler = connect();
    Announcements announced(handler);
    for (const char* frame :
         {R"({"type":"data","event":"/","data":[]})", R"({"type":"data","event":"/#1-","data":[]})",
          "{broken}", "[]", R"({"type":"data","event":"/#1-Tuner","data":[]})"})
        EXPECT_EQ(1U, platform.registry().pushRaw(frame));
    media.withdraw();
    ASSERT_TRUE(eventually([&] { return announced.states.size() == 1; }));
    media.registerService();
    ASSERT_TRUE(eventually([&] { return announced.states.size() == 2; }));
    EXPECT_EQ(1U, platform.registry().record().upgrades());
}

TEST_F(ServiceHandlerWireTest, ClientObjectsLifecycle) {
    EXPECT_THROW(lib.addService(nullptr), Poco::NullPointerException);
    EXPECT_TRUE(lib.getServiceRegistryWebSocket().isNull());
    auto early = add();  // before startup(): starts with the registry's connection
    EXPECT_EQ(1U, log.count("Error: ServiceHandler::start - exception: Null pointer"));
    EXPECT_EQ(early, lib.getServiceHandler("Media"));
    for (const char* name : {"", "media"}) {
        EXPECT_TRUE(lib.getServiceHandler(name).isNull());
        EXPECT_EQ(1U,
                  log.count("Error: virtual Nubo::Client::ServiceHandler::Ptr Nubo::Client::ClientLib::"
                            "getServiceHandler(const string&) const: getServiceHandler returned nullptr for "
                            "service: " +
                            std::string(name)));
    }
    lib.startup();
    ASSERT_TRUE(eventually([&] { return early->isAvailable(); }));
    auto own = lib.createNewWebsocket("Media", media.address(), media.port(), 0);  // the application's
    EXPECT_EQ(2U, media.openSockets());
    lib.shutdown();
    EXPECT_FALSE(early->isAvailable());
    EXPECT_TRUE(platform.waitFor([&] { return media.openSockets() == 0; }, DEADLINE));
    log.clear();
    lib.shutdown();
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_THROW(lib.getServiceRegistryWebSocket(), Poco::NullPointerException);
    EXPECT_THROW(lib.startup(), Poco::NullPointerException);
    EXPECT_EQ(early, lib.getServiceHandler("Media"));
}

}  // namespace
