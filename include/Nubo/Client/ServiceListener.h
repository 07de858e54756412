#ifndef NUBO_CLIENT_SERVICELISTENER_H
#define NUBO_CLIENT_SERVICELISTENER_H

#include <Nubo/Client/MultiThreadingObject.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Export.h>
#include <Poco/Mutex.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Nubo::Client {

class IClientLibInterface;

/// Bundles the services and subscriptions that one feature of the application needs. The application derives
/// from it, names the services (mandatory or optional), starts it, and is told when the set as a whole
/// becomes available or unavailable, and of the notifications of its own subscriptions.
///
/// Order of use, on the caller's thread: construct, addServiceToMonitor() for each service, startup(),
/// addSubscription() once available, shutdown(), destroy. It may be started again after shutdown(), which has
/// removed its subscriptions. It is shut down before the ClientLib. Nothing throws to the caller.
///
/// Availability is remembered for the first sixteen services by name: those behind them count when deciding
/// whether all mandatory ones are available, but their changes alone report nothing.
class ZOL_EXPORT ServiceListener : public MultiThreadingObject {
public:
    using subscriptions_t = std::vector<std::string>;  ///< what addSubscription() returned

    /// What HandleMicroServicesAvailable() was last called for.
    enum NotificationStates : uint32_t {
        Unknown = 0,     ///< nothing reported yet
        Available = 1,   ///< all mandatory services became available
        Unavailable = 2  ///< a mandatory service became unavailable
    };

    /// @param clientlib not owned, outlives the listener; null: the listener does nothing
    /// @param uniqueId tells the listeners of the process apart: notifications are routed by it (a
    ///        UserStory's id, for example)
    ServiceListener(IClientLibInterface* clientlib, uint16_t uniqueId);
    /// Does not shut down: the owner does that first. If not, its services would call into what is gone,
    /// which an Error line says. Not from inside a callback of this listener.
    ~ServiceListener() override;

    /// Hooks the listener on its services and reports what is available already, from within this call; also
    /// when it is started again and nothing has changed meanwhile. Its earlier subscriptions are gone then:
    /// they are placed anew. Likewise when ClientLib::addService() has replaced a handler: the listener is
    /// shut down and started again, since it hears the replaced one only, which is silent.
    /// @pre each monitored service has a handler. If one has none, an Error line: the listener is not started
    /// and hears none of the others either. Without services it is started, with an Error line.
    void startup() override;
    /// Unhooks the listener and removes its subscriptions. Allowed inside its own callbacks, also in the one
    /// that startup() makes.
    void shutdown() override;

    /// The set became available (also: changed while all mandatory services are available, for example when
    /// an optional one came or went) or unavailable. Override it; empty by default. Runs on: the caller's
    /// thread, within startup() or a posted message. Called: as the class says. Holding: no lock. Must not:
    /// shut its ServiceHandler or the ClientLib down (they wait for this call for ever, after an Error line),
    /// destroy one of them or this listener; run further messages of the sink. May: subscribe, unsubscribe,
    /// add services, shut this listener down, throw (an Error line).
    virtual void HandleMicroServicesAvailable(bool available);

    /// A notification of one of this listener's subscriptions. Override it; empty by default.
    /// Runs on, Holding, Must not, May: as HandleMicroServicesAvailable(). Called: once per notification and
    /// subscription; `data` is valid during the call, its container is shared and read-only.
    virtual void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data);

    uint16_t getUniqueId() const;                ///< as constructed
    std::string getUniqueIdAsHexString() const;  ///< "0x" and lower-case hexadecimal without leading zeros
    NotificationStates getLastNotificationState() const;  ///< what was last reported

    /// Adds a service whose handler is already registered with the ClientLib (else a Warning line); the first
    /// flag given for a name stays. After startup(), or in the callback that it makes, (a Warning line) it
    /// counts at once where availability is judged, but its own changes and notifications are heard only
    /// after the next startup().
    void addServiceToMonitor(const std::string& serviceName, bool optional);

    /// Subscribes to a resource of a monitored, available service.
    /// @param uri, fields, expansionLevel, filter as in ClientLib::createQuery()
    /// @param autosubscribe as in ServiceHandler::addSubscription()
    /// @return the subscription's URI; empty, mostly after an Error line, when nothing was subscribed
    /// The subscription survives outages of the service; it is undone by removeSubscription() or shutdown().
    std::string addSubscription(const std::string& uri, const std::string& fields, uint8_t expansionLevel,
                                const std::string& filter, bool autosubscribe);

    /// Undoes a subscription, named by what addSubscription() returned. No log line of its own.
    void removeSubscription(const std::string& uri);

    /// Entries for an owner that forwards from another thread: log (availability) and call the callback.
    void HandleMicroServicesAvailableSync(bool available);
    /// @copydoc HandleMicroServicesAvailableSync()
    void HandleServiceHandlerNotificationSync(const ServiceHandler::ServiceHandlerNotificationData_t& data);

    /// Delegates on the handlers' events; not to be called by applications.
    void HandleMicroServiceRegistrationChangedInternal(
        const ServiceHandler::ServiceRegistrationEventData_t& data);
    /// @copydoc HandleMicroServiceRegistrationChangedInternal()
    void HandleServiceHandlerNotificationInternal(
        const ServiceHandler::ServiceHandlerNotificationData_t& data);

private:
    /// What is reported: changes only, or also what is available as it was before.
    enum class Report { Changes, WhatIsThere };
    /// What one walk over the monitored services found.
    struct Evaluation_t {
        uint32_t mask;
        bool allAvailable;
        Report report;
    };

    ServiceHandler::Ptr requireHandler(const std::string& serviceName) const;
    void hookHandler(ServiceHandler& handler);
    void unhookHandler(ServiceHandler& handler);
    ServiceHandler::Ptr hookAllHandlers();
    void unhookAllHandlers();
    std::vector<std::string> monitoredServices();
    void removeAllSubscriptions();
    void insertService(const std::string& serviceName, bool optional);
    void giveUpStartup(const std::string& reason);
    void evaluateAndReport(const ServiceHandler::ServiceRegistrationEventData_t& data, Report report);
    Evaluation_t evaluateServices(Report report);
    bool isNews(const Evaluation_t& evaluation) const;
    void reportAvailable(const Evaluation_t& evaluation);
    void reportUnavailable(Evaluation_t evaluation, const std::string& serviceName);
    bool clearAvailability(const std::string& serviceName, uint32_t& mask);
    std::string subscribe(const std::string& query, bool autosubscribe);
    void forgetSubscription(const std::string& query);

    IClientLibInterface* const _clientlib;
    std::map<std::string, bool> _servicesToListen;  // guarded by _mutexServices
    subscriptions_t _subscriptions;                 // guarded by _mutexServices
    Poco::Mutex _mutexServices;                     // never held while a callback of the application runs
    std::atomic<NotificationStates> _lastNotificationState;
    std::atomic<uint32_t> _lastNotificationStateEnum;
    std::atomic<bool> _started;
    std::atomic<bool> _disposing;
    const uint16_t _uniqueId;
    const std::string _uniqueIdAsHexString;
};

}  // namespace Nubo::Client

#endif
