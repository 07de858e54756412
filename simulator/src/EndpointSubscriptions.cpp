// The endpoint's subscriptions and pushes.
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Simulator/Endpoint.h>

#include <algorithm>

#include "SocketTable.h"
#include "Target.h"
#include "Wire.h"

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;
using Nubo::Command::WebSocketRequestObject;

namespace {

constexpr int NOT_FOUND = 404;
constexpr int GONE = 410;

/// What liveSubscriptions() takes for a subscription of `wanted`.
bool matches(const Target_t& subscribed, const Target_t& wanted, bool withQuery) {
    return subscribed.segments == wanted.segments && (!withQuery || subscribed.sameQuery(wanted));
}

SubscriptionList::Filter filterFor(const std::string& uri) {
    const bool withQuery = uri.find('?') != std::string::npos;
    return [wanted = Target_t::parse(uri), withQuery](const Target_t& subscribed) {
        return matches(subscribed, wanted, withQuery);
    };
}

Limit_t limitOf(const Request_t& request) {
    Limit_t limit;
    limit.interval = std::chrono::milliseconds(std::max(0L, request.interval.value_or(0)));
    limit.updates = std::max(1L, request.updateLimit.value_or(0));
    return limit;
}

std::optional<Target_t> tryParse(const std::string& uri) {
    try {
        return Target_t::parse(uri);
    } catch (const Poco::SyntaxException&) {
        return std::nullopt;
    }
}

}  // namespace

void Endpoint::received(Connection& connection, const std::string& text) {
    const Request_t request = Wire::parseRequest(connection.number(), text);
    if (request.type == WebSocketRequestObject::TYPE_SUBSCRIBE) return subscribe(connection, request);
    const bool unsubscribes = request.type == WebSocketRequestObject::TYPE_UNSUBSCRIBE;
    if (unsubscribes) connection.subscriptions().remove(request.event);
    report(unsubscribes ? request.type : "message", unsubscribes ? request.event : text, request.socket);
    _recorder.add(request);
}

void Endpoint::subscribe(Connection& connection, const Request_t& request) {
    Guard guard(_order);
    const auto target = tryParse(request.event);
    const bool known = target && render(*target);
    if (known) connection.subscriptions().add({request.event, *target}, limitOf(request));
    report(request.type, request.event, request.socket);
    _recorder.add(request);
    if (!known) {
        connection.send(encodeFrame(Wire::error(request.event, NOT_FOUND)));
        return;
    }
    connection.send(encodeFrame(Wire::acknowledgement(request.event)));
    pushData(connection, {request.event, *target});
}

std::size_t Endpoint::publish(const std::function<Change_t()>& change) {
    Guard guard(_order);
    const Change_t made = change();
    const auto concerned = [&made](const Target_t& target) { return made.concerns(target); };
    std::size_t served = 0;
    for (const auto& connection : _sockets->open())
        for (const auto& subscription : connection->subscriptions().matching(concerned))
            if (pushData(*connection, subscription)) ++served;
    if (served != 0 && made.kind == Change_t::Kind::Element)
        report("changed", made.element.path() + ", " + std::to_string(served) + " notified");
    raiseChanged();
    return served;
}

bool Endpoint::pushData(Connection& connection, const Subscription_t& subscription) {
    if (_silent || !connection.subscriptions().admit(subscription.event)) {
        connection.subscriptions().markMissed(subscription.event);
        return false;
    }
    if (const auto json = render(subscription.target))
        return connection.send(encodeFrame(Wire::data(subscription.event, *json)));
    connection.subscriptions().remove(subscription.event);
    return connection.send(encodeFrame(Wire::error(subscription.event, GONE)));
}

void Endpoint::pushDue(Connection& connection) {
    Guard guard(_order);
    for (const auto& due : connection.subscriptions().takeDue()) pushData(connection, due);
}

std::size_t Endpoint::pushRaw(const std::string& text) {
    return pushBytes(encodeFrame(text));
}

std::size_t Endpoint::pushBytes(const std::string& bytes) {
    std::size_t served = 0;
    for (const auto& connection : _sockets->open())
        if (connection->send(bytes)) ++served;
    return served;
}

std::string Endpoint::encodeFrame(const std::string& payload, unsigned opcode) {
    constexpr std::size_t IN_ONE_BYTE = 125, IN_TWO_BYTES = 0xFFFF;
    const std::size_t size = payload.size();
    std::string frame(1, static_cast<char>(0x80U | opcode));
    const unsigned lengthBytes = size <= IN_ONE_BYTE ? 0 : size <= IN_TWO_BYTES ? 2 : 8;
    frame += static_cast<char>(lengthBytes == 0 ? size : lengthBytes == 2 ? 126 : 127);
    for (unsigned left = lengthBytes; left > 0; --left)
        frame += static_cast<char>((static_cast<std::uint64_t>(size) >> (8 * (left - 1))) & 0xFF);
    return frame + payload;
}

std::size_t Endpoint::liveSubscriptions(const std::string& uri) const {
    const auto filter = filterFor(uri);
    std::size_t count = 0;
    for (const auto& connection : _sockets->open())
        count += connection->subscriptions().matching(filter).size();
    return count;
}

std::vector<std::string> Endpoint::subscribedEvents() const {
    std::vector<std::string> events;
    for (const auto& connection : _sockets->open())
        for (const auto& subscription : connection->subscriptions().all())
            events.push_back(subscription.event);
    return events;
}

}  // namespace Nubo::Simulator
