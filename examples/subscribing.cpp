// Three subscriptions to two services, with a function for each, and no thought for outages.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/Query.h>
#include <Nubo/Client/Subscription.h>
#include <Nubo/Simulator/Platform.h>

#include <iostream>
#include <memory>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

/// Shows the temperature of two zones and, when there is music, its title.
class Panel {
public:
    explicit Panel(ClientLib& client) : _listener(&client, 1) {
        _listener.addServiceToMonitor("Climate", false);
        _listener.addServiceToMonitor("Media", true);  // optional
        _left = _listener.subscribe(zone("left"), [this](const Notification& data) { show(left, data); });
        _right = _listener.subscribe(zone("right"), [this](const Notification& data) { show(right, data); });
        _title = _listener.subscribe("/Media/players/main", [this](const Notification& data) {
            if (const auto player = data.container->getObject("data"))
                title = player->getValue<std::string>("title");
            std::cout << "title: " << title << std::endl;
        });
        _listener.startup();
    }

    double left = 0;
    double right = 0;
    std::string title;

private:
    static std::string zone(const std::string& name) {
        return Query("/Climate/zones/" + name).fields({"measured"}).string();
    }
    void show(double& shown, const Notification& data) const {
        if (const auto zone = data.container->getObject("data"))  // else an error
            shown = zone->getValue<double>("measured");
        std::cout << "temperatures: " << left << " and " << right << std::endl;
    }

    SubscribingListener _listener;
    Subscription _left, _right, _title;
};

std::string measured(double degrees) {
    return R"({"measured":)" + std::to_string(degrees) + R"(,"target":21})";
}

}  // namespace

int main() {
    Nubo::Simulator::Platform platform;
    auto& climate = platform.addService("Climate");
    auto& media = platform.addService("Media", Nubo::Simulator::Platform::Registration::Later);
    climate.setElement("zones", "left", measured(18));
    climate.setElement("zones", "right", measured(18));
    media.setElement("players", "main", R"({"title":"First"})");

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    MessageQueue queue;
    ClientLib client(&queue, parameters);
    client.startup();
    for (const std::string name : {"Climate", "Media"})
        client.addService(new ServiceHandler(name, &client, &queue, 5000, true));
    auto panel = std::make_unique<Panel>(client);  // subscribes before a service is there

    bool asExpected = true;
    const auto becomes = [&](double left, double right, const std::string& title) {
        asExpected &= queue.dispatchUntil(
            [&] { return panel->left == left && panel->right == right && panel->title == title; }, 10s);
    };
    becomes(18, 18, "");  // the present data comes with the subscription
    climate.setElement("zones", "left", measured(19));
    becomes(19, 18, "");
    media.registerService();
    becomes(19, 18, "First");
    climate.move();  // to another port: the application does nothing
    climate.setElement("zones", "right", measured(20));
    becomes(19, 20, "First");

    panel.reset();  // the listeners first
    client.shutdown();
    return asExpected ? 0 : 1;
}
