// zolctl wait: for start scripts that need certain services.
#include <algorithm>

#include "../Command.h"
#include "../Request.h"
#include "../Session.h"

namespace ZolCtl {

namespace {

using Handlers = std::vector<Nubo::Client::ServiceHandler::Ptr>;

std::string namesOfMissing(const Handlers& handlers) {
    std::string names;
    for (const auto& handler : handlers)
        if (!handler->isAvailable()) names += " " + handler->getServiceName();
    return names;
}

}  // namespace

void runWait(const Call_t& call) {
    for (const auto& service : call.arguments) serviceName(service);
    Session session;
    Handlers handlers;
    for (const auto& service : call.arguments) handlers.push_back(session.follow(service));
    // Asked one by one: a listener reports nothing about services behind its first sixteen.
    const auto allAvailable = [&handlers] {
        return std::all_of(handlers.begin(), handlers.end(),
                           [](const auto& handler) { return handler->isAvailable(); });
    };
    if (!session.run(allAvailable, call.seconds("timeout")))
        throw Failure("still not available:" + namesOfMissing(handlers));
}

}  // namespace ZolCtl
