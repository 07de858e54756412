#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
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
const std::string MISSING =
    "Debug: void Nubo::Client::ServiceListener::HandleMicroServiceRegistrationChangedInternal(const "
    "Nubo::Client::ServiceHandler::ServiceRegistrationEventData_t&): 0xa: service not available a";

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
    /// A new handler, available if `up`.
    TestHandler::Ptr add(const std::string& name, bool up = false) {
        TestHandler::Ptr handler = new TestHandler(name, &lib, &sink, 0, true);
        lib.handlers[name] = handler;
        if (up) set(name, true);
        return handler;
    }
    void set(const std::string& name, bool up) {
        lib.handlers.at(name).cast<TestHandler>()->setNewServiceAddress(up ? "10.0.0.5" : "", up ? 80 : 0);
    }
    void notify(const std::string& uri) {
        lib.handlers.at("a")->WebSocketDataAvailableHandlerSync(
            parsed(R"({"type":"data","event":")" + uri + R"("})"));
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
    Nubo::Client::MessageQueue sink;
    TestListener listener{&lib, 10};
};

// A step is ">>" for startup(), "<<" for shutdown(), or a service and whether it comes or goes. Behind each
// stands what is reported: 1 for available, 0 for not; then the state that is left: Available, Unavailable,
// or ? for none.
TEST_F(ServiceListenerTest, ReportsChangesOfTheSet) {
    const std::pair<std::string, std::string> table[] = {
        // Services that are there already have capital letters, optional ones brackets.
        {"A B", ">>1A "},
        {"A b", ">>0U "},  // the last by name speaks for all
        {"a B", ">>? "},
        {"A (b)", ">>1? "},
        {"(a) B", ">>1A "},
        {"(A) b", ">>0U "},
        {"(a) (b)", ">>? "},
        {"b a (a) (o)", ">>? a+? b+1A o+1A o-1A b-0U a-U o+U o-U b+U a+1A "},  // the first flag given stays
        {"a", ">>? >>? a+1A >>A <<A <<A a-A a+A >>1A a-0U <<U >>U "},
        {"a", ">>? a+1A <<A a-A >>0U a+1A "},
        {"A (b)", ">>1? <<? >>1? b+1A <<A >>1A b-1A <<A >>1A <<A a-A >>A a+1A "},
        // Only the first sixteen count.
        {"(a) (b) (c) (d) (e) (f) (g) (h) (i) (j) (k) (l) (m) (n) (o) (p) q r",
         ">>? r+? q+? p+1A q-A p-A q+A a+1A "}};
    for (const auto& [services, expected] : table) {
        TestListener tested(&lib, 10);
        std::istringstream names(services), steps(expected);
        for (std::string name; names >> name;) {
            const bool optional = name[0] == '(';
            const char letter = name[optional ? 1 : 0];
            const std::string service(1, static_cast<char>(std::tolower(letter)));
            add(service, std::isupper(letter) != 0);
            tested.addServiceToMonitor(service, optional);
        }
        std::string reported;
        for (std::string step; steps >> step;) {
            tested.states.clear();
            if (step[0] == '>') tested.startup();
            if (step[0] == '<') tested.shutdown();
            if (std::islower(step[0]) != 0) set(step.substr(0, 1), step[1] == '+');
            reported += step.substr(0, 2);
            for (const bool available : tested.states) reported += available ? '1' : '0';
            reported += "?AU"[tested.getLastNotificationState()];
            reported += ' ';
        }
        EXPECT_EQ(expected, reported) << services;
        tested.shutdown();
    }
}

TEST_F(ServiceListenerTest, LogsChangesOfTheSet) {
    add("a");
    add("o", true);
    listener.addServiceToMonitor("a", false);
    listener.addServiceToMonitor("o", true);
    listener.startup();
    set("a", true);
    set("o", false);
    set("a", false);
    EXPECT_THAT(taken(), ElementsAre(MISSING, "Info: All micro services became available, fctID: 0xa",
                                     "Info: Optional micro service o became unavailable, fctId:0xa", MISSING,
                                     "Info: At least one micro service (a) became unavailable, fctId:0xa"));
}

TEST_F(ServiceListenerTest, UnknownServicesAndLateOnes) {
    listener.addServiceToMonitor("none", false);
    listener.startup();
    add("late", true);
    listener.addServiceToMonitor("late", false);
    EXPECT_THAT(taken(),
                ElementsAre(ADD + ": service handler not found for service none",
                            STARTUP + "does not listen to any service handler",
                            ADD + " should not be called after a service listener has already been started. "
                                  "This may result in inconsistent service data!"));
    for (const bool up : {false, true}) set("late", up);
    EXPECT_THAT(listener.states, IsEmpty());  // heard after a restart only
    listener.shutdown();
    add("closed");
    listener.addServiceToMonitor("closed", false);  // a closed listener takes none
    listener.startup();
    EXPECT_THAT(listener.states, ElementsAre(true));

    auto late = lib.handlers["late"];
    lib.handlers.clear();
    taken();
    listener.HandleMicroServiceRegistrationChangedInternal({late.get()});
    listener.shutdown();
    listener.startup();
    EXPECT_THAT(taken(), ElementsAre(CHANGED + "Null pointer", STARTUP + "- exception: Null pointer"));
}

