// A feature that cannot do without one service and is better with another: mandatory and optional services.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/Platform.h>

#include <iostream>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

/// Plays with Media alone, and shows the words of a song as long as Lyrics is there.
class Karaoke : public ServiceListener {
public:
    explicit Karaoke(ClientLib& client) : ServiceListener(&client, 1), _client(client) {
        addServiceToMonitor("Media", false);
        addServiceToMonitor("Lyrics", true);  // optional
    }
    ~Karaoke() override { shutdown(); }

    // "Available" is said again whenever an optional service has come or gone.
    void HandleMicroServicesAvailable(bool available) override {
        state = !available                                           ? "off"
                : _client.getServiceHandler("Lyrics")->isAvailable() ? "with words"
                                                                     : "plays";
        std::cout << "karaoke: " << state << std::endl;
    }

    std::string state = "not started";

private:
    ClientLib& _client;
};

}  // namespace

int main() {
    using Registration = Nubo::Simulator::Platform::Registration;
    Nubo::Simulator::Platform platform;
    auto& media = platform.addService("Media");
    auto& lyrics = platform.addService("Lyrics", Registration::Later);

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds
    MessageQueue queue;
    ClientLib client(&queue, parameters);
    client.startup();
    for (const std::string name : {"Media", "Lyrics"})
        client.addService(new ServiceHandler(name, &client, &queue, 5000, true));
    Karaoke karaoke(client);
    karaoke.startup();

    bool asExpected = true;
    const auto becomes = [&](const std::string& state) {
        asExpected &= queue.dispatchUntil([&] { return karaoke.state == state; }, 10s);
    };
    becomes("plays");
    lyrics.registerService();
    becomes("with words");
    lyrics.withdraw();
    becomes("plays");
    media.withdraw();
    becomes("off");

    karaoke.shutdown();
    client.shutdown();
    return asExpected ? 0 : 1;
}
