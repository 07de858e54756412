#include <Nubo/Simulator/MessageSink.h>
#include <Nubo/Simulator/Platform.h>
#include <Poco/InflatingStream.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/StreamCopier.h>
#include <gmock/gmock.h>

#include <future>
#include <sstream>
#include <thread>

namespace {

using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::WebSocket;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr auto DEADLINE = 10s;
const char* const LOCAL = "127.0.0.1";

struct Answer_t {
    int status = 0;
    std::string body;
    HTTPResponse response;
};

Answer_t http(const Endpoint& endpoint, const std::string& method, const std::string& uri,
              const std::string& content = "") {
    HTTPClientSession session(LOCAL, endpoint.port());
    session.setTimeout(Poco::Timespan(10, 0));
    HTTPRequest request(method, uri, "HTTP/1.1");
    request.setContentLength(static_cast<int>(content.size()));
    session.sendRequest(request) << content << std::flush;
    Answer_t answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(answer.response), answer.body);
    answer.status = answer.response.getStatus();
    return answer;
}

Answer_t get(const Endpoint& endpoint, const std::string& uri) {
    return http(endpoint, "GET", uri);
}

/// A WebSocket client on POCO's own.
class Client {
public:
    Client(const Endpoint& endpoint, const std::string& path,
           Poco::Timespan timeout = Poco::Timespan(10, 0)) {
        HTTPClientSession session(LOCAL, endpoint.port());
        session.setTimeout(timeout);
        HTTPRequest request("GET", path, "HTTP/1.1");
        _webSocket = std::make_unique<WebSocket>(session, request, _response);
    }

    void send(const std::string& text, int flags = WebSocket::FRAME_TEXT) {
        _webSocket->sendFrame(text.data(), static_cast<int>(text.size()), flags);
    }
    void subscribe(const std::string& event) {
        send(R"({"event":")" + event + R"(","interval":0,"type":"subscribe","updateLimit":100})");
    }

    /// The next frame as "flags payload" in hexadecimal and text; "end" at the end of the stream.
    std::string frame() {
        Poco::Buffer<char> buffer(0);
        int flags = 0;
        const int size = _webSocket->receiveFrame(buffer, flags);
        if (size == 0 && flags == 0) return "end";
        std::ostringstream text;
        text << std::hex << flags << " " << std::string(buffer.begin(), buffer.size());
        return text.str();
    }
    std::string text() {
        const std::string received = frame();
        return received.substr(0, 3) == "81 " ? received.substr(3) : "no text frame: " + received;
    }
    bool hearsNothing(Poco::Timespan time = Poco::Timespan(0, 50000)) {
        return _webSocket->available() == 0 && !_webSocket->poll(time, WebSocket::SELECT_READ);
    }
    WebSocket& socket() { return *_webSocket; }

private:
    HTTPResponse _response;
    std::unique_ptr<WebSocket> _webSocket;
};

std::string dataMessage(const std::string& event, const std::string& json) {
    return R"({"data":)" + json + R"(,"event":")" + event + R"(","type":"data"})";
}
std::string acknowledgement(const std::string& event) {
    return R"({"event":")" + event + R"(","type":"subscribe"})";
}
std::string error(int code, const std::string& event) {
    return R"({"code":)" + std::to_string(code) + R"(,"event":")" + event + R"(","type":"error"})";
}

class SimulatorTest : public testing::Test {
protected:
    SimulatorTest() {
        media.setElement("tracks", "1", R"({"name":"One","n":1,"album":{"uri":"/Media/albums/a"}})");
        media.setElement("tracks", "2", R"({"name":"Two","n":2})");
        media.setElement("albums", "a", R"({"tracks":[{"uri":"/Media/tracks/2"}]})");
    }
    template <typename Condition>
    testing::AssertionResult eventually(const Condition& condition) {
        if (platform.waitFor(condition, DEADLINE)) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not within the deadline";
    }
    std::string url(const std::string& path) {
        return "http://127.0.0.1:" + std::to_string(media.port()) + path;
    }

