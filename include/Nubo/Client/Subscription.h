#ifndef NUBO_CLIENT_SUBSCRIPTION_H
#define NUBO_CLIENT_SUBSCRIPTION_H

#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Nubo::Client {

class IClientLibInterface;
class SubscribingListener;

/// What the service says of a subscribed resource: `container` holds it, `type` says whether it is data or an
/// error; see hasElementGone().
using Notification = ServiceHandler::ServiceHandlerNotificationData_t;

/// A subscription, as long as this object lives: it ends the subscription when it goes. Made by
/// SubscribingListener::subscribe(), and there explained. Movable, not copyable.
///
/// Caller's thread. It may be ended or destroyed inside any callback, its own included, and after its
/// listener is shut down or gone; its callback is not called any more from then on. Nothing throws.
class ZOL_EXPORT Subscription {
public:
    Subscription();  ///< to none
    ~Subscription();
    Subscription(Subscription&& other) noexcept;             ///< `other` is left to none
    Subscription& operator=(Subscription&& other) noexcept;  ///< ends what it was to before

    /// Ends it: this object is one to none then. Repeated calls do nothing.
    void unsubscribe();

    /// Whether it is to a resource: subscribe() took it, neither it nor its listener has ended.
    explicit operator bool() const;

    /// The subscriber's URI, as ServiceListener::addSubscription() returns it and log lines name it; empty
    /// while the subscription waits for its service, and for one to none.
    std::string uri() const;

private:
    friend class SubscribingListener;
    struct Route;  // in the hands of the listener and of this object

    explicit Subscription(std::shared_ptr<Route> route);

    std::shared_ptr<Route> _route;
};

/// A service listener with a function for each subscription, and one for availability: nothing needs to be
/// derived, and nothing to be told apart.
///
///     SubscribingListener listener(&client, 1);
///     listener.addServiceToMonitor("Media", false);
///     listener.addServiceToMonitor("Climate", true);  // optional
///     listener.onAvailability([&](bool available) { show(available); });
///     const Subscription track = listener.subscribe("/Media/players/main", showTrack);
///     const Subscription left = listener.subscribe(
///         "/Climate/zones/left", [&](const Notification& zone) { showZone(0, zone); });
///     const Subscription right = listener.subscribe(
///         "/Climate/zones/right", [&](const Notification& zone) { showZone(1, zone); });
///     listener.startup();
///
/// A listener derived from ServiceListener tells its subscriptions apart by their URIs:
///
///     void HandleServiceHandlerNotification(const Notification& data) override {
///         if (data.event == _left) ...   // what addSubscription("/Climate/zones/left", ...) returned
///         if (data.event == _right) ...
///     }
///
/// Everything on the caller's thread. The rules for the functions are those of ServiceListener's callbacks: a
/// function may subscribe, unsubscribe, shut the listener down and throw (an Error line); it must not destroy
/// the listener or a handler, nor run further messages.
class ZOL_EXPORT SubscribingListener : public ServiceListener {
public:
    /// What the service is told of it, as in ServiceHandler::addSubscription().
    enum class Autosubscribe { No, Yes };

    /// As ServiceListener's: `clientlib` outlives it, `uniqueId` is not another listener's.
    SubscribingListener(IClientLibInterface* clientlib, uint16_t uniqueId);
    /// Shuts down. Its subscriptions, which may live on, are to none then. Not inside one of its functions.
    ~SubscribingListener() override;

    /// Has `function` told what HandleMicroServicesAvailable() is told: that all mandatory services are
    /// available (again, or still, after an optional one has come or gone), or one no longer is. Replaces the
    /// one before; before startup(), or the first news is missed.
    void onAvailability(std::function<void(bool available)> function);

    /// Subscribes to a resource of a monitored service, at any time: at once when the listener is started and
    /// the service available; else as soon as that service and all mandatory ones are. From then on it is
    /// kept through every outage, until it is ended. `function` is told the present data first, then each
    /// change.
    ///
    /// shutdown() ends all subscriptions at their services; after the next startup() they are made again.
    ///
    /// @param uri as in ServiceListener::addSubscription(); with a query, where one is wanted, see Query.h
    /// @param function kept until the subscription has ended and, if it runs just then, has returned
    /// @return to be kept: the subscription ends with it. One to none, after an Error line, when `uri`
    ///         names no service. One that is not monitored costs an Error line each time that it is tried.
    [[nodiscard]] Subscription subscribe(const std::string& uri,
                                         std::function<void(const Notification&)> function,
                                         Autosubscribe autosubscribe = Autosubscribe::No);

    void startup() override;   ///< as ServiceListener's; subscribes what waits
    void shutdown() override;  ///< as ServiceListener's

    void HandleMicroServicesAvailable(bool available) final;                ///< not to be called
    void HandleServiceHandlerNotification(const Notification& data) final;  ///< not to be called

private:
    friend class Subscription;
    using Route = Subscription::Route;

    void subscribeWaiting();
    void subscribeIfAvailable(const std::shared_ptr<Route>& route);
    void forget(Route& route);

    IClientLibInterface* const _client;
    bool _isStarted = false;
    std::function<void(bool)> _onAvailability;
    std::vector<std::shared_ptr<Route>> _waiting;           // for their services
    std::map<std::string, std::shared_ptr<Route>> _routes;  // by the subscriber's URI
};

}  // namespace Nubo::Client

#endif
