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

class SimulatorTest : public testing::Test {
protected:
    SimulatorTest() { media.setElement("tracks", "2", R"({"n":2})"); }
    /// @return status, blank, body.
    std::string get(const std::string& uri) {
        Poco::Net::HTTPClientSession session("127.0.0.1", media.port());
        Poco::Net::HTTPRequest request("GET", uri, "HTTP/1.1");
        Poco::Net::HTTPResponse response;
        session.sendRequest(request);
        std::string body;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
        return std::to_string(response.getStatus()) + " " + body;
    }

    Platform platform{0};
    Service& media = platform.addService("Media");
    const std::string two = R"({"n":2,"name":"2","uri":"/Media/tracks/2"})";
};

TEST_F(SimulatorTest, CountsSubscriptionsAndWhomAChangeReaches) {
    Client client(media);
    const std::string element = "/Media/tracks/2#1-Media", list = "/Media/tracks/?$fields=n&n=5#2-Media";
    for (const auto& event : {element, list}) client.subscribe(event);
    client.expect(
        {acknowledgement(element), dataFrame(element, two), acknowledgement(list), dataFrame(list, "[]")});
    EXPECT_THAT(media.subscribedEvents(), testing::UnorderedElementsAre(element, list));
    EXPECT_EQ(media.liveSubscriptions("/Media/tracks"), 1U);
    EXPECT_EQ(media.liveSubscriptions("/Media/tracks/?$fields=n"), 0U);
    EXPECT_EQ(media.setElement("albums", "a", "{}"), 0U);
    EXPECT_EQ(media.changeElement("tracks", "2", R"({"n":5})"), 2U);
    client.send(R"({"event":")" + list + R"(","type":"unsubscribe"})");
    ASSERT_TRUE(eventually([&] { return media.record().requests().size() == 3; }));
    EXPECT_EQ(media.removeElement("tracks", "2"), 1U);
    EXPECT_EQ(media.setElement("tracks", "2", "{}"), 0U);  // the subscription ended with the element
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
    media.onHttp(Fault_t::status(503), 1);
    EXPECT_THAT(get("/Media"), StartsWith("503 "));
    EXPECT_EQ(get("/Media/tracks/2"), R"(200 {"status":"ok","data":)" + two + "}");
}

}  // namespace
