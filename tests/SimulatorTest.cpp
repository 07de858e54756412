#include <Nubo/Simulator/Platform.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/StreamCopier.h>
#include <gmock/gmock.h>

#include <future>

#include "Frames.h"
#include "RawPeer.h"

namespace {

using namespace Nubo::Simulator;
using namespace std::chrono_literals;
using Poco::Net::WebSocket;
using testing::HasSubstr;
using testing::StartsWith;

const std::string END = "0 ";  // as a frame: the end of the stream

/// A WebSocket client on POCO's own.
class Client {
public:
    explicit Client(const Endpoint& endpoint, const std::string& path = "/Media",
                    std::chrono::milliseconds timeout = DEADLINE) {
        Poco::Net::HTTPClientSession session("127.0.0.1", endpoint.port());
        session.setTimeout(std::chrono::microseconds(timeout).count());
        Poco::Net::HTTPRequest request("GET", path, "HTTP/1.1");
        Poco::Net::HTTPResponse response;
        _socket = std::make_unique<WebSocket>(session, request, response);
    }
    void send(const std::string& text, int flags = WebSocket::FRAME_TEXT) {
        _socket->sendFrame(text.data(), static_cast<int>(text.size()), flags);
    }
    void subscribe(const std::string& event) { send(R"({"event":")" + event + R"(","type":"subscribe"})"); }
    std::string frame() { return frameFrom(*_socket); }
    void expect(const std::vector<std::string>& frames) {
        for (const auto& expected : frames) EXPECT_EQ(frame(), expected);
    }

private:
    std::unique_ptr<WebSocket> _socket;
};

std::string dataFrame(const std::string& event, const std::string& json) {
    return R"(81 {"data":)" + json + R"(,"event":")" + event + R"(","type":"data"})";
}
std::string acknowledgement(const std::string& event) {
    return R"(81 {"event":")" + event + R"(","type":"subscribe"})";
}
std::string errorFrame(int code, const std::string& event) {
    return R"(81 {"code":)" + std::to_string(code) + R"(,"event":")" + event + R"(","type":"error"})";
}

class SimulatorTest : public testing::Test {
protected:
    SimulatorTest() {
        media.setElement("tracks", "1", R"({"name":"One","n":1,"album":{"uri":"/Media/albums/a"}})");
        media.setElement("tracks", "2", R"({"n":2})");
        media.setElement("albums", "a", R"({"tracks":[{"uri":"/Media/tracks/2"}]})");
    }
    /// @return status, blank, body.
    std::string http(const std::string& method, const std::string& uri, const std::string& content) {
        Poco::Net::HTTPClientSession session("127.0.0.1", media.port());
        Poco::Net::HTTPRequest request(method, uri, "HTTP/1.1");
        Poco::Net::HTTPResponse response;
        request.setContentLength(static_cast<int>(content.size()));
        session.sendRequest(request) << content << std::flush;
        std::string body;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
        return std::to_string(response.getStatus()) + " " + body;
    }
    static std::string ok(const std::string& data) { return R"(200 {"status":"ok","data":)" + data + "}"; }
    std::string get(const std::string& uri) { return http("GET", uri, ""); }

