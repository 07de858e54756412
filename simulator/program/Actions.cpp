#include "Actions.h"

#include <algorithm>
#include <thread>

namespace ZolPlatform {

using namespace std::chrono_literals;
using Nubo::Simulator::Ending_t;
using Nubo::Simulator::Endpoint;
using Nubo::Simulator::Fault_t;
using Nubo::Simulator::Service;
using std::chrono::milliseconds;
using Time = std::optional<milliseconds>;

namespace {

constexpr milliseconds LATE = 1s;
constexpr Poco::UInt16 GOING_AWAY = 1001;  // RFC 6455, 7.4.1

/// A text frame with its three reserved bits set, which no peer may accept.
const std::string BROKEN_FRAME = "\xF1\x02{}";

Service& service(Endpoint& endpoint) {
    return static_cast<Service&>(endpoint);
}

void restart(Endpoint& endpoint, Time time) {
    endpoint.stop();
    std::this_thread::sleep_for(time.value_or(0ms));
    endpoint.start();
}

void answerLate(Endpoint& endpoint, Time time) {
    const auto late = Fault_t::late(time.value_or(LATE));
    endpoint.onHttp(late);
    endpoint.onUpgrade(late);
}

}  // namespace

const std::vector<Action_t>& actions() {
    using To = Action_t::To;
    static const std::vector<Action_t> ACTIONS = {
        {"stop", 's', To::Any, "ends like a process that is killed", [](Endpoint& e, Time) { e.stop(); }},
        {"start", 'a', To::Any, "starts again on the same port", [](Endpoint& e, Time) { e.start(); }},
        {"restart", 'r', To::Any, "stops, and starts after ?ms=", restart},
        {"move", 'm', To::Services, "restarts on another port", [](Endpoint& e, Time) { service(e).move(); }},
        {"withdraw", 'w', To::Services, "leaves the registry",
         [](Endpoint& e, Time) { service(e).withdraw(); }},
        {"register", 'e', To::Services, "enters the registry",
         [](Endpoint& e, Time) { service(e).registerService(); }},
        {"close", 'c', To::Any, "closes its sockets properly",
         [](Endpoint& e, Time) { e.dropSockets(Ending_t::closeFrame(GOING_AWAY)); }},
        {"drop", 'd', To::Any, "ends its sockets without a close frame",
         [](Endpoint& e, Time) { e.dropSockets(Ending_t::endOfStream()); }},
        {"reset", 'x', To::Any, "resets its sockets",
         [](Endpoint& e, Time) { e.dropSockets(Ending_t::reset()); }},
        {"silent", 'i', To::Any, "hangs: reads, answers and pushes nothing",
         [](Endpoint& e, Time) { e.goSilent(); }},
        {"speak", 'k', To::Any, "ends that", [](Endpoint& e, Time) { e.speak(); }},
        {"late", 'l', To::Any, "answers every request ?ms= late (1000)", answerLate},
        {"broken", 'b', To::Any, "sends a broken frame on its sockets",
         [](Endpoint& e, Time) { e.pushBytes(BROKEN_FRAME); }},
        {"normal", 'n', To::Any, "ends silence and lateness", [](Endpoint& e, Time) { e.clearFaults(); }},
    };
    return ACTIONS;
}

namespace {

template <typename Condition>
const Action_t* find(const Condition& condition) {
    const auto& all = actions();
    const auto found = std::find_if(all.begin(), all.end(), condition);
    return found == all.end() ? nullptr : &*found;
}

}  // namespace

const Action_t* findAction(const std::string& name) {
    return find([&](const Action_t& action) { return action.name == name; });
}

const Action_t* findAction(char key) {
    return find([&](const Action_t& action) { return action.key == key; });
}

Endpoints allServices(Nubo::Simulator::Platform& platform) {
    const auto services = platform.services();
    return {services.begin(), services.end()};
}

bool perform(const Action_t& action, const Endpoints& endpoints, Time time) {
    const auto isService = [](Endpoint* endpoint) { return dynamic_cast<Service*>(endpoint) != nullptr; };
    if (action.to == Action_t::To::Services && !std::all_of(endpoints.begin(), endpoints.end(), isService))
        return false;
    for (Endpoint* endpoint : endpoints) action.run(*endpoint, time);
    return true;
}

}  // namespace ZolPlatform
