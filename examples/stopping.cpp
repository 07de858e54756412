// How a program ends on SIGTERM: in the right order, on the thread that runs the messages, outside callbacks.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/Platform.h>

#include <csignal>
#include <iostream>
#include <memory>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

volatile std::sig_atomic_t stopRequested = 0;

class Clock : public ServiceListener {
public:
    explicit Clock(ClientLib& client) : ServiceListener(&client, 1) { addServiceToMonitor("Time", false); }

    void HandleMicroServicesAvailable(bool available) override {
        std::cout << "Time is " << (available ? "available" : "away") << std::endl;
        if (available) addSubscription("/Time/clocks", "", 0, "", false);
    }

    // A callback must not shut the client down, which would wait for the callback to end: it asks for it.
    void HandleServiceHandlerNotification(const ServiceHandler::ServiceHandlerNotificationData_t&) override {
        std::cout << "enough seen" << std::endl;
        std::raise(SIGTERM);
    }
};

}  // namespace

int main() {
    std::signal(SIGTERM, [](int) { stopRequested = 1; });
    Nubo::Simulator::Platform platform;
    auto& time = platform.addService("Time");
    time.setElement("clocks", "wall", R"({"hour":12})");

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    auto queue = std::make_unique<MessageQueue>();
    auto client = std::make_unique<ClientLib>(queue.get(), parameters);
    client->startup();
    client->addService(new ServiceHandler("Time", client.get(), queue.get(), 5000, true));
    auto clock = std::make_unique<Clock>(*client);
    clock->startup();

    queue->dispatchUntil([] { return stopRequested != 0; }, 10s);

    clock->shutdown();   // 1. the listeners: no callback comes any more, their subscriptions are removed
    client->shutdown();  // 2. the client: its connections are closed, its threads have ended
    queue->close();      // 3. what is left in the queue is dropped
    clock.reset();       // 4. the objects: listeners,
    client.reset();      //    the client, which listeners point to,
    queue.reset();       //    the queue, which the client points to

    const bool nothingLeft = platform.waitFor([&] { return time.openSockets() == 0; }, 10s);
    std::cout << (nothingLeft ? "stopped" : "a connection is left") << std::endl;
    return stopRequested != 0 && nothingLeft ? 0 : 1;
}
