#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/MessageSink.h>
#include <gmock/gmock.h>

#include "ClientDoubles.h"
#include "LogCapture.h"

namespace {

using namespace Nubo::Client;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string ADD =
    "Warning: void Nubo::Client::ServiceListener::addServiceToMonitor(const string&, bool)";
const std::string CHANGED =
    "Error: ServiceListener::HandleMicroServiceRegistrationChangedInternal - exception: ";
const std::string STARTUP = "Error: ServiceListener::startup - ServiceListener 0xa ";
const std::string SUBSCRIBE = "Error: ServiceListener::addSubscription: ServiceListener 0xa ";
const std::string ALL = "Info: All micro services became available, fctID: 0xa";

std::string missing(const std::string& service) {
    return "Debug: void Nubo::Client::ServiceListener::HandleMicroServiceRegistrationChangedInternal(const "
           "Nubo::Client::ServiceHandler::ServiceRegistrationEventData_t&): 0xa: service not available " +
           service;
}

class TestListener : public ServiceListener {
public:
    using ServiceListener::ServiceListener;
    void HandleMicroServicesAvailable(bool available) override {
        states.push_back(available);
        if (onState) onState(available);
    }
    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        events.push_back(data.event);
        if (onNotification) onNotification();
    }
    std::string subscribe(const std::string& uri) { return addSubscription(uri, "", 0, "", false); }

    std::vector<bool> states;
    std::vector<std::string> events;
    std::function<void(bool)> onState;
    std::function<void()> onNotification;
};

class ServiceListenerTest : public testing::Test {
protected:
    TestHandler::Ptr add(const std::string& name, bool up = false) {
        TestHandler::Ptr handler = new TestHandler(name, &lib, &sink, 0, true);
        lib.handlers[name] = handler;
        if (up) set(handler, true);
        return handler;
    }
    static void set(TestHandler::Ptr handler, bool up) {
        handler->setNewServiceAddress(up ? "10.0.0.5" : "", up ? 80 : 0);
    }
    static void notify(TestHandler::Ptr handler, const std::string& uri) {
        handler->handle(R"({"type":"data","event":")" + uri + R"("})");
    }
    /// The listener's own lines since the last call.
    std::vector<std::string> taken() {
        std::vector<std::string> own;
        for (const auto& line : log.lines())
            if (line.find("ServiceListener") != std::string::npos ||
                line.find(" micro service") != std::string::npos)
                own.push_back(line);
        log.clear();
        return own;
    }

    LogCapture log;
    FakeClientLib lib;
    Nubo::Simulator::MessageSink sink;
    TestListener listener{&lib, 10};
};

TEST_F(ServiceListenerTest, IdInLowerCaseHexadecimal) {
    const std::pair<uint16_t, const char*> cases[] = {
        {0, "0x0"}, {10, "0xa"}, {0x1AB, "0x1ab"}, {65535, "0xffff"}};
    for (const auto& [id, text] : cases) {
        EXPECT_EQ(id, ServiceListener(nullptr, id).getUniqueId());
        EXPECT_EQ(text, ServiceListener(nullptr, id).getUniqueIdAsHexString());
    }
}

TEST_F(ServiceListenerTest, ReportsWhatIsThereAtStartup) {
    using L = ServiceListener;
    const struct {
        std::string services;  // upper case: available; in brackets: optional
        std::vector<bool> reports;
        L::NotificationStates state;
    } cases[] = {{"A B", {true}, L::Available},
                 {"A b", {false}, L::Unavailable},  // the last by name speaks for all
                 {"a B", {}, L::Unknown},
                 {"a b", {}, L::Unknown},
                 {"A (b)", {true}, L::Unknown},
                 {"(a) B", {true}, L::Available},
                 {"(A) b", {false}, L::Unavailable},
                 {"(a) (b)", {}, L::Unknown}};
    for (const auto& row : cases) {
        TestListener other(&lib, 10);
        std::istringstream names(row.services);
        for (std::string name; names >> name;) {
            const bool optional = name[0] == '(';
            const char letter = name[optional ? 1 : 0];
            const std::string service(1, static_cast<char>(std::tolower(letter)));
            add(service, std::isupper(letter) != 0);
            other.addServiceToMonitor(service, optional);
        }
        other.startup();
        EXPECT_EQ(row.reports, other.states) << row.services;
        EXPECT_EQ(row.state, other.getLastNotificationState()) << row.services;
        other.shutdown();
    }
}

