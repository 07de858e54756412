// Subscriptions of a service listener, and the routing of their notifications. Caller's thread.

#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Command/UrlPath.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <algorithm>
#include <iterator>

namespace Nubo::Client {

using Lock = Poco::Mutex::ScopedLock;

namespace {

std::string serviceOf(const std::string& query) {
    return Nubo::Command::UrlPath(Poco::URI(query)).getService();
}

}  // namespace

std::string ServiceListener::addSubscription(const std::string& uri, const std::string& fields,
                                             uint8_t expansionLevel, const std::string& filter,
                                             bool autosubscribe) {
    if (uri.empty() || !_clientlib || Disposing() || _disposing) return "";
    try {
        return subscribe(ClientLib::createQuery(uri, fields, expansionLevel, filter), autosubscribe);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceListener::addSubscription: ServiceListener "
                      << _uniqueIdAsHexString << " - exception: " << e.displayText());
    } catch (...) {
        // Reported by the empty result.
    }
    return "";
}

std::string ServiceListener::subscribe(const std::string& query, bool autosubscribe) {
    const std::string service = serviceOf(query);
    auto handler = _clientlib->getServiceHandler(service);
    // Held while the handler subscribes, which calls out to the sink and to the connection's queue only.
    Lock lock(_mutexServices);
    if (_servicesToListen.count(service) == 0) {
        ZOL_LOG_ERROR(
            "ServiceListener::addSubscription: ServiceListener "
            << _uniqueIdAsHexString << " subscribed to URI " << query
            << " without having subscribed to proper service handler or service may have shut down!");
        return "";
    }
    if (!handler || !handler->isAvailable()) {
        ZOL_LOG_ERROR("ServiceListener::addSubscription: ServiceListener "
                      << _uniqueIdAsHexString << " cannot perform subscription to " << query
                      << ": no handler found with name " << service << " or handler not available");
        return "";
    }
    std::string subscription = handler->addSubscription(query, _uniqueIdAsHexString, autosubscribe);
    try {
        if (!subscription.empty()) _subscriptions.push_back(subscription);
    } catch (...) {
        handler->removeSubscription(subscription);
        throw;
    }
    return subscription;
}

void ServiceListener::removeSubscription(const std::string& uri) {
    if (uri.empty() || !_clientlib) return;
    try {
        const std::string query = ClientLib::createQuery(uri, "", 0, "");
        if (auto handler = _clientlib->getServiceHandler(serviceOf(query)))
            handler->removeSubscription(query);
        forgetSubscription(query);
    } catch (...) {
        // Reported to nobody, deliberately.
    }
}

void ServiceListener::forgetSubscription(const std::string& query) {
    Lock lock(_mutexServices);
    // From the back: those who remove many mostly begin with the last. No two are equal.
    const auto found = std::find(_subscriptions.rbegin(), _subscriptions.rend(), query);
    if (found != _subscriptions.rend()) _subscriptions.erase(std::prev(found.base()));
}

void ServiceListener::HandleServiceHandlerNotification(
    const ServiceHandler::ServiceHandlerNotificationData_t&) {}

void ServiceListener::HandleServiceHandlerNotificationSync(
    const ServiceHandler::ServiceHandlerNotificationData_t& data) {
    HandleServiceHandlerNotification(data);
}

void ServiceListener::HandleServiceHandlerNotificationInternal(
    const ServiceHandler::ServiceHandlerNotificationData_t& data) {
    if (data.additionalFragment != _uniqueIdAsHexString) return;
    try {
        HandleServiceHandlerNotification(data);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(
            "ServiceListener::HandleServiceHandlerNotificationInternal - exception: " << e.displayText());
    } catch (...) {
        // The application's callback threw something else: swallowed.
    }
}

}  // namespace Nubo::Client
