#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/Subscription.h>
#include <Nubo/Command/UrlPath.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <algorithm>
#include <utility>

#include "RunGuarded.h"

namespace Nubo::Client {

/// One subscription: where it leads.
struct Subscription::Route {
    SubscribingListener* listener;  // null when the subscription or the listener has ended
    // cppcheck-suppress unusedStructMember
    const std::string query;
    // cppcheck-suppress unusedStructMember
    const std::string service;
    std::function<void(const Notification&)> function;
    // cppcheck-suppress unusedStructMember
    const bool autosubscribe;
    std::string uri;  // the subscriber's; empty while it waits for its service
};

// --- Subscription ---

Subscription::Subscription() = default;

Subscription::Subscription(std::shared_ptr<Route> route) : _route(std::move(route)) {}

Subscription::~Subscription() {
    unsubscribe();
}

Subscription::Subscription(Subscription&& other) noexcept = default;

Subscription& Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        unsubscribe();
        _route = std::move(other._route);
    }
    return *this;
}

void Subscription::unsubscribe() {
    // Taken over: with the route its function may go, and with that, whoever holds this object.
    const std::shared_ptr<Route> route = std::exchange(_route, nullptr);
    if (route && route->listener) route->listener->forget(*route);
}

Subscription::operator bool() const {
    return _route && _route->listener;
}

std::string Subscription::uri() const {
    return _route ? _route->uri : std::string();
}

// --- SubscribingListener ---

namespace {

/// The service that `uri` names; empty, after an Error line, when it names none.
std::string serviceIn(const std::string& uri) {
    std::string service;
    runGuarded("SubscribingListener::subscribe",
               [&] { service = Nubo::Command::UrlPath(Poco::URI(uri)).getService(); });
    if (service.empty()) ZOL_LOG_ERROR("SubscribingListener::subscribe: no service in URI " << uri);
    return service;
}

}  // namespace

SubscribingListener::SubscribingListener(IClientLibInterface* clientlib, uint16_t uniqueId)
    : ServiceListener(clientlib, uniqueId), _client(clientlib) {}

SubscribingListener::~SubscribingListener() {
    SubscribingListener::shutdown();
    const auto ended = std::exchange(_waiting, {});
    for (const auto& route : ended) route->listener = nullptr;
    // A function that holds its own subscription would keep both for ever.
    for (const auto& route : ended) std::exchange(route->function, nullptr);
}

void SubscribingListener::onAvailability(std::function<void(bool)> function) {
    _onAvailability = std::move(function);
}

Subscription SubscribingListener::subscribe(const std::string& uri,
                                            std::function<void(const Notification&)> function,
                                            Autosubscribe autosubscribe) {
    const std::string query = ClientLib::createQuery(uri, "", 0, "");
    const std::string service = serviceIn(query);
    if (service.empty()) return Subscription();
    std::shared_ptr<Route> route(new Route{this, query, service, std::move(function),
                                           autosubscribe == Autosubscribe::Yes, std::string()});
    _waiting.push_back(route);
    if (_isStarted) subscribeIfAvailable(route);
    return Subscription(route);
}

void SubscribingListener::startup() {
    _isStarted = true;
    ServiceListener::startup();
    subscribeWaiting();
}

void SubscribingListener::shutdown() {
    _isStarted = false;
    ServiceListener::shutdown();
    for (const auto& [uri, route] : _routes) {
        route->uri.clear();
        _waiting.push_back(route);
    }
    _routes.clear();
}

void SubscribingListener::subscribeWaiting() {
    if (!_isStarted) return;  // shut down inside the function for availability
    const auto waiting = _waiting;
    for (const auto& route : waiting) subscribeIfAvailable(route);
}

void SubscribingListener::subscribeIfAvailable(const std::shared_ptr<Route>& route) {
    const auto handler = _client ? _client->getServiceHandler(route->service) : nullptr;
    if (!handler || !handler->isAvailable()) return;
    route->uri = addSubscription(route->query, "", 0, "", route->autosubscribe);
    if (route->uri.empty()) return;
    _routes.emplace(route->uri, route);
    _waiting.erase(std::find(_waiting.begin(), _waiting.end(), route));
}

void SubscribingListener::forget(Route& route) {
    route.listener = nullptr;
    removeSubscription(route.uri);  // empty: nothing
    _routes.erase(route.uri);
    const auto isRoute = [&](const std::shared_ptr<Route>& waiting) { return waiting.get() == &route; };
    _waiting.erase(std::remove_if(_waiting.begin(), _waiting.end(), isRoute), _waiting.end());
}

void SubscribingListener::HandleMicroServicesAvailable(bool available) {
    if (available) subscribeWaiting();
    const auto function = _onAvailability;  // which may replace itself
    if (!function) return;
    runGuarded("SubscribingListener::HandleMicroServicesAvailable", [&] { function(available); });
}

void SubscribingListener::HandleServiceHandlerNotification(const Notification& data) {
    const auto found = _routes.find(data.event);
    if (found == _routes.end()) return;                  // posted before it was ended
    const std::shared_ptr<Route> route = found->second;  // which may end itself
    runGuarded("SubscribingListener::HandleServiceHandlerNotification", [&] { route->function(data); });
}

}  // namespace Nubo::Client
