// An application that lives in a loop of its own, epoll here, a GUI's elsewhere: the queue wakes the loop.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/Subscription.h>
#include <Nubo/Simulator/Platform.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>

using namespace Nubo::Client;

namespace {

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
    SubscribingListener meter(&client, 1);
    meter.addServiceToMonitor("Power", false);
    int charge = 0;
    const auto battery = meter.subscribe("/Power/batteries/main", [&charge](const Notification& data) {
        if (const auto now = data.container->getObject("data")) charge = now->getValue<int>("charge");
        std::cout << "charge: " << charge << " %" << std::endl;
    });
    meter.startup();

    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);  // the loop's other work: it charges
    const itimerspec everyFiftyMs = {{0, 50'000'000}, {0, 50'000'000}};
    ::timerfd_settime(timer, 0, &everyFiftyMs, nullptr);
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    watch(epoll, queue.descriptor());
    watch(epoll, timer);

    for (int ticks = 0; charge < 5 && ticks < 1000;) {
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
    return charge >= 5 ? 0 : 1;
}
