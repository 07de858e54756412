// The main path of an application, against a simulated platform in this process: a service becomes available,
// one of its resources is read and subscribed to, the service is restarted, the application stops.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/Client/Subscription.h>
#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Simulator/Platform.h>

#include <iostream>
#include <optional>
#include <stdexcept>

using namespace Nubo::Client;
using namespace std::chrono_literals;

namespace {

const std::string TRACK = "/Media/tracks/0xa";

void say(const std::string& line) {
    std::cout << line << std::endl;
}

void require(bool fulfilled, const std::string& what) {
    if (!fulfilled) throw std::runtime_error(what);
}

std::string titleIn(const Poco::JSON::Object& message) {
    return message.getObject(Nubo::Command::ResponseObject::FIELD_DATA)->getValue<std::string>("title");
}

std::string track(const std::string& title) {
    return R"({"title":")" + title + R"("})";
}

/// One feature of the application: needs the service Media and follows one track. Runs on main's thread.
class Player {
public:
    explicit Player(ClientLib& client) : _listener(&client, 1) {
        _listener.addServiceToMonitor("Media", false);
        _listener.onAvailability([this](bool nowAvailable) {
            available = nowAvailable;
            say(available ? "Media is available" : "Media is not available");
        });
        _listener.startup();
    }

    void followTrack() {
        track = _listener.subscribe(TRACK, [this](const Notification& data) {
            if (data.type != Nubo::Command::WebSocketResponseObject::TYPE_DATA) return;  // an error
            title = titleIn(*data.container);
            say("notification " + std::to_string(++notifications) + ": the title is \"" + title + "\"");
        });
    }

    bool available = false;
    std::string title;
    int notifications = 0;
    Subscription track;

private:
    SubscribingListener _listener;
};

void run() {
    Nubo::Simulator::Platform platform;
    Nubo::Simulator::Service& media = platform.addService("Media");
    media.setElement("tracks", "0xa", track("First"));
    say("the platform runs: registry on port " + std::to_string(platform.registry().port()) +
        ", Media on port " + std::to_string(media.port()));

    ClientLib::ClientLibParameters parameters{};  // zero: no pings, no TCP keep-alive
    parameters.useragent = "quickstart";
    parameters.countConnectService_Retry = 3;
    parameters.delayConnectService_Retry = 100;  // milliseconds

    MessageQueue queue;  // outlives the client, which outlives the listeners
    ClientLib client(&queue, parameters);
    client.startup();
    client.addService(new ServiceHandler("Media", &client, &queue, 5000, true));
    std::optional<Player> player(client);

    // Runs the library's messages, and with them the player's callbacks, on this thread.
    const auto comes = [&queue](auto condition) { return queue.dispatchUntil(condition, 3s); };
    require(comes([&] { return player->available; }), "Media did not become available");

    const auto answer = client.getResourceElement(TRACK);
    require(answer, "cannot read " + TRACK);
    say("read through the registry: the title is \"" + titleIn(*answer) + "\"");

    player->followTrack();
    require(!player->track.uri().empty(), "cannot subscribe to " + TRACK);
    say("subscribed as " + player->track.uri());
    require(comes([&] { return player->title == "First"; }), "the present title did not come");
    for (const std::string title : {"Second", "Third"}) {
        media.setElement("tracks", "0xa", track(title));
        require(comes([&] { return player->title == title; }), "no notification of the title " + title);
    }

    say("Media is stopped, its track changed, and Media started again");
    media.stop();
    require(comes([&] { return !player->available; }), "the loss of Media was not noticed");
    media.setElement("tracks", "0xa", track("Fourth"));
    media.start();
    require(comes([&] { return player->available; }), "Media did not come back");
    require(comes([&] { return player->title == "Fourth"; }), "the notifications did not come back");

    player.reset();     // first the listeners,
    client.shutdown();  // then the client: no thread of the library is left,
    queue.close();      // then the messages that are still there: they are dropped
    say("stopped");
}

}  // namespace

int main() {
    try {
        run();
        return 0;
    } catch (const Poco::Exception& e) {
        std::cerr << "quickstart failed: " << e.displayText() << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "quickstart failed: " << e.what() << std::endl;
    }
    return 1;
}
