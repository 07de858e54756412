// The handler's subscriptions: one at the service per resource, any number of subscribers. Caller's thread.

#include <Logging/LogLine.h>
#include <Nubo/Client/DataMessages/WebSocketDataAvailableMessage.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Command/RequestBase.h>
#include <Nubo/Command/UrlPath.h>
#include <Nubo/Util/JSONTools.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <algorithm>

#include "EventFragment.h"
#include "SubscriptionBook.h"

namespace Nubo::Client {

using Nubo::Command::RequestBase;
using Nubo::Command::UrlPath;
using Nubo::Command::WebSocketRequestObject;
using Lock = Poco::Mutex::ScopedLock;

ServiceHandler::SubscCounterMapType ServiceHandler::_subscrCounter;
Poco::Mutex ServiceHandler::_mutexSubscriptioncounter;
uint16_t ServiceHandler::_subscriptioncounter = 0;

namespace {

constexpr unsigned int MAX_EXPANSION_LEVEL = 3;
constexpr long SUBSCRIPTION_INTERVAL_MS = 0;
constexpr long SUBSCRIPTION_UPDATE_LIMIT = 100;
constexpr const char* SEND_REQUEST =
    "void Nubo::Client::ServiceHandler::operator<<(const Nubo::Command::WebSocketRequestObject&)";

std::string encoded(const std::string& text, const char* reserved) {
    std::string result;
    Poco::URI::encode(text, reserved, result);
    return result;
}

/// As POCO writes a path, so that the result is the same however often it is parsed and written again.
/// @throws Poco::SyntaxException when that cannot be: what stands before a ':' would be read as a scheme
std::string normalizedPath(const Poco::URI& uri) {
    const std::string& decodedPath = uri.getPath();
    if (decodedPath.empty()) return decodedPath;
    const bool colonFirst = decodedPath.find(':') < decodedPath.find('/');
    if (colonFirst || (!uri.getScheme().empty() && decodedPath.front() != '/'))
        throw Poco::SyntaxException("no path of a resource", decodedPath);
    std::string path = encoded(decodedPath, "?#");
    path.erase(path.find_last_not_of('/') + 1);
    const bool isElement = !UrlPath(uri).getElement().empty();
    return isElement ? path : path + '/';
}

/// The query is decoded first: encoding it as it stands would encode each '%' once more. POCO would leave a
/// '#' alone, with which the fragment begins. What a service reads otherwise when it is plain, an encoded '&'
/// or '+', stays encoded. A loop, since a peer's event comes here, too.
/// @throws Poco::SyntaxException when it cannot be decoded
std::string normalizedQuery(const std::string& rawQuery) {
    constexpr const char* PLAIN = "&+";  // between parameters, for a space
    std::string query;
    for (std::string::size_type begin = 0; begin < rawQuery.size();) {
        const auto end = std::min(rawQuery.find_first_of(PLAIN, begin), rawQuery.size());
        std::string decoded;
        Poco::URI::decode(rawQuery.substr(begin, end - begin), decoded);
        query += encoded(decoded, "#&+");
        query += rawQuery.substr(end, 1);
        begin = end + 1;
    }
    return query;
}

std::string withoutFragment(const std::string& uri) {
    return uri.substr(0, uri.find('#'));
}

WebSocketRequestObject subscriptionRequest(const std::string& type, const std::string& uri,
                                           bool autosubscribe) {
    return {type, uri, SUBSCRIPTION_INTERVAL_MS, SUBSCRIPTION_UPDATE_LIMIT, nullptr, autosubscribe};
}

}  // namespace

std::string ServiceHandler::normalizeUrl(const std::string& url) {
    const Poco::URI uri(url);
    std::string result = normalizedPath(uri);
    if (!uri.getRawQuery().empty()) result += "?" + normalizedQuery(uri.getRawQuery());
    if (!uri.getFragment().empty()) result += "#" + encoded(uri.getFragment(), "");
    return result;
}

void ServiceHandler::parseUriFragments(const std::string& uri, std::string& first, std::string& second) {
    const EventFragment fragment(uri);
    first = fragment.service;
    second = fragment.tag;
}

std::string ServiceHandler::addSubscription(const std::string& uri, const std::string& tag,
                                            bool autosubscribe) {
    std::string virtualUri;
    try {
        const std::string realUri = withoutFragment(normalizeUrl(uri));
        // The registry's handler has an empty name.
        if (UriText(realUri).path() == "/" && !_serviceName.empty())
            throw Poco::InvalidArgumentException("the path \"/\" is the registry's", uri);
        checkExpansionLevel(realUri);
        const std::string candidate =
            realUri + "#" + encoded(getUniqueId() + "-" + _serviceName + (tag.empty() ? "" : "-" + tag), "");
        const bool first = _book->findByRealUri(realUri) == nullptr;
        if (first) ZOL_LOG_INFO("ServiceHandler::addSubscription: subscriptionUri (virtual)=" << candidate);
        auto& resource = _book->add(realUri, candidate, autosubscribe);
        virtualUri = candidate;
        if (!first) serveCurrentData(resource.value->second, virtualUri);
        countSubscription(virtualUri, tag);
        if (first) resource.sentOn = subscribeAtService(resource.value->second);
    } catch (const std::bad_alloc&) {
        _book->remove(virtualUri);
        throw;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::addSubscription - exception: " << e.displayText());
    }
    return virtualUri;
}

// Says so, no more: the subscription proceeds in either case, deliberately.
void ServiceHandler::checkExpansionLevel(const std::string& realUri) {
    const Poco::URI uri(realUri);
    const unsigned int level = RequestBase(uri).getExpansionLevel();
    const bool isElement = UrlPath(uri).getCharacteristic() == UrlPath::SERVICE_RESOURCE_ELEMENT;
    if (level == 0 || (level <= MAX_EXPANSION_LEVEL && isElement)) return;
    ZOL_LOG_ERROR("ServiceHandler::addSubscription: expansion level not valid for URI " << realUri);
}

// A further subscriber does not wait for the next change: the last message is posted to it.
void ServiceHandler::serveCurrentData(const SubscriptionUriValue_t& resource, const std::string& virtualUri) {
    if (!resource.Value) return;
    ZOL_LOG_INFO("ServiceHandler::addSubscription and notify with current data: subscriptionUri (virtual)="
                 << virtualUri);
    auto data = Nubo::Util::JSONTools::cloneJsonObject(resource.Value);
    data->set(WebSocketRequestObject::FIELD_EVENT, virtualUri);
    if (!post(new WebSocketDataAvailableMessage(this, data))) {
        ZOL_LOG_WARNING("ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!");
    }
}

void ServiceHandler::countSubscription(const std::string& virtualUri, const std::string& tag) {
    Lock lock(_mutexSubscriptioncounter);
    ++_subscrCounter[tag];
    if (!Logging::Log::IsLogLevelActive(Poco::Message::PRIO_INFORMATION)) return;
    ++_subscriptioncounter;  // advances only while it is logged, deliberately
    ZOL_LOG_INFO("ServiceHandler::addSubscription: subscriptionUri=" << virtualUri
                                                                     << ", counter=" << _subscriptioncounter);
}

void ServiceHandler::removeSubscription(const std::string& virtualUri) {
    try {
        const std::string uri = normalizeUrl(virtualUri);
        const auto* resource = _book->findByRealUri(withoutFragment(uri));
        const SubscriptionUriValue_t value =
            resource != nullptr ? resource->value->second : SubscriptionUriValue_t{};
        ZOL_LOG_INFO("ServiceHandler::removeSubscription: uri=" << uri
                                                                << ", firstSubscrUri=" << value.subscrUri);
        if (_book->findBySubscriber(uri) == nullptr) {
            ZOL_LOG_ERROR(
                "ServiceHandler::removeSubscription - cannot remove subscription, not found: " << uri);
            return;
        }
        const std::size_t left = resource->subscribers->second.size() - 1;
        _book->remove(uri);
        ZOL_LOG_INFO("ServiceHandler::removeSubscription: subscriptionUri (virtual)="
                     << uri << ", subscribers left:" << left);
        if (left == 0) unsubscribeAtService(value);
        countRemoval(uri);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::removeSubscription - exception: " << e.displayText());
    }
}

void ServiceHandler::unsubscribeAtService(const SubscriptionUriValue_t& resource) {
    *this << subscriptionRequest(WebSocketRequestObject::TYPE_UNSUBSCRIBE, resource.subscrUri,
                                 resource.autosubscribe);
}

void ServiceHandler::countRemoval(const std::string& virtualUri) {
    std::string service;
    std::string tag;
    parseUriFragments(virtualUri, service, tag);
    Lock lock(_mutexSubscriptioncounter);
    unsigned int& left = _subscrCounter[tag];
    if (left > 0) --left;
    --_subscriptioncounter;  // wraps when the additions were not logged
    ZOL_LOG_INFO("ServiceHandler::removeSubscription: subscriptionUri="
                 << virtualUri << ", fragment=" << tag << ", fragmentCounter=" << left
                 << ", total counter=" << _subscriptioncounter);
}

void ServiceHandler::RefreshSubscription(std::string& currentUri, std::string& subscriptionId,
                                         const std::string& newUri) {
    if (newUri == currentUri) return;
    if (!subscriptionId.empty()) {
        removeSubscription(subscriptionId);
        subscriptionId.clear();
    }
    currentUri = newUri;
    if (!newUri.empty()) subscriptionId = addSubscription(newUri, "", false);
}

// --- requests to the service ---

void ServiceHandler::operator<<(const WebSocketRequestObject& request) {
    sendToService(request);
}

// @return the number of the connection on which the request was sent, 0 for none
uint64_t ServiceHandler::sendToService(const WebSocketRequestObject& request) {
    try {
        Connection_t current = connection();
        *current.worker << request;  // Poco::NullPointerException while there is no connection
        return current.generation;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(SEND_REQUEST << " - exception: " << e.displayText());
        return 0;
    }
}

// @return the number of the connection on which the subscription was sent, 0 for none: it is sent when there
// is one
uint64_t ServiceHandler::subscribeAtService(const SubscriptionUriValue_t& resource) {
    return sendToService(subscriptionRequest(WebSocketRequestObject::TYPE_SUBSCRIBE, resource.subscrUri,
                                             resource.autosubscribe));
}

// A new connection knows none of the subscriptions: each live one is sent on it, once. The service's answers
// then bring every subscriber up to date, without the application's help.
void ServiceHandler::resubscribeAll() {
    for (auto* resource : _book->notSentOn(connection().generation))
        resource->sentOn = subscribeAtService(resource->value->second);
}

}  // namespace Nubo::Client
