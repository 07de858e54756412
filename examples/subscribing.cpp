// When to subscribe: as soon as the service is available, and then never again.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Simulator/Platform.h>

#include <iostream>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

class Thermometer : public ServiceListener {
public:
    explicit Thermometer(ClientLib& client) : ServiceListener(&client, 1) {
        addServiceToMonitor("Climate", false);
    }
    ~Thermometer() override { shutdown(); }

    // Before this call a subscription is refused. Afterwards it is kept through every outage.
    void HandleMicroServicesAvailable(bool available) override {
        std::cout << "Climate is " << (available ? "available" : "away") << std::endl;
        if (available && _subscription.empty())
            _subscription = addSubscription("/Climate/zones/left", "measured", 0, "", false);
    }

    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        if (data.type != Nubo::Command::WebSocketResponseObject::TYPE_DATA) return;  // an error
        measured = data.container->getObject("data")->getValue<double>("measured");
        std::cout << "it is " << measured << " degrees" << std::endl;
    }

    double measured = 0;

private:
    std::string _subscription;
};

std::string zone(double measured) {
    return R"({"measured":)" + std::to_string(measured) + R"(,"target":21})";
}

}  // namespace

int main() {
    Nubo::Simulator::Platform platform;
    auto& climate = platform.addService("Climate");
    climate.setElement("zones", "left", zone(18));

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    MessageQueue queue;
    ClientLib client(&queue, parameters);
    client.startup();
    client.addService(new ServiceHandler("Climate", &client, &queue, 5000, true));
    Thermometer thermometer(client);
    thermometer.startup();

    bool asExpected = true;
    const auto becomes = [&](double measured) {
        asExpected &= queue.dispatchUntil([&] { return thermometer.measured == measured; }, 10s);
    };
    becomes(18);  // the present data comes with the subscription
    climate.setElement("zones", "left", zone(19));
    becomes(19);
    climate.move();  // to another port: the application does nothing
    climate.setElement("zones", "left", zone(20));
    becomes(20);

    thermometer.shutdown();
    client.shutdown();
    return asExpected ? 0 : 1;
}