    Platform platform{0};
    Service& media = platform.addService("Media");
    const std::string one =
        R"({"album":{"uri":"/Media/albums/a"},"n":1,"name":"One","uri":"/Media/tracks/1"})";
    const std::string two = R"({"n":2,"name":"Two","uri":"/Media/tracks/2"})";
};

TEST_F(SimulatorTest, ServiceAnswersReads) {
    const std::string album = R"({"name":"a","tracks":[{"uri":"/Media/tracks/2"}],"uri":"/Media/albums/a"})";
    const std::string albumExpanded = R"({"name":"a","tracks":[)" + two + R"(],"uri":"/Media/albums/a"})";
    const std::string rest = R"(,"n":1,"name":"One","uri":"/Media/tracks/1"})";
    const struct {
        std::string uri, data;
    } cases[] = {
        {"/Media", R"([{"name":"albums","uri":"/Media/albums/"},{"name":"tracks","uri":"/Media/tracks/"}])"},
        {"/Media/tracks/", "[" + one + "," + two + "]"},
        {"/Media/tracks", "[" + one + "," + two + "]"},
        {"/Media/tracks/2", two},
        {"/Media/tracks/?name=Two", "[" + two + "]"},
        {"/Media/tracks/?name=Two&n=1", "[]"},
        {"/Media/tracks/?$fields=n,x",
         R"([{"n":1,"uri":"/Media/tracks/1"},{"n":2,"uri":"/Media/tracks/2"}])"},
        {"/Media/tracks/2?%24fields=name%2Cn", two},
        {"/Media/tracks/1?$expand=0", one},
        {"/Media/tracks/1?$expand=1", R"({"album":)" + album + rest},
        {"/Media/tracks/1?$expand=2", R"({"album":)" + albumExpanded + rest},
        {"/Media/tracks/1?$expand=9", R"({"album":)" + albumExpanded + rest},
    };
    for (const auto& row : cases) {
        const auto answer = get(media, row.uri);
        EXPECT_EQ(answer.status, 200) << row.uri;
        EXPECT_EQ(answer.body, R"({"status":"ok","data":)" + row.data + "}") << row.uri;
    }
    for (const auto* unknown : {"/", "/Other/tracks", "/Media/nothing/", "/Media/tracks/3"}) {
        const auto answer = get(media, unknown);
        EXPECT_EQ(answer.status, 404) << unknown;
        EXPECT_THAT(answer.body, HasSubstr(R"("status":"error","code":404,"message":)")) << unknown;
    }
}

TEST_F(SimulatorTest, RegistryListsAndRedirects) {
    platform.addService("Text", Platform::Registration::AtOnce,
                        {RecordForm_t::Uri::WithoutHost, RecordForm_t::Port::Text});
    platform.addService("Hidden", Platform::Registration::Later);
    auto& registry = platform.registry();
    const std::string mediaPort = std::to_string(media.port());
    const std::string textPort = std::to_string(platform.service("Text").port());
    const std::string record =
        R"({"name":"Media","port":)" + mediaPort + R"(,"uri":")" + url("/Media/") + R"("})";
    const std::string text = R"({"name":"Text","port":")" + textPort + R"(","uri":"/Text/"})";
    const auto ok = [](const std::string& data) { return R"({"status":"ok","data":[)" + data + "]}"; };
    EXPECT_EQ(get(registry, "/").body, ok(record + "," + text));
    EXPECT_EQ(get(registry, "/?name=Text").body, ok(text));
    EXPECT_EQ(get(registry, "/?name=Hidden").body, ok(""));

    const auto multiple = get(registry, "/Media/tracks/?name=Two");
    EXPECT_EQ(multiple.status, 300);
    EXPECT_EQ(multiple.body, ok(R"({"hostAddress":")" + url("/Media/tracks/?name=Two") + R"("})"));
    EXPECT_THAT(get(registry, "/Text/x").body, HasSubstr("http://127.0.0.1:" + textPort + "/Text/x"));
    registry.setRedirect(Registry::Redirect::Temporary);
    const auto temporary = get(registry, "/Media/tracks/");
    EXPECT_EQ(temporary.status, 307);
    EXPECT_EQ(temporary.response.get("Location"), url("/Media/tracks/"));
    EXPECT_EQ(get(registry, "/Hidden/tracks/").status, 404);
}

