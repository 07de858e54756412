#include <Nubo/Client/Subscription.h>
#include <gmock/gmock.h>

#include <optional>

#include "ClientDoubles.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string THREW = "Error: SubscribingListener::HandleServiceHandlerNotification - exception: ";

class SubscriptionTest : public testing::Test {
protected:
    SubscriptionTest() {
        for (const char* name : {"a", "b"}) {
            lib.handlers[name] = new TestHandler(name, &lib, &sink, 0, true);
            listener->addServiceToMonitor(name, name[0] == 'b');
        }
    }
    ~SubscriptionTest() override { listener.reset(); }

    void set(const std::string& service, bool up) {
        handler(service).setNewServiceAddress(up ? "10.0.0.5" : "", up ? 80 : 0);
    }
    /// Starts with the service "a".
    void start() {
        listener->startup();
        set("a", true);
    }
    TestHandler& handler(const std::string& service) { return *lib.handlers.at(service).cast<TestHandler>(); }
    void notify(const std::string& uri) {
        handler("a").handle(R"({"type":"data","event":")" + uri + R"("})");
    }
    /// A function that notes its name, and does what the test wants done.
    std::function<void(const Notification&)> note(const std::string& name) {
        return [this, name](const Notification& data) {
            EXPECT_EQ("0xa", data.additionalFragment);
            notes.push_back(name);
            if (then) then();
        };
    }
    std::vector<std::string> taken() { return std::exchange(notes, {}); }

    LogCapture log;
    FakeClientLib lib;
    MessageQueue sink;
    std::vector<std::string> notes;
    std::function<void()> then;
    std::optional<SubscribingListener> listener{std::in_place, &lib, 10};
};