    Platform platform{0};
    Service& media = platform.addService("Media");
    const std::string two = R"({"n":2,"name":"2","uri":"/Media/tracks/2"})";
};

TEST_F(SimulatorTest, AnswersHttp) {
    const struct {
        std::string method, uri, content, answer;  // the answer's beginning
    } table[] = {
        {"GET", "/Media", "", R"(200 {"status":"ok","data":[{"name":"albums","uri":"/Media/albums/"},)"},
        {"GET", "/Media/tracks/?name=2&n=2", "", ok("[" + two + "]")},
        {"GET", "/Media/tracks?name=2&n=1", "", ok("[]")},
        {"GET", "/Media/tracks/2?%24fields=name%2Cn%2Cx", "", ok(two)},
        {"GET", "/Media/tracks/1?$expand=9", "",
         R"(200 {"status":"ok","data":{"album":{"name":"a","tracks":[)" + two},
        {"POST", "/Media/tracks", R"({"name":"2"})", "201 "},
        {"GET", "/Media/tracks/3?$fields=name", "", ok(R"({"name":"2","uri":"/Media/tracks/3"})")},
        {"GET", "/Other/tracks", "", R"(404 {"status":"error","code":404,"message":)"},
        {"PUT", "/Media/tracks/1", "[no object", "400 "},
        {"PUT", "/Media/tracks", "{}", "405 "},
    };
    for (const auto& row : table)
        EXPECT_THAT(http(row.method, row.uri, row.content), StartsWith(row.answer)) << row.uri;
    media.onHttp(Fault_t::status(503), 1);
    for (const char* status : {"503 ", "200 "}) EXPECT_THAT(get("/Media/tracks/2"), StartsWith(status));
}

TEST_F(SimulatorTest, SubscriptionsAreAcknowledgedServedAndRecorded) {
    Client client(media);
    const std::string element = "/Media/tracks/2#1-Media-\xC3\xA4 %20+";
    const std::string list = "/Media/tracks/?$fields=n&n=5#2-Media";
    for (const auto& event : {element, list, std::string("/Media/nothing")}) client.subscribe(event);
    client.expect({acknowledgement(element), dataFrame(element, two), acknowledgement(list),
                   dataFrame(list, "[]"), errorFrame(404, "/Media/nothing")});
    EXPECT_THAT(media.subscribedEvents(), testing::UnorderedElementsAre(element, list));
    EXPECT_EQ(media.liveSubscriptions("/Media/tracks"), 1U);
    EXPECT_EQ(media.liveSubscriptions("/Media/tracks/?$fields=n"), 0U);
    EXPECT_EQ(media.setElement("albums", "a", "{}"), 0U);
    EXPECT_EQ(media.changeElement("tracks", "2", R"({"n":5})"), 2U);
    EXPECT_THAT(
        (std::vector<std::string>{client.frame(), client.frame()}),
        testing::UnorderedElementsAre(dataFrame(element, R"({"n":5,"name":"2","uri":"/Media/tracks/2"})"),
                                      dataFrame(list, R"([{"n":5,"uri":"/Media/tracks/2"}])")));
    client.send(R"({"event":")" + list + R"(","type":"unsubscribe"})");
    ASSERT_TRUE(eventually([&] { return media.record().requests().size() == 4; }));
    EXPECT_EQ(media.removeElement("tracks", "2"), 1U);
    client.expect({errorFrame(410, element)});
    EXPECT_EQ(media.setElement("tracks", "2", "{}"), 0U);  // the subscription ended with the element
}

TEST_F(SimulatorTest, ReadsFragmentsAndNonsenseAndAnswersPingAndClose) {
    constexpr int FIN = WebSocket::FRAME_FLAG_FIN;
    Client client(media);
    client.send("{\"type\":\"sub", WebSocket::FRAME_OP_TEXT);
    client.send("ping", FIN | WebSocket::FRAME_OP_PING);
    client.send("scribe\",\"event\":\"/Media/%zz\"}", FIN | WebSocket::FRAME_OP_CONT);
    for (const char* text : {"nonsense", "[]", R"({"type":7,"event":"/","interval":"x"})"}) client.send(text);
    client.send("\x03\xE8why", FIN | WebSocket::FRAME_OP_CLOSE);
    client.expect({"8A ping", errorFrame(404, "/Media/%zz"), CLOSE_FRAME + "why", END});
    EXPECT_EQ(media.record().requests("").size(), 2U);
    EXPECT_EQ(media.record().requests("").at(0).text, "nonsense");
    EXPECT_EQ(media.record().requests("7").at(0).event, "/");
}

TEST_F(SimulatorTest, UpgradesMeetFaultsAndSocketsEndAsTold) {
    const std::string timeout = "Timeout";
    const std::pair<Fault_t, std::string> table[] = {
        {Fault_t::status(401), "Not authorized"},
        {Fault_t::noAnswer(), timeout},
        {Fault_t::garbage("\x01\x02garbage\n"), "HTTP"},
        {Fault_t::hangUp().after(50ms), "No message"},
        {Fault_t::reset(), "reset by peer"},
        {Fault_t::openAndEnd(Ending_t::reset()), "reset by peer"},
        {Fault_t::openAndEnd(Ending_t::endOfStream()), END},
        {Fault_t::openAndEnd(Ending_t::closeFrame(0)), "88 "},
        {Fault_t::openAndEnd(Ending_t::closeFrame(1000, "bye")), CLOSE_FRAME + "bye"},
        {Fault_t::late(50ms), acknowledgement("/Media")},
    };
    for (const auto& [fault, outcome] : table) {
        media.onUpgrade(fault, 1);
        try {
            Client client(media, "/Media", outcome == timeout ? 200ms : DEADLINE);
            if (fault.kind == Fault_t::Kind::None) client.subscribe("/Media");
            client.expect({outcome});
        } catch (const Poco::Exception& exception) {
            EXPECT_THAT(exception.displayText(), HasSubstr(outcome));
        }
    }
    EXPECT_THROW(Client(media, "/Other"), Poco::Net::WebSocketException);
    EXPECT_EQ(media.record().upgrades(), 5U);
    EXPECT_EQ(media.record().upgradeRequests().size(), std::size(table) + 1);
}

TEST_F(SimulatorTest, IntervalsAndUpdateLimitsAreHonoured) {
    Client client(media);
    const auto start = std::chrono::steady_clock::now();
    client.send(R"({"event":"/Media/tracks/2","type":"subscribe","interval":300,"updateLimit":2})");
    client.expect({acknowledgement("/Media/tracks/2")});
    for (int n = 1; n <= 20; ++n) media.changeElement("tracks", "2", R"({"n":)" + std::to_string(n) + "}");
    int updates = 1;  // the last change comes in the end
    while (client.frame().find(R"("n":20,)") == std::string::npos) ++updates;
    EXPECT_GE(updates, 3);
    EXPECT_LE(updates, 2 * ((std::chrono::steady_clock::now() - start) / 300ms + 1));
}

TEST_F(SimulatorTest, SilenceAnswersNothingUntilItEnds) {
    Client client(media);
    client.subscribe("/Media/tracks/2");
    client.expect({acknowledgement("/Media/tracks/2"), dataFrame("/Media/tracks/2", two)});
    media.goSilent();
    client.send("", WebSocket::FRAME_FLAG_FIN | WebSocket::FRAME_OP_PING);
    for (const char* change : {R"({"name":"x"})", R"({"name":"2"})"})
        EXPECT_EQ(media.changeElement("tracks", "2", change), 0U);
    EXPECT_FALSE(platform.waitFor([] { return false; }, 50ms));
    media.pushRaw("first");
    media.speak();
    client.expect({"81 first", dataFrame("/Media/tracks/2", two), "8A "});
}

TEST_F(SimulatorTest, PushesAsGivenAndDropsAPeerThatReadsNothing) {
    Client client(media);
    EXPECT_EQ(media.pushBytes(std::string("\xF1\x01!", 3)), 1U);
    client.expect({"F1 !"});
    for (const std::size_t size : {125, 126, 65535, 65536})
        EXPECT_EQ(Endpoint::encodeFrame(std::string(size, 0)), frames::text(std::string(size, 0)));
    EXPECT_EQ(media.pushRaw(std::string(32 * 1024 * 1024, 'x')), 0U);
    EXPECT_EQ(media.openSockets(), 0U);
}

TEST_F(SimulatorTest, StopsWhateverItsConnectionsAreDoingAndStartsOnTheSamePort) {
    for (const auto& fault : {Fault_t::noAnswer(), Fault_t::late(1h), Fault_t()}) {
        if (fault.kind == Fault_t::Kind::None && fault.delay == 0ms) media.goSilent();
        media.onHttp(fault, 1);
        media.clearRecord();
        auto pending = std::async(std::launch::async, [this] { return get("/Media"); });
        ASSERT_TRUE(eventually([&] { return media.record().httpRequests().size() == 1; }));
        media.stop();
        EXPECT_THROW(pending.get(), Poco::Exception);
        EXPECT_THROW(get("/Media"), Poco::Net::ConnectionRefusedException);
        media.start();
        media.start();
    }
    media.speak();
    EXPECT_EQ(get("/Media/tracks/2"), ok(two));
}

}  // namespace