TEST_F(SimulatorTest, ChangesOverHttpArePushed) {
    Client client(media, "/Media");
    client.subscribe("/Media/tracks/#1-Media");
    EXPECT_EQ(client.text(), acknowledgement("/Media/tracks/#1-Media"));
    client.text();
    const struct {
        std::string method, uri, content;
        int status;
        std::string data;  // of the answer; empty: no change
        std::size_t elements;
    } cases[] = {
        {"PUT", "/Media/tracks/2", R"({"n":3})", 200, R"({"n":3,"name":"Two","uri":"/Media/tracks/2"})", 2},
        {"POST", "/Media/tracks", R"({"name":"x"})", 201, R"({"name":"x","uri":"/Media/tracks/x"})", 3},
        {"POST", "/Media/tracks", R"({"name":"x"})", 201, R"({"name":"x","uri":"/Media/tracks/3"})", 4},
        {"DELETE", "/Media/tracks/2", "", 200, "{}", 3},
        {"PUT", "/Media/tracks/2", R"({"n":3})", 404, "", 0},
        {"PUT", "/Media/tracks", R"({"n":3})", 405, "", 0},
        {"PUT", "/Media/tracks/1", "[no object", 400, "", 0},
        {"DELETE", "/Media/tracks", "", 405, "", 0},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.method + " " + row.uri);
        const auto answer = http(media, row.method, row.uri, row.content);
        EXPECT_EQ(answer.status, row.status);
        if (row.data.empty()) continue;
        EXPECT_EQ(answer.body, R"({"status":"ok","data":)" + row.data + "}");
        const auto list = Poco::JSON::Parser().parse(client.text()).extract<Poco::JSON::Object::Ptr>();
        EXPECT_EQ(list->getArray("data")->size(), row.elements);
    }
    EXPECT_TRUE(client.hearsNothing());
    EXPECT_EQ(media.record().httpRequests().at(0).body, R"({"n":3})");
}

TEST_F(SimulatorTest, SubscriptionsAreAcknowledgedServedAndRecorded) {
    Client client(media, "/Media");
    const std::string element = "/Media/tracks/2#1-Media-\xC3\xA4 %20+";
    const std::string list = "/Media/tracks/?$fields=n#2-Media";
    client.subscribe(element);
    EXPECT_EQ(client.text(), acknowledgement(element));
    EXPECT_EQ(client.text(), dataMessage(element, two));
    client.subscribe(list);
    EXPECT_EQ(client.text(), acknowledgement(list));
    EXPECT_THAT(client.text(), HasSubstr(R"("data":[{"n":1)"));
    client.subscribe("/Media/nothing/#3-Media");
    EXPECT_EQ(client.text(), error(404, "/Media/nothing/#3-Media"));
    EXPECT_THAT(media.subscribedEvents(), testing::UnorderedElementsAre(element, list));

    EXPECT_EQ(media.setElement("tracks", "2", R"({"n":5})"), 2U);
    EXPECT_THAT(
        (std::vector<std::string>{client.text(), client.text()}),
        testing::UnorderedElementsAre(
            dataMessage(element, R"({"n":5,"name":"2","uri":"/Media/tracks/2"})"),
            dataMessage(list, R"([{"n":1,"uri":"/Media/tracks/1"},{"n":5,"uri":"/Media/tracks/2"}])")));
    EXPECT_EQ(media.setElement("albums", "a", "{}"), 0U);

    client.send(R"({"event":")" + list + R"(","type":"unsubscribe","autosubscribe":true})");
    ASSERT_TRUE(eventually([&] { return media.record().requests("unsubscribe").size() == 1; }));
    EXPECT_EQ(media.removeElement("tracks", "2"), 1U);
    EXPECT_EQ(client.text(), error(410, element));
    EXPECT_EQ(media.setElement("tracks", "2", "{}"), 0U);  // the subscription ended with the element

    const auto requests = media.record().requests();
    ASSERT_EQ(requests.size(), 4U);
    EXPECT_EQ(requests[0].event, element);
    EXPECT_EQ(requests[0].interval.value_or(-1), 0);
    EXPECT_EQ(requests[0].updateLimit.value_or(-1), 100);
    EXPECT_FALSE(requests[0].autosubscribe);
    EXPECT_TRUE(requests[3].autosubscribe);
    EXPECT_FALSE(requests[3].interval.has_value());
    EXPECT_EQ(requests[3].socket, 1U);
}

