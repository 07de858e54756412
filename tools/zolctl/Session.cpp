#include "Session.h"

#include <Nubo/Client/ServiceHandler.h>

#include "Output.h"
#include "Request.h"

namespace ZolCtl {

using Nubo::Client::ServiceHandler;

namespace {

constexpr std::chrono::hours ROUND{1};  // how long to wait at a time when there is no end

/// Also tells of the recoveries that no listener hears of.
class FollowedService : public ServiceHandler {
public:
    using ServiceHandler::ServiceHandler;

private:
    void HandleConnectionReplaced() override {
        Output::notice(getServiceName() + " is available again, on a new connection");
    }
};

}  // namespace

Session::Session() : _client(&_sink, clientParameters()) {
    _client.startup();
}

Session::~Session() {
    _client.shutdown();
}

ServiceHandler::Ptr Session::follow(const std::string& service) {
    auto& followed = _followed[service];
    if (!followed)
        followed = _client.addService(new FollowedService(service, &_client, &_sink, PING_AFTER_MS, true));
    return followed;
}

bool Session::run(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> timeout) {
    const auto interruptible = [&done] {
        Interrupt::check();
        Output::checkReader();
        return done();
    };
    while (!_sink.dispatchUntil(interruptible, timeout.value_or(ROUND)))
        if (timeout) return false;
    return true;
}

}  // namespace ZolCtl
