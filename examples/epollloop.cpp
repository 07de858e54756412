// An application that lives in a loop of its own, epoll here, a GUI's elsewhere: the queue wakes the loop.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/Platform.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>

using namespace Nubo::Client;

namespace {

class Meter : public ServiceListener {
public:
    explicit Meter(ClientLib& client) : ServiceListener(&client, 1) { addServiceToMonitor("Power", false); }
    ~Meter() override { shutdown(); }

    void HandleMicroServicesAvailable(bool available) override {
        if (available && _subscription.empty())
            _subscription = addSubscription("/Power/batteries/main", "", 0, "", false);
    }
    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        if (const auto battery = data.container->getObject("data")) charge = battery->getValue<int>("charge");
        std::cout << "charge: " << charge << " %" << std::endl;
    }

    int charge = 0;

private:
    std::string _subscription;
};

void watch(int epoll, int descriptor) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

}  // namespace

int main() {
    Nubo::Simulator::Platform platform;
    auto& power = platform.addService("Power");
    power.setElement("batteries", "main", R"({"charge":0})");

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    MessageQueue queue;
    ClientLib client(&queue, parameters);
    client.startup();
    client.addService(new ServiceHandler("Power", &client, &queue, 5000, true));
    Meter meter(client);
    meter.startup();

    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);  // the loop's other work: it charges
    const itimerspec everyFiftyMs = {{0, 50'000'000}, {0, 50'000'000}};
    ::timerfd_settime(timer, 0, &everyFiftyMs, nullptr);
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    watch(epoll, queue.descriptor());
    watch(epoll, timer);

    for (int ticks = 0; meter.charge < 5 && ticks < 1000;) {
        epoll_event event = {};
        if (::epoll_wait(epoll, &event, 1, -1) != 1) continue;
        std::uint64_t expired = 0;
        if (event.data.fd == queue.descriptor())
            queue.dispatch();
        else if (::read(timer, &expired, sizeof expired) == sizeof expired)
            power.setElement("batteries", "main", R"({"charge":)" + std::to_string(++ticks) + "}");
    }

    meter.shutdown();
    client.shutdown();
    ::close(epoll);
    ::close(timer);
    return meter.charge >= 5 ? 0 : 1;
}