TEST_F(ServiceListenerTest, ReportsChangesOfTheSet) {
    auto a = add("a"), b = add("b"), o = add("o");
    listener.addServiceToMonitor("b", false);
    listener.addServiceToMonitor("a", false);
    listener.addServiceToMonitor("a", true);  // the first flag stays
    listener.addServiceToMonitor("o", true);
    listener.startup();
    EXPECT_THAT(taken(), ElementsAre(missing("a"), missing("b")));
    EXPECT_THAT(listener.states, IsEmpty());
    set(a, true);
    EXPECT_THAT(taken(), ElementsAre(missing("b")));
    set(b, true);
    EXPECT_THAT(taken(), ElementsAre(ALL));
    listener.HandleMicroServiceRegistrationChangedInternal({b.get()});  // nothing changed
    EXPECT_THAT(taken(), IsEmpty());
    set(o, true);
    EXPECT_THAT(taken(), ElementsAre(ALL));
    set(o, false);
    EXPECT_THAT(taken(), ElementsAre("Info: Optional micro service o became unavailable, fctId:0xa"));
    EXPECT_EQ(ServiceListener::Available, listener.getLastNotificationState());
    set(b, false);
    EXPECT_THAT(taken(), ElementsAre(missing("b"),
                                     "Info: At least one micro service (b) became unavailable, fctId:0xa"));
    EXPECT_EQ(ServiceListener::Unavailable, listener.getLastNotificationState());
    set(a, false);  // told already
    EXPECT_THAT(taken(), ElementsAre(missing("a"), missing("b")));
    set(o, true);
    set(o, false);  // while a mandatory one is missing
    set(b, true);
    EXPECT_THAT(listener.states, ElementsAre(true, true, true, false));
    set(a, true);
    EXPECT_EQ(ALL, taken().back());
    auto stranger = add("stranger");  // not monitored: counts as mandatory, but has no bit
    listener.HandleMicroServiceRegistrationChangedInternal({stranger.get()});
    EXPECT_THAT(listener.states, ElementsAre(true, true, true, false, true));
}

TEST_F(ServiceListenerTest, OnlySixteenServicesHaveABit) {
    std::vector<TestHandler::Ptr> handlers;
    for (char name = 'a'; name < 'a' + 18; ++name) {
        handlers.push_back(add(std::string(1, name)));
        listener.addServiceToMonitor(std::string(1, name), name < 'q');
    }
    listener.startup();
    set(handlers[17], true);
    set(handlers[16], true);  // all mandatory ones, but none that counts
    EXPECT_THAT(listener.states, IsEmpty());
    set(handlers[15], true);
    EXPECT_THAT(listener.states, ElementsAre(true));
    set(handlers[16], false);
    EXPECT_THAT(listener.states, ElementsAre(true));
    set(handlers[15], false);  // seen, but a mandatory one is missing
    set(handlers[16], true);
    set(handlers[0], true);
    EXPECT_THAT(listener.states, ElementsAre(true, true));
}

TEST_F(ServiceListenerTest, UnknownServicesAndLateOnes) {
    listener.addServiceToMonitor("none", false);
    EXPECT_THAT(taken(), ElementsAre(ADD + ": service handler not found for service none"));
    listener.startup();
    EXPECT_THAT(taken(), ElementsAre(STARTUP + "does not listen to any service handler"));
    auto late = add("late", true);
    listener.addServiceToMonitor("late", false);
    EXPECT_THAT(taken(),
                ElementsAre(ADD + " should not be called after a service listener has already been started. "
                                  "This may result in inconsistent service data!"));
    set(late, false);
    set(late, true);
    EXPECT_THAT(listener.states, IsEmpty());  // heard after a restart only
    listener.shutdown();
    add("closed");
    listener.addServiceToMonitor("closed", false);  // a closed listener takes none
    listener.startup();
    EXPECT_THAT(listener.states, ElementsAre(true));

    taken();
    lib.handlers.clear();
    listener.HandleMicroServiceRegistrationChangedInternal({late.get()});
    EXPECT_THAT(taken(), ElementsAre(CHANGED + "Null pointer"));
    listener.shutdown();
    EXPECT_THAT(taken(), IsEmpty());
    listener.startup();
    EXPECT_THAT(taken(), ElementsAre(STARTUP + "- exception: Null pointer"));
}

TEST_F(ServiceListenerTest, StartedTwiceItHearsOnce) {
    auto a = add("a");
    listener.addServiceToMonitor("a", false);
    for (int i = 0; i < 2; ++i) listener.startup();
    set(a, true);
    const std::string uri = listener.subscribe("/a/x");
    notify(a, uri);
    EXPECT_THAT(listener.events, ElementsAre(uri));
    for (int i = 0; i < 2; ++i) listener.shutdown();
    set(a, false);
    set(a, true);
    listener.startup();  // the mask is kept: nothing new
    EXPECT_THAT(listener.states, ElementsAre(true));
}

TEST_F(ServiceListenerTest, CallbacksMayThrowSubscribeAndShutDown) {
    auto a = add("a");
    listener.addServiceToMonitor("a", false);
    listener.startup();
    listener.onState = [](bool up) {
        if (up) throw Poco::RuntimeException("callback");
        throw 1;
    };
    set(a, true);
    set(a, false);
    EXPECT_EQ(1U, log.count(CHANGED + "Runtime exception: callback"));
    std::string uri;
    listener.onState = [&](bool) { uri = listener.subscribe("/a/x"); };
    set(a, true);
    listener.onNotification = [] { throw Poco::RuntimeException("notification"); };
    notify(a, uri);
    EXPECT_EQ(1U, log.count("Error: ServiceListener::HandleServiceHandlerNotificationInternal - exception: "
                            "Runtime exception: notification"));
    listener.onNotification = [] { throw 1; };
    notify(a, uri);
    EXPECT_FALSE(log.contains("unknown exception"));
    listener.onNotification = [&] { listener.shutdown(); };
    for (int i = 0; i < 2; ++i) notify(a, uri);
    EXPECT_EQ(3U, listener.events.size());

    listener.startup();
    listener.onState = [&](bool) { listener.shutdown(); };
    set(a, false);
    set(a, true);
    EXPECT_THAT(listener.states, ElementsAre(true, false, true, false));
    EXPECT_EQ("", listener.subscribe("/a/x"));
}

