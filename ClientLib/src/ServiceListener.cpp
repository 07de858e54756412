#include <Logging/LogLine.h>
#include <Nubo/Client/IClientLibInterface.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Util/cValueTools.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/NumberFormatter.h>
#include <Poco/String.h>

#include <utility>

#include "NonNull.h"

namespace Nubo::Client {

using Lock = Poco::Mutex::ScopedLock;

namespace {

constexpr const char* AVAILABLE_SYNC =
    "void Nubo::Client::ServiceListener::HandleMicroServicesAvailableSync(bool)";
constexpr const char* ADD_SERVICE_TO_MONITOR =
    "void Nubo::Client::ServiceListener::addServiceToMonitor(const string&, bool)";
constexpr const char* REGISTRATION_CHANGED =
    "void Nubo::Client::ServiceListener::HandleMicroServiceRegistrationChangedInternal("
    "const Nubo::Client::ServiceHandler::ServiceRegistrationEventData_t&)";

std::string asHexString(uint16_t id) {
    return "0x" + Poco::toLower(Poco::NumberFormatter::formatHex(unsigned{id}));
}

void setBit(uint8_t position, bool value, uint32_t& mask) {
    Nubo::Util::cValueTools::setBit<unsigned int>(position, value, mask);
}

}  // namespace

ServiceListener::ServiceListener(IClientLibInterface* clientlib, uint16_t uniqueId)
    : _clientlib(clientlib),
      _lastNotificationState(Unknown),
      _lastNotificationStateEnum(0),
      _started(false),
      _disposing(false),
      _uniqueId(uniqueId),
      _uniqueIdAsHexString(asHexString(uniqueId)) {}

ServiceListener::~ServiceListener() {
    if (_started) {
        ZOL_LOG_ERROR("ServiceListener::~ServiceListener - ServiceListener "
                      << _uniqueIdAsHexString << " has not been shut down: its services still call it");
    }
    Lock lock(_mutexServices);
    _servicesToListen.clear();
}

uint16_t ServiceListener::getUniqueId() const {
    return _uniqueId;
}

std::string ServiceListener::getUniqueIdAsHexString() const {
    return _uniqueIdAsHexString;
}

ServiceListener::NotificationStates ServiceListener::getLastNotificationState() const {
    return _lastNotificationState;
}

void ServiceListener::HandleMicroServicesAvailable(bool) {}

void ServiceListener::HandleMicroServicesAvailableSync(bool available) {
    ZOL_LOG_WARNING(AVAILABLE_SYNC << available);
    HandleMicroServicesAvailable(available);
}

// --- the monitored set ---

void ServiceListener::addServiceToMonitor(const std::string& serviceName, bool optional) {
    if (!_clientlib) return;
    try {
        if (_clientlib->getServiceHandler(serviceName)) {
            insertService(serviceName, optional);
        } else {
            ZOL_LOG_WARNING(ADD_SERVICE_TO_MONITOR << ": service handler not found for service "
                                                   << serviceName);
        }
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(ADD_SERVICE_TO_MONITOR << " - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR(ADD_SERVICE_TO_MONITOR << " - unspecified exception");
    }
}

void ServiceListener::insertService(const std::string& serviceName, bool optional) {
    Lock lock(_mutexServices);
    if (Disposing()) return;
    const bool added = _servicesToListen.emplace(serviceName, optional).second;  // the first flag given stays
    if (added && _started) {
        ZOL_LOG_WARNING(ADD_SERVICE_TO_MONITOR
                        << " should not be called after a service listener has already been started. "
                           "This may result in inconsistent service data!");
    }
}

// --- lifecycle ---

void ServiceListener::startup() {
    try {
        _disposing = false;
        MultiThreadingObject::startup();
        auto last = hookAllHandlers();
        // Before the callback: it may shut the listener down, and is warned of services that it adds.
        const bool again = _started.exchange(true);
        if (last) {
            // Tells the application of the services that were available before it started.
            evaluateAndReport({last.get()}, again ? Report::Changes : Report::WhatIsThere);
        } else {
            ZOL_LOG_ERROR("ServiceListener::startup - ServiceListener "
                          << _uniqueIdAsHexString << " does not listen to any service handler");
        }
    } catch (const Poco::Exception& e) {
        giveUpStartup(e.displayText());
    } catch (...) {
        giveUpStartup("unspecified exception");
    }
}

// No handler may call a listener that counts as not started: its owner may destroy it.
void ServiceListener::giveUpStartup(const std::string& reason) {
    ZOL_LOG_ERROR("ServiceListener::startup - ServiceListener " << _uniqueIdAsHexString
                                                                << " - exception: " << reason);
    _started = true;  // until it is unhooked; a destructor that comes before says so
    try {
        unhookAllHandlers();
        _started = false;
    } catch (...) {
        // Its shutdown() tries once more.
    }
}

// @return the handler of the last service by name, null when none is monitored
ServiceHandler::Ptr ServiceListener::hookAllHandlers() {
    ServiceHandler::Ptr handler;
    for (const std::string& name : monitoredServices()) {
        handler = requireHandler(name);
        unhookHandler(*handler);  // started twice, or again after a start that failed half-way
        hookHandler(*handler);
    }
    return handler;
}

// A copy, in name order: removing a delegate waits for its running call, which takes _mutexServices.
std::vector<std::string> ServiceListener::monitoredServices() {
    Lock lock(_mutexServices);
    std::vector<std::string> names;
    for (const auto& service : _servicesToListen) names.push_back(service.first);
    return names;
}

ServiceHandler::Ptr ServiceListener::requireHandler(const std::string& serviceName) const {
    auto handler = nonNull(_clientlib).getServiceHandler(serviceName);
    nonNull(handler.get());
    return handler;
}

void ServiceListener::hookHandler(ServiceHandler& handler) {
    handler.SocketDataAvailable +=
        Poco::delegate(this, &ServiceListener::HandleServiceHandlerNotificationInternal);
    handler.MicroServiceRegistrationChanged +=
        Poco::delegate(this, &ServiceListener::HandleMicroServiceRegistrationChangedInternal);
}

void ServiceListener::unhookHandler(ServiceHandler& handler) {
    handler.SocketDataAvailable -=
        Poco::delegate(this, &ServiceListener::HandleServiceHandlerNotificationInternal);
    handler.MicroServiceRegistrationChanged -=
        Poco::delegate(this, &ServiceListener::HandleMicroServiceRegistrationChangedInternal);
}

void ServiceListener::shutdown() {
    _disposing = true;
    try {
        unhookAllHandlers();
        removeAllSubscriptions();
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceListener::shutdown - exception: " << e.displayText());
    } catch (...) {
        // The door is closed in any case.
    }
    MultiThreadingObject::shutdown();
    _started = false;
}

void ServiceListener::unhookAllHandlers() {
    for (const std::string& name : monitoredServices()) {
        if (auto handler = nonNull(_clientlib).getServiceHandler(name)) unhookHandler(*handler);
    }
}

// Taken out first: a list that shrinks from its front would be moved once for each.
void ServiceListener::removeAllSubscriptions() {
    Lock lock(_mutexServices);
    const subscriptions_t subscriptions = std::exchange(_subscriptions, {});
    for (const std::string& subscription : subscriptions) removeSubscription(subscription);
}

// --- availability ---

void ServiceListener::HandleMicroServiceRegistrationChangedInternal(
    const ServiceHandler::ServiceRegistrationEventData_t& data) {
    evaluateAndReport(data, Report::Changes);
}

void ServiceListener::evaluateAndReport(const ServiceHandler::ServiceRegistrationEventData_t& data,
                                        Report report) {
    if (!_clientlib) return;
    try {
        const Evaluation_t evaluation = evaluateServices(report);
        const ServiceHandler& handler = nonNull(data.handler);
        if (handler.isAvailable()) {
            reportAvailable(evaluation);
        } else {
            reportUnavailable(evaluation, handler.getServiceName());
        }
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceListener::HandleMicroServiceRegistrationChangedInternal - exception: "
                      << e.displayText());
    } catch (...) {
        // The application's callback threw something else: swallowed.
    }
}

ServiceListener::Evaluation_t ServiceListener::evaluateServices(Report report) {
    Evaluation_t evaluation{_lastNotificationStateEnum, true, report};
    uint8_t position = 0;
    Lock lock(_mutexServices);
    for (const auto& [name, optional] : _servicesToListen) {
        auto handler = requireHandler(name);
        const bool available = handler->isAvailable();
        if (!available && !optional) {
            evaluation.allAvailable = false;
            ZOL_LOG_DEBUG(REGISTRATION_CHANGED << ": " << _uniqueIdAsHexString << ": service not available "
                                               << handler->getServiceName());
        }
        setBit(position++, available, evaluation.mask);
    }
    return evaluation;
}

// A listener that is started again is told of what is available, also when that is as before.
bool ServiceListener::isNews(const Evaluation_t& evaluation) const {
    const bool somethingIsThere = evaluation.report == Report::WhatIsThere && evaluation.mask != 0;
    return somethingIsThere || evaluation.mask != _lastNotificationStateEnum;
}

void ServiceListener::reportAvailable(const Evaluation_t& evaluation) {
    // Nothing is stored while a mandatory service is missing: its own event will change the mask.
    if (!evaluation.allAvailable || !isNews(evaluation)) return;
    _lastNotificationState = Available;
    _lastNotificationStateEnum = evaluation.mask;
    ZOL_LOG_INFO("All micro services became available, fctID: " << _uniqueIdAsHexString);
    HandleMicroServicesAvailable(true);
}

void ServiceListener::reportUnavailable(Evaluation_t evaluation, const std::string& serviceName) {
    const bool optional = clearAvailability(serviceName, evaluation.mask);
    if (!isNews(evaluation)) return;
    _lastNotificationStateEnum = evaluation.mask;
    if (!optional) {
        if (_lastNotificationState == Unavailable) return;
        _lastNotificationState = Unavailable;
        ZOL_LOG_INFO("At least one micro service ("
                     << serviceName << ") became unavailable, fctId:" << _uniqueIdAsHexString);
        HandleMicroServicesAvailable(false);
    } else if (evaluation.allAvailable) {
        // "Available" again, with the state left alone: the mandatory set stands without an optional one.
        ZOL_LOG_INFO("Optional micro service " << serviceName
                                               << " became unavailable, fctId:" << _uniqueIdAsHexString);
        HandleMicroServicesAvailable(true);
    }
}

// @return whether the service is optional; one that is not monitored counts as mandatory
bool ServiceListener::clearAvailability(const std::string& serviceName, uint32_t& mask) {
    Lock lock(_mutexServices);
    uint8_t position = 0;
    for (const auto& [name, optional] : _servicesToListen) {
        if (name == serviceName) {
            setBit(position, false, mask);
            return optional;
        }
        ++position;
    }
    return false;
}

}  // namespace Nubo::Client