TEST_F(SimulatorTest, RecordsMessagesInFragmentsAndWithoutSense) {
    Client client(media, "/Media");
    client.send("{\"type\":\"sub", WebSocket::FRAME_OP_TEXT);
    client.send("", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
    client.send("scribe\",\"event\":\"/Media/%zz\"}", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_CONT);
    for (const auto* text : {"nonsense", "[]", "{}", R"({"type":7,"event":"/","interval":"x"})"})
        client.send(text);
    EXPECT_EQ(client.frame(), "8a ");
    EXPECT_EQ(client.text(), error(404, "/Media/%zz"));
    ASSERT_TRUE(eventually([&] { return media.record().requests().size() == 5; }));
    EXPECT_EQ(media.record().requests("").size(), 3U);
    EXPECT_EQ(media.record().requests("7").at(0).event, "/");
    EXPECT_EQ(media.record().requests("").at(0).text, "nonsense");
}

TEST_F(SimulatorTest, RegistryPushesRecordsByName) {
    auto& registry = platform.registry();
    Client client(registry, "/");
    client.subscribe("/?name=Tuner#11-Tuner");
    EXPECT_EQ(client.text(), acknowledgement("/?name=Tuner#11-Tuner"));
    EXPECT_EQ(client.text(), dataMessage("/?name=Tuner#11-Tuner", "[]"));
    auto& tuner = platform.addService("Tuner");
    EXPECT_THAT(client.text(), HasSubstr(R"("port":)" + std::to_string(tuner.port())));
    media.withdraw();
    const auto before = tuner.port();
    tuner.move();
    EXPECT_NE(tuner.port(), before);
    EXPECT_THAT(client.text(), HasSubstr(R"("port":)" + std::to_string(tuner.port())));
    EXPECT_EQ(get(tuner, "/Tuner").status, 200);
    tuner.withdraw();
    EXPECT_EQ(client.text(), dataMessage("/?name=Tuner#11-Tuner", "[]"));
    registry.put("Tuner", R"({"name":"Tuner","port":70000})");
    EXPECT_EQ(client.text(), dataMessage("/?name=Tuner#11-Tuner", R"([{"name":"Tuner","port":70000}])"));
    EXPECT_TRUE(client.hearsNothing());
}

TEST_F(SimulatorTest, SocketsEndAsTold) {
    const struct {
        Ending_t ending;
        const char* frame;
    } cases[] = {
        {Ending_t::closeFrame(1001, "bye"),
         "88 \x03\xE9"
         "bye"},
        {Ending_t::closeFrame(0), "88 "},
        {Ending_t::endOfStream(), "end"},
        {Ending_t::reset(), "reset"},
    };
    for (const auto& row : cases) {
        for (const bool atOnce : {false, true}) {
            SCOPED_TRACE(std::string(row.frame) + (atOnce ? " at once" : ""));
            if (atOnce) media.onUpgrade(Fault_t::openAndEnd(row.ending), 1);
            std::string seen;
            try {
                Client client(media, "/Media");
                if (!atOnce) {
                    ASSERT_TRUE(eventually([&] { return media.openSockets() == 1; }));
                    EXPECT_EQ(media.dropSockets(row.ending), 1U);
                }
                seen = client.frame();
                EXPECT_TRUE(eventually([&] { return media.openSockets() == 0; }));
            } catch (const Poco::Net::ConnectionResetException&) {
                seen = "reset";
            }
            EXPECT_EQ(seen, row.frame);
        }
    }
    EXPECT_EQ(media.record().upgrades(), 8U);
}

TEST_F(SimulatorTest, ClientMayCloseAndPing) {
    Client client(media, "/Media");
    client.send("hello", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
    EXPECT_EQ(client.frame(), "8a hello");
    client.socket().shutdown(1000, "done");
    EXPECT_EQ(client.frame(),
              "88 \x03\xE8"
              "done");
    EXPECT_EQ(client.frame(), "end");
    EXPECT_TRUE(eventually([&] { return media.openSockets() == 0; }));
}

TEST_F(SimulatorTest, UpgradesMeetFaults) {
    const struct {
        Fault_t fault;
        const char* outcome;
    } cases[] = {
        {Fault_t::status(401), "Not authorized"},
        {Fault_t::status(403), "Forbidden"},
        {Fault_t::status(503), "Service Unavailable"},
        {Fault_t::redirect(302, url("/x")), "Found"},
        {Fault_t::noAnswer(), "Timeout"},
        {Fault_t::garbage("\x01\x02garbage\n"), "HTTP"},
        {Fault_t::hangUp(), "No message"},
        {Fault_t::hangUp().after(50ms), "No message"},
        {Fault_t::reset(), "reset by peer"},
        {Fault_t::dripping(1ms), ""},
        {Fault_t::late(50ms), ""},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.outcome);
        media.onUpgrade(row.fault, 1);
        std::string outcome;
        try {
            Client client(media, "/Media", Poco::Timespan(0, 500000));
            client.subscribe("/Media/tracks/2");
            EXPECT_EQ(client.text(), acknowledgement("/Media/tracks/2"));
        } catch (const Poco::Exception& exception) {
            outcome = exception.displayText();
        }
        EXPECT_THAT(outcome, HasSubstr(row.outcome));
        EXPECT_EQ(outcome.empty(), *row.outcome == '\0') << outcome;
    }
    EXPECT_THROW(Client(media, "/Other"), Poco::Net::WebSocketException);
    Client healthy(media, "/Media");
    EXPECT_EQ(media.record().upgrades(), 3U);
    EXPECT_EQ(media.record().upgradeRequests().size(), std::size(cases) + 2);
    EXPECT_EQ(media.record().upgradeRequests().back().uri, "/Media");
}

TEST_F(SimulatorTest, HttpMeetsFaults) {
    media.onHttp("/Media/loop", Fault_t::redirect(307, url("/Media/loop")));
    EXPECT_EQ(get(media, "/Media/loop").response.get("Location"), url("/Media/loop"));
    media.onHttp("", Fault_t::status(503), 1);
    EXPECT_EQ(get(media, "/Media/tracks/2?$fields=n").status, 503);
    EXPECT_EQ(get(media, "/Media/tracks/2").status, 200);

    HttpAnswer_t shortened;
    shortened.body = "{\"cut\":";
    shortened.headers = {{"Content-Length", "100"}};
    media.onHttp("/Media/cut", Fault_t::answering(shortened));
    const auto cut = get(media, "/Media/cut");
    EXPECT_EQ(cut.response.getContentLength(), 100);
    EXPECT_EQ(cut.body, shortened.body);

    media.onHttp("/Media/zip", Fault_t::answering(HttpAnswer_t::gzip("{\"zip\":1}")));
    const auto zip = get(media, "/Media/zip");
    std::istringstream compressed(zip.body);
    Poco::InflatingInputStream inflater(compressed, Poco::InflatingStreamBuf::STREAM_GZIP);
    std::string unzipped;
    Poco::StreamCopier::copyToString(inflater, unzipped);
    EXPECT_EQ(unzipped, "{\"zip\":1}");
    EXPECT_EQ(zip.response.get("Content-Encoding"), "gzip");

    media.onHttp("/Media/hangup", Fault_t::hangUp());
    EXPECT_THROW(get(media, "/Media/hangup"), Poco::Net::NoMessageException);
    media.onHttp("/Media/tracks", Fault_t::dripping(1ms));
    EXPECT_EQ(get(media, "/Media/tracks?n=2").body, R"({"status":"ok","data":[)" + two + "]}");
    media.clearFaults();
    EXPECT_EQ(get(media, "/Media/hangup").status, 404);
}

// A subscription with limits next to one without.
TEST_F(SimulatorTest, IntervalsAndUpdateLimitsAreHonoured) {
    constexpr auto INTERVAL = 300ms;
    constexpr int LIMIT = 2, CHANGES = 20;
    Client limited(media, "/Media");
    Client unlimited(media, "/Media");
    const auto start = std::chrono::steady_clock::now();
    limited.send(R"({"event":"/Media/tracks/2#l","type":"subscribe","interval":300,"updateLimit":2})");
    unlimited.subscribe("/Media/tracks/2#u");
    ASSERT_TRUE(eventually([&] { return media.liveSubscriptions("/Media/tracks/2") == 2; }));
    const auto changed = [](int n) { return R"({"n":)" + std::to_string(n) + "}"; };
    for (int n = 1; n <= CHANGES; ++n) media.changeElement("tracks", "2", changed(n));

    EXPECT_EQ(unlimited.text(), acknowledgement("/Media/tracks/2#u"));
    EXPECT_EQ(unlimited.text(), dataMessage("/Media/tracks/2#u", two));
    for (int n = 1; n <= CHANGES; ++n)
        EXPECT_THAT(unlimited.text(), HasSubstr(R"("n":)" + std::to_string(n) + ","));
    EXPECT_EQ(limited.text(), acknowledgement("/Media/tracks/2#l"));
    int updates = 1;
    while (limited.text().find(R"("n":20,)") == std::string::npos)
        ++updates;  // the last one comes in the end
    const auto intervals = (std::chrono::steady_clock::now() - start) / INTERVAL + 1;
    EXPECT_GE(updates, LIMIT + 1);
    EXPECT_LE(updates, LIMIT * intervals);
    EXPECT_GE(intervals, 2);
}

TEST_F(SimulatorTest, SilenceAnswersNothingUntilItEnds) {
    Client client(media, "/Media");
    client.subscribe("/Media/tracks/2");
    client.text();
    client.text();
    media.goSilent();
    client.send("", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
    EXPECT_EQ(media.setElement("tracks", "2", R"({"n":6})"), 0U);
    EXPECT_EQ(media.setElement("tracks", "2", R"({"n":7})"), 0U);
    auto answer = std::async(std::launch::async, [&] { return get(media, "/Media/tracks/2").status; });
    EXPECT_TRUE(client.hearsNothing());
    EXPECT_EQ(answer.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(media.openSockets(), 1U);
    media.speak();
    EXPECT_EQ(client.text(), dataMessage("/Media/tracks/2", R"({"n":7,"name":"2","uri":"/Media/tracks/2"})"));
    EXPECT_EQ(client.frame(), "8a ");
    EXPECT_EQ(answer.get(), 200);
}

TEST_F(SimulatorTest, PushesAsGiven) {
    media.glue(Endpoint::encodeFrame("glued"));
    Client subscriber(media, "/Media");
    EXPECT_EQ(subscriber.text(), "glued");
    media.glue("");
    Client other(media, "/Media");
    subscriber.subscribe("/Media/tracks/#1");
    subscriber.text();
    subscriber.text();
    EXPECT_EQ(media.pushRaw("{}\x1E{}", "/Media/tracks"), 1U);
    EXPECT_EQ(subscriber.text(), "{}\x1E{}");
    EXPECT_EQ(media.pushRaw("{}", "/Media/tracks?n=1"), 0U);
    ASSERT_TRUE(eventually([&] { return media.openSockets() == 2; }));
    EXPECT_EQ(media.pushFragments({"a", "b", "c"}), 2U);
    EXPECT_EQ(media.pushBytes(std::string("\xF1\x01!", 3)), 2U);
    for (auto* client : {&subscriber, &other})
        for (const auto* frame : {"1 a", "0 b", "80 c", "f1 !"}) EXPECT_EQ(client->frame(), frame);
    for (const std::size_t size : {0U, 125U, 126U, 65535U, 65536U}) {
        media.pushRaw(std::string(size, 'x'));
        EXPECT_EQ(other.text().size(), size);
    }
}

TEST_F(SimulatorTest, RestartsOnTheSamePortAtOnce) {
    const auto port = media.port();
    for (int round = 0; round < 30; ++round) {
        Client client(media, "/Media");
        client.subscribe("/Media/tracks/2");
        client.text();
        media.stop();
        EXPECT_THROW(get(media, "/Media"), Poco::Net::ConnectionRefusedException);
        EXPECT_EQ(media.openSockets(), 0U);
        media.start();
        media.start();
        EXPECT_EQ(media.port(), port);
        EXPECT_EQ(get(media, "/Media/tracks/2").status, 200);
    }
    platform.stopRegistry();
    platform.startRegistry();
    EXPECT_EQ(get(platform.registry(), "/?name=Media").status, 200);
}

TEST_F(SimulatorTest, PeerThatReadsNothingLosesItsSocketAndHoldsNobodyUp) {
    Client deaf(media, "/Media");
    ASSERT_TRUE(eventually([&] { return media.openSockets() == 1; }));
    const std::string much(32 * 1024 * 1024, 'x');
    EXPECT_EQ(media.pushRaw(much), 0U);
    EXPECT_EQ(media.openSockets(), 0U);

    Client another(media, "/Media");
    ASSERT_TRUE(eventually([&] { return media.openSockets() == 1; }));
    auto push = std::async(std::launch::async, [&] { return media.pushRaw(much); });
    media.stop();
    EXPECT_EQ(push.get(), 0U);
}

TEST_F(SimulatorTest, StopsWhateverItsConnectionsAreDoing) {
    const auto request = [this] {
        try {
            get(media, "/Media/tracks/2");
        } catch (const Poco::Exception&) {
        }
    };
    for (const auto& fault : {Fault_t::noAnswer(), Fault_t::late(1h), Fault_t::dripping(1h)}) {
        media.onHttp("", fault, 1);
        const auto seen = media.record().httpRequests().size();
        auto pending = std::async(std::launch::async, request);
        ASSERT_TRUE(eventually([&] { return media.record().httpRequests().size() == seen + 1; }));
        media.stop();
        pending.get();
        media.start();
    }
    media.goSilent();
    auto pending = std::async(std::launch::async, request);
    ASSERT_TRUE(eventually([&] { return media.record().httpRequests().size() == 4; }));
    media.stop();
}

TEST_F(SimulatorTest, ServesManySocketsAndSubscriptions) {
    constexpr int COUNT = 200;
    auto& registry = platform.registry();
    Client client(registry, "/");
    std::vector<std::unique_ptr<Client>> clients;
    for (int number = 0; number < COUNT; ++number) {
        const std::string name = "Service" + std::to_string(number);
        client.subscribe("/?name=" + name + "#1-" + name);
        client.text();
        client.text();
        auto& service = platform.addService(name);
        EXPECT_THAT(client.text(), HasSubstr(name));
        service.setElement("r", "e", "{}");
        clients.push_back(std::make_unique<Client>(service, "/" + name));
        clients.back()->subscribe("/" + name + "/r/e");
        clients.back()->text();
        clients.back()->text();
    }
    EXPECT_EQ(registry.liveSubscriptions("/"), static_cast<std::size_t>(COUNT));
    EXPECT_EQ(registry.liveSubscriptions("/?name=Service7"), 1U);
    for (int number = 0; number < COUNT; ++number) {
        EXPECT_EQ(platform.service("Service" + std::to_string(number)).setElement("r", "e", "{}"), 1U);
        EXPECT_THAT(clients[static_cast<std::size_t>(number)]->text(), HasSubstr("data"));
    }
}

TEST(PlatformTest, NamesThePortThatIsTaken) {
    const Platform first;
    const auto port = std::to_string(Nubo::ServiceRegistryConnection::PORT);
    try {
        const Platform second;
        FAIL() << "two registries on one port";
    } catch (const Poco::Net::NetException& exception) {
        EXPECT_EQ(exception.message(), "port " + port + " of 127.0.0.1 is taken");
    }
}

TEST(PlatformTest, RefusesUnknownAndRepeatedServices) {
    Platform platform(0);
    platform.addService("Media");
    EXPECT_THROW(platform.addService("Media"), Poco::ExistsException);
    EXPECT_THROW(platform.service("Other"), Poco::NotFoundException);
    EXPECT_FALSE(platform.waitFor([] { return false; }, 1ms));
}

/// Writes what happens to it into a log.
class LoggedMessage : public Nubo::Util::DataMessageBase {
public:
    using Action = std::function<void()>;
    LoggedMessage(
        std::vector<std::string>& log, const std::string& name, Action action = [] {})
        : _log(log), _name(name), _action(std::move(action)) {}
    void processData() override {
        _log.push_back(_name);
        _action();
    }

private:
    ~LoggedMessage() override { _log.push_back("~" + _name); }

    std::vector<std::string>& _log;
    const std::string _name;
    const Action _action;
};

TEST(MessageSinkTest, RunsWhatIsQueuedOnceInOrderAndReleasesEveryMessage) {
    std::vector<std::string> log;
    {
        MessageSink sink;
        sink.enqueueDataMessage(
            new LoggedMessage(log, "a", [&] { sink.enqueueDataMessage(new LoggedMessage(log, "late")); }));
        sink.enqueueDataMessage(new LoggedMessage(log, "b", [] { throw Poco::RuntimeException("b"); }));
        EXPECT_THROW(sink.dispatch(), Poco::RuntimeException);
        EXPECT_THAT(log, ElementsAre("a", "~a", "b", "~b"));
        EXPECT_EQ(sink.dispatch(), 1U);
        sink.refuse(true);
        EXPECT_FALSE(sink.enqueueDataMessage(new LoggedMessage(log, "refused")));
        sink.refuse(false);
        EXPECT_TRUE(sink.enqueueDataMessage(new LoggedMessage(log, "left")));
        EXPECT_EQ(sink.pending(), 1U);
    }
    EXPECT_THAT(log, ElementsAre("a", "~a", "b", "~b", "late", "~late", "~refused", "~left"));
}

TEST(MessageSinkTest, WaitsUntilDoneOrDeadline) {
    std::vector<std::string> log;
    MessageSink sink;
    EXPECT_FALSE(sink.dispatchUntil([] { return false; }, 20ms));
    EXPECT_TRUE(sink.dispatchUntil([] { return true; }, 0ms));
    std::thread poster([&] {
        for (int count = 0; count < 100; ++count) sink.enqueueDataMessage(new LoggedMessage(log, "x"));
    });
    EXPECT_TRUE(sink.dispatchUntil([&] { return log.size() == 200; }, DEADLINE));
    poster.join();
}

}  // namespace