TEST_F(ServiceListenerTest, SubscribesWithinItsAvailableServices) {
    add("a", true);
    add("b");
    add("c", true);
    listener.addServiceToMonitor("a", false);
    listener.addServiceToMonitor("b", true);
    listener.startup();
    log.clear();
    EXPECT_EQ("", listener.subscribe(""));
    EXPECT_THAT(log.lines(), IsEmpty());
    for (const std::string uri : {"/c/x", "/none/x", "/A/x", "/"}) {
        EXPECT_EQ("", listener.subscribe(uri));
        EXPECT_THAT(taken(),
                    ElementsAre(SUBSCRIBE + "subscribed to URI " + uri +
                                " without having subscribed to proper service handler or service may "
                                "have shut down!"));
    }
    const std::string notThere = SUBSCRIBE + "cannot perform subscription to ";
    EXPECT_EQ("", listener.subscribe("b/x"));
    EXPECT_THAT(taken(),
                ElementsAre(notThere + "/b/x: no handler found with name b or handler not available"));
    EXPECT_EQ("", listener.subscribe("/a/%zz"));
    EXPECT_THAT(taken(), ElementsAre(StartsWith(SUBSCRIBE + "- exception: ")));
    EXPECT_THAT(listener.addSubscription("a/x/1", "f,g", 2, "n=1", false),
                testing::MatchesRegex("/a/x/1\\?%24fields=f%2Cg&%24expand=2&n=1#[0-9]+-a-0xa"));
    lib.handlers.erase("a");
    EXPECT_EQ("", listener.subscribe("/a/x"));
    EXPECT_THAT(taken(),
                ElementsAre(notThere + "/a/x: no handler found with name a or handler not available"));
}

TEST_F(ServiceListenerTest, RoutesByIdAndRemovesAtShutdown) {
    const std::string unknown = "removeSubscription - cannot remove subscription, not found: ";
    auto a = add("a", true);
    TestListener other(&lib, 0xA1);
    for (auto* each : {&listener, &other}) {
        each->addServiceToMonitor("a", false);
        each->startup();
    }
    const std::string first = listener.subscribe("/a/x"), second = listener.subscribe("/a/x"),
                      others = other.subscribe("/a/x");
    a->addSubscription("/a/x", "", false);
    notify(a, first);
    EXPECT_THAT(listener.events, ElementsAre(first, second));
    EXPECT_THAT(other.events, ElementsAre(others));
    listener.removeSubscription("");
    listener.removeSubscription("/a/y/#1-a-0xa");  // not its own: the handler is asked all the same
    EXPECT_TRUE(log.contains(unknown + "/a/y/#1-a-0xa"));
    listener.removeSubscription(second);
    log.clear();
    set(a, false);  // subscriptions of a service that is away are removed as well
    listener.shutdown();
    EXPECT_TRUE(log.contains("(virtual)=" + first + ", subscribers left:2"));
    EXPECT_FALSE(log.contains(second) || log.contains(unknown));
    notify(a, first);
    EXPECT_EQ(2U, listener.events.size());
    EXPECT_EQ(2U, other.events.size());
}

TEST_F(ServiceListenerTest, SyncEntriesAndNullClient) {
    const std::string available =
        "Warning: void Nubo::Client::ServiceListener::HandleMicroServicesAvailableSync(bool)";
    for (const bool up : {true, false}) listener.HandleMicroServicesAvailableSync(up);
    EXPECT_THAT(log.lines(), ElementsAre(available + "1", available + "0"));
    EXPECT_THAT(listener.states, ElementsAre(true, false));
    auto a = add("a", true);
    listener.HandleServiceHandlerNotificationSync({a.get(), "/a/x#1-a-0xb", nullptr, "0xb", "data"});
    EXPECT_THAT(listener.events, ElementsAre("/a/x#1-a-0xb"));

    TestListener lonely(nullptr, 10);
    log.clear();
    lonely.addServiceToMonitor("a", false);
    lonely.HandleMicroServiceRegistrationChangedInternal({a.get()});
    EXPECT_EQ("", lonely.subscribe("/a/x"));
    lonely.removeSubscription("/a/x");
    EXPECT_THAT(log.lines(), IsEmpty());
    lonely.startup();
    lonely.shutdown();
    EXPECT_THAT(log.lines(), ElementsAre(STARTUP + "does not listen to any service handler"));
    TestListener(&lib, 10).startup();
    EXPECT_EQ(
        "Error: ServiceListener::~ServiceListener - ServiceListener 0xa has not been shut down: its services "
        "still call it",
        log.lines().back());
}

}  // namespace