TEST_F(SubscriptionTest, EachNotificationGoesToItsFunctionUntilItsSubscriptionEnds) {
    start();
    Subscription x = listener->subscribe("/a/x", note("x")),
                 again = listener->subscribe("/a/x", note("again"));
    const Subscription y = listener->subscribe("a/y", note("y"), SubscribingListener::Autosubscribe::Yes);
    EXPECT_TRUE(x && again && y);
    notify(x.uri());  // the one that the service knows
    notify(y.uri());
    EXPECT_THAT(taken(), ElementsAre("x", "again", "y"));

    const std::string uri = x.uri();
    Subscription moved(std::move(x));
    EXPECT_FALSE(x);
    EXPECT_EQ("", x.uri());
    x.unsubscribe();
    x = std::move(moved);
    again = listener->subscribe("/a/x", note("new"));  // in place of the one before
    notify(uri);
    EXPECT_THAT(taken(), ElementsAre("x", "new"));
    again.unsubscribe();
    again.unsubscribe();
    x = Subscription();
    EXPECT_TRUE(log.contains("(virtual)=" + uri + ", subscribers left:0"));
    notify(uri);
    EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(SubscriptionTest, WaitsForItsService) {
    std::vector<bool> states;
    listener->onAvailability([&](bool available) { states.push_back(available); });
    const Subscription a = listener->subscribe("/a/x", note("a")), b = listener->subscribe("/b/x", note("b"));
    Subscription ended = listener->subscribe("/b/x", note("ended"));
    for (const std::string& uri : {a.uri(), b.uri(), ended.uri()}) EXPECT_EQ("", uri);
    start();
    EXPECT_NE("", a.uri());
    EXPECT_EQ("", b.uri());
    ended.unsubscribe();
    set("b", true);
    EXPECT_NE("", b.uri());
    EXPECT_EQ(1U, log.count("Info: ServiceHandler::addSubscription: subscriptionUri (virtual)=" + b.uri()));
    EXPECT_FALSE(log.contains("Error: ServiceListener"));
    const std::string kept = a.uri();
    for (const bool up : {false, true}) set("a", up);  // the handler keeps it
    EXPECT_EQ(kept, a.uri());
    EXPECT_THAT(states, ElementsAre(true, true, false, true));
}

TEST_F(SubscriptionTest, SaysWhatCannotBeSubscribedTo) {
    start();
    for (const char* bad : {"", "/", "/a/%zz", "/?a"}) {
        log.clear();
        const Subscription none = listener->subscribe(bad, note(""));
        EXPECT_FALSE(none) << bad;
        EXPECT_THAT(log.lines().back(),
                    StartsWith("Error: SubscribingListener::subscribe: no service in URI"));
    }
    lib.handlers["c"] = new TestHandler("c", &lib, &sink, 0, true);
    set("c", true);
    log.clear();
    const Subscription notMonitored = listener->subscribe("/c/x", note("")),
                       unknown = listener->subscribe("/d/x", note(""));
    EXPECT_TRUE(log.contains("subscribed to URI /c/x without having subscribed to proper service handler"));
    EXPECT_EQ("", notMonitored.uri() + unknown.uri());
    SubscribingListener lonely(nullptr, 1);
    lonely.startup();
    const Subscription waits = lonely.subscribe("/a/x", note(""));
    EXPECT_TRUE(waits);
}

TEST_F(SubscriptionTest, AFunctionMayEndSubscribeThrowAndShutDown) {
    start();
    Subscription first = listener->subscribe("/a/x", note("first")),
                 second = listener->subscribe("/a/x", note("second")), third;
    const std::string uri = first.uri();
    const std::function<void()> deeds[] = {
        [] { throw std::runtime_error("deed"); },
        [&] { third = listener->subscribe("/a/x", note("third")); },
        [&] { second.unsubscribe(); },
        [&] { first = Subscription(); },
        [&] { listener->shutdown(); },
    };
    std::vector<std::vector<std::string>> rounds;
    for (const auto& deed : deeds) {
        then = [&] { std::exchange(then, nullptr), deed(); };
        notify(uri);
        rounds.push_back(taken());
    }
    EXPECT_THAT(rounds, ElementsAre(ElementsAre("first", "second"), ElementsAre("first", "second"),
                                    ElementsAre("first", "third"), ElementsAre("first", "third"),
                                    ElementsAre("third")));
    EXPECT_EQ(1U, log.count(THREW + "deed"));
    notify(uri);
    EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(SubscriptionTest, IsMadeAgainWhenItsListenerIsStartedAgainAndOutlivesIt) {
    start();
    Subscription x = listener->subscribe("/a/x", note("x")), y = listener->subscribe("/a/y", note("y"));
    const std::string before = x.uri();
    listener->shutdown();
    EXPECT_TRUE(x);
    EXPECT_EQ("", x.uri());
    y.unsubscribe();
    listener->startup();  // with the service as it was
    notify(before);
    EXPECT_THAT(taken(), IsEmpty());
    notify(x.uri());
    EXPECT_THAT(taken(), ElementsAre("x"));

    // One that is in the hands of its own function, which goes with the listener.
    const auto own = std::make_shared<Subscription>();
    *own = listener->subscribe("/a/x", [own](const Notification&) {});
    listener.reset();
    EXPECT_EQ(1, own.use_count());
    EXPECT_FALSE(x);
    EXPECT_FALSE(*own);
    EXPECT_FALSE(log.contains("Error: ServiceListener"));
    x.unsubscribe();
}

using SubscriptionClientTest = ClientTest;

TEST_F(SubscriptionClientTest, SurvivesOutagesAndEndsAtTheService) {
    auto& climate = platform.addService("Climate");
    lib.startup();
    for (const char* name : {"Media", "Climate"}) add(name);
    SubscribingListener listener(&lib, 10);
    listener.addServiceToMonitor("Media", false);
    listener.addServiceToMonitor("Climate", true);
    std::map<std::string, std::string> shown;
    const auto show = [&](const Notification& data) {
        const auto object = data.container->getObject("data");
        shown[object->getValue<std::string>("uri")] = object->getValue<std::string>("title");
    };
    std::vector<Subscription> all;
    const std::pair<Nubo::Simulator::Service*, std::string> followed[] = {
        {&media, "/Media/tracks/1"}, {&media, "/Media/tracks/2"}, {&climate, "/Climate/zones/1"}};
    const auto change = [&](const std::string& title) {
        for (const auto& [service, uri] : followed)
            service->setElement(service == &media ? "tracks" : "zones", uri.substr(uri.size() - 1),
                                R"({"title":")" + title + R"("})");
        return eventually([&] {
            return std::all_of(std::begin(followed), std::end(followed),
                               [&](const auto& each) { return shown[each.second] == title; });
        });
    };
    for (const auto& each : followed) all.push_back(listener.subscribe(each.second, show));
    listener.startup();
    EXPECT_TRUE(change("before"));
    media.move();
    climate.stop();
    climate.start();
    EXPECT_TRUE(change("after"));
    all.pop_back();
    EXPECT_TRUE(eventually([&] { return climate.liveSubscriptions("/Climate/zones/1") == 0; }));
    listener.shutdown();
    EXPECT_TRUE(eventually([&] { return media.liveSubscriptions("/Media/tracks/1") == 0; }));
    lib.shutdown();
}

}  // namespace