TEST_F(ServiceListenerTest, StartupMayFailOrBeUndoneInItsCallback) {
    for (const char* name : {"a", "b"}) {
        add(name, true);
        listener.addServiceToMonitor(name, false);
    }
    const auto a = lib.handlers.at("a"), b = lib.handlers.at("b");
    const auto isHooked = [&] {
        return !(a->SocketDataAvailable.empty() && a->MicroServiceRegistrationChanged.empty());
    };
    lib.handlers.erase("b");
    for (int i = 0; i < 2; ++i) {  // not started, and started before
        listener.startup();
        EXPECT_EQ(1U, log.count(STARTUP + "- exception: Null pointer"));
        EXPECT_FALSE(isHooked());
        taken();
        lib.handlers["b"] = b;
        listener.startup();
        EXPECT_TRUE(isHooked());
        lib.handlers.erase("b");
    }
    lib.handlers["b"] = b;
    listener.shutdown();

    taken();
    {
        TestListener brief(&lib, 10);
        brief.addServiceToMonitor("a", false);
        brief.onState = [&](bool) {
            brief.addServiceToMonitor("b", false);
            brief.shutdown();
        };
        brief.startup();
        EXPECT_THAT(brief.states, ElementsAre(true));
    }  // says nothing
    EXPECT_THAT(taken(), ElementsAre(StartsWith("Info: All micro services became available"),
                                     StartsWith(ADD + " should not be called after")));
    EXPECT_FALSE(isHooked());
}

TEST_F(ServiceListenerTest, CallbacksMayThrowSubscribeAndShutDown) {
    add("a");
    listener.addServiceToMonitor("a", false);
    listener.startup();
    std::string uri;
    listener.onState = [&](bool up) {
        if (!up) throw 1;
        if (uri.empty()) uri = listener.subscribe("/a/x");
        throw Poco::RuntimeException("callback");
    };
    for (const bool up : {true, false, true}) set("a", up);
    EXPECT_EQ(2U, log.count(CHANGED + "Runtime exception: callback"));
    const std::function<void()> callbacks[] = {[] { throw Poco::RuntimeException("notification"); },
                                               [] { throw 1; }, [&] { listener.shutdown(); }};
    for (const auto& callback : callbacks) {
        listener.onNotification = callback;
        notify(uri);
    }
    EXPECT_EQ(1U, log.count("Error: ServiceListener::HandleServiceHandlerNotificationInternal - exception: "
                            "Runtime exception: notification"));
    notify(uri);
    EXPECT_THAT(listener.events, ElementsAre(uri, uri, uri));  // none after the shutdown
    EXPECT_EQ("", listener.subscribe("/a/x"));
}

TEST_F(ServiceListenerTest, SubscribesWithinItsAvailableServices) {
    add("a", true);
    add("b");
    add("c", true);
    for (const char* name : {"a", "b"}) listener.addServiceToMonitor(name, true);
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
    EXPECT_THAT(listener.addSubscription("a/x/1", "f,g", 2, "n=1", false),
                testing::MatchesRegex("/a/x/1\\?%24fields=f%2Cg&%24expand=2&n=1#[0-9]+-a-0xa"));
    lib.handlers.erase("a");
    for (const std::string name : {"a", "b"}) {
        EXPECT_EQ("", listener.subscribe(name + "/x"));
        EXPECT_THAT(taken(),
                    ElementsAre(SUBSCRIBE + "cannot perform subscription to /" + name +
                                "/x: no handler found with name " + name + " or handler not available"));
    }
    EXPECT_EQ("", listener.subscribe("/a/%zz"));
    EXPECT_THAT(taken(), ElementsAre(StartsWith(SUBSCRIBE + "- exception: ")));
}

TEST_F(ServiceListenerTest, RoutesByIdAndRemovesAtShutdown) {
    const std::string unknown = "removeSubscription - cannot remove subscription, not found: ";
    auto a = add("a", true);
    TestListener other(&lib, 0xA1);
    for (auto* each : {&listener, &other}) {
        each->addServiceToMonitor("a", false);
        for (int i = 0; i < 2; ++i) each->startup();  // each still hears once
    }
    const std::string first = listener.subscribe("/a/x"), second = listener.subscribe("/a/x"),
                      others = other.subscribe("/a/x");
    EXPECT_THAT(others, testing::EndsWith("-a-0xa1"));
    a->addSubscription("/a/x", "", false);
    notify(first);
    EXPECT_THAT(listener.events, ElementsAre(first, second));
    EXPECT_THAT(other.events, ElementsAre(others));
    listener.removeSubscription("/a/y/#1-a-0xa");  // not its own: the handler is asked all the same
    EXPECT_TRUE(log.contains(unknown + "/a/y/#1-a-0xa"));
    listener.removeSubscription(second);
    log.clear();
    set("a", false);  // subscriptions of a service that is away are removed as well
    listener.shutdown();
    EXPECT_TRUE(log.contains("(virtual)=" + first + ", subscribers left:2"));
    EXPECT_FALSE(log.contains(second) || log.contains(unknown));
    notify(first);
    EXPECT_EQ(2U, listener.events.size());
    EXPECT_EQ(2U, other.events.size());
}

TEST_F(ServiceListenerTest, SyncEntriesAndNullClient) {
    const std::string available =
        "Warning: void Nubo::Client::ServiceListener::HandleMicroServicesAvailableSync(bool)";
    for (const bool up : {true, false}) listener.HandleMicroServicesAvailableSync(up);
    EXPECT_THAT(log.lines(), ElementsAre(available + "1", available + "0"));
    EXPECT_THAT(listener.states, ElementsAre(true, false));

    TestListener lonely(nullptr, 10);
    log.clear();
    lonely.addServiceToMonitor("a", false);
    lonely.HandleMicroServiceRegistrationChangedInternal({nullptr});
    EXPECT_EQ("", lonely.subscribe("/a/x"));
    lonely.removeSubscription("/a/x");
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
