// How an application tests its own listener: against services that the test itself plays.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/Subscription.h>
#include <Nubo/Simulator/Platform.h>
#include <gtest/gtest.h>

#include <optional>

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;

namespace {

/// What is tested: shows the title of a track.
class TrackDisplay {
public:
    explicit TrackDisplay(ClientLib& client) : _listener(&client, 1) {
        _listener.addServiceToMonitor("Media", false);
        _listener.onAvailability([this](bool available) {
            if (!available) shown = "(no Media)";
        });
        _track = _listener.subscribe("/Media/tracks/0xa", [this](const Notification& data) {
            if (data.hasElementGone()) shown = "(removed)";
            if (const auto track = data.container->getObject("data"))
                shown = track->getValue<std::string>("title");
        });
        _listener.startup();
    }

    std::string shown = "(no Media)";

private:
    SubscribingListener _listener;
    Subscription _track;
};

class TrackDisplayTest : public testing::Test {
protected:
    TrackDisplayTest() {
        media.setElement("tracks", "0xa", R"({"title":"First"})");
        client.startup();
        client.addService(new ServiceHandler("Media", &client, &queue, 5000, true));
        display.emplace(client);  // now that the client knows Media
    }
    ~TrackDisplayTest() override {
        display.reset();
        client.shutdown();
    }

    static ClientLib::ClientLibParameters parameters() {
        ClientLib::ClientLibParameters made{};
        made.countConnectService_Retry = 3;
        made.delayConnectService_Retry = 10;  // milliseconds: tests are impatient
        return made;
    }
    /// Waits for what the display shall show, and no longer. The deadline is for a test that fails.
    bool shows(const std::string& text) {
        return queue.dispatchUntil([&] { return display->shown == text; }, 10s);
    }

    Platform platform;
    Service& media = platform.addService("Media");
    MessageQueue queue;
    ClientLib client{&queue, parameters()};
    std::optional<TrackDisplay> display;
};

TEST_F(TrackDisplayTest, ShowsThePresentTitleAndEachNewOne) {
    EXPECT_TRUE(shows("First"));
    media.setElement("tracks", "0xa", R"({"title":"Second"})");
    EXPECT_TRUE(shows("Second"));
}

TEST_F(TrackDisplayTest, ShowsThatTheTrackWasRemoved) {
    ASSERT_TRUE(shows("First"));
    media.removeElement("tracks", "0xa");
    EXPECT_TRUE(shows("(removed)"));
}

TEST_F(TrackDisplayTest, ShowsTheTitleAgainAfterAnOutage) {
    ASSERT_TRUE(shows("First"));
    media.stop();
    ASSERT_TRUE(shows("(no Media)"));
    media.start();
    EXPECT_TRUE(shows("First"));
}

}  // namespace
