// Two features that follow the same resource: one subscription at the service, one callback for each feature.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Client/UserStory.h>
#include <Nubo/Simulator/Platform.h>

#include <iostream>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

const std::string TRACK = "/Media/tracks/0xa";

/// One feature. Its story id tells its notifications from those of the others.
class Feature : public UserStory, public ServiceListener {
public:
    Feature(ClientLib& client, const std::string& name)
        : ServiceListener(&client, getStoryId()), _name(name) {
        addServiceToMonitor("Media", false);
    }
    ~Feature() override { ServiceListener::shutdown(); }

    void startup() override {
        UserStory::startup();
        ServiceListener::startup();
    }
    void shutdown() override {
        ServiceListener::shutdown();
        UserStory::shutdown();
    }

    void HandleMicroServicesAvailable(bool available) override {
        if (available && _subscription.empty()) _subscription = addSubscription(TRACK, "", 0, "", false);
    }
    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        if (const auto track = data.container->getObject("data"))
            title = track->getValue<std::string>("title");
        std::cout << _name << ": " << title << std::endl;
    }

    std::string title;

private:
    const std::string _name;
    std::string _subscription;
};

}  // namespace

int main() {
    Nubo::Simulator::Platform platform;
    auto& media = platform.addService("Media");
    media.setElement("tracks", "0xa", R"({"title":"First"})");

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    MessageQueue queue;
    ClientLib client(&queue, parameters);
    client.startup();
    client.addService(new ServiceHandler("Media", &client, &queue, 5000, true));

    bool asExpected = true;
    const auto becomes = [&](const Feature& feature, const std::string& title) {
        asExpected &= queue.dispatchUntil([&] { return feature.title == title; }, 10s);
    };
    Feature display(client, "display");
    display.startup();
    becomes(display, "First");
    Feature statistics(client, "statistics");  // is served with the data that is known, without asking Media
    statistics.startup();
    becomes(statistics, "First");
    asExpected &= media.liveSubscriptions(TRACK) == 1;

    media.setElement("tracks", "0xa", R"({"title":"Second"})");
    becomes(display, "Second");
    becomes(statistics, "Second");

    display.shutdown();  // the subscription is the other's as well, so it stays
    media.setElement("tracks", "0xa", R"({"title":"Third"})");
    becomes(statistics, "Third");
    asExpected &= display.title == "Second";

    statistics.shutdown();
    client.shutdown();
    return asExpected ? 0 : 1;
}
