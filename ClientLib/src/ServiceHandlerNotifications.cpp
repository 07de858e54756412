// What comes in on the handler's connections: parsed on the worker's thread, delivered on the caller's.

#include <Logging/LineLimit.h>
#include <Logging/LogLine.h>
#include <Logging/Shortened.h>
#include <Nubo/Client/DataMessages/WebSocketDataAvailableMessage.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Command/StatusObject.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Data/ServiceBase.h>
#include <Nubo/Data/XObjectBase.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Util/JSONTools.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/URI.h>

#include <algorithm>
#include <utility>

#include "EventFragment.h"
#include "NotificationText.h"
#include "NotifyEach.h"
#include "ParsedPayload.h"
#include "SubscriptionBook.h"
#include "UpdateClone.h"

namespace Nubo::Client {

using Nubo::Command::WebSocketRequestObject;
using Nubo::Command::WebSocketResponseObject;
using Nubo::Data::XObjectBase;
using Nubo::Net::WebsocketDataEventPayload;
using Poco::JSON::Object;

namespace {

constexpr int HTTP_GONE = 410;
constexpr const char* REGISTRY_PATH = "/";
constexpr const char* DATA_AVAILABLE_HANDLER_SYNC =
    "virtual void Nubo::Client::ServiceHandler::WebSocketDataAvailableHandlerSync(const Ptr&)";

/// The first record of that name, null when there is none. Whatever is no record is skipped.
Object::Ptr findRecord(const Poco::JSON::Array& records, const std::string& name) {
    for (unsigned int i = 0; i < records.size(); ++i) {
        Object::Ptr record = records.getObject(i);
        if (!record) continue;
        const Poco::Dynamic::Var value = record->get(XObjectBase::KEY_NAME);
        if (value.isString() && value.extract<std::string>() == name) return record;
    }
    return nullptr;
}

/// The host of a record's URI. Services that run beside the registry publish one without a host.
std::string hostOf(const Object& record) {
    const std::string host = Poco::URI(stringMember(record, XObjectBase::KEY_URI)).getHost();
    return host.empty() ? ServiceRegistryConnection::ADDRESS : host;
}

}  // namespace

bool ServiceHandler::ServiceHandlerNotificationData_t::hasElementGone() const {
    using Nubo::Command::StatusObject;
    if (type != WebSocketResponseObject::TYPE_ERROR || !container->has(StatusObject::FIELD_ERROR_CODE))
        return false;
    return container->getValue<int>(StatusObject::FIELD_ERROR_CODE) == HTTP_GONE;
}

// --- worker's thread ---

void ServiceHandler::WebSocketDataAvailableHandler(const WebsocketDataEventPayload& payload) {
    receive(payload, Origin::Elsewhere);
}

void ServiceHandler::OwnConnectionDataHandler(const WebsocketDataEventPayload& payload) {
    receive(payload, Origin::OwnConnection);
}

void ServiceHandler::receive(const WebsocketDataEventPayload& payload, Origin origin) {
    ParsedPayload parsed(payload);
    const bool incomplete = payload.data.empty() && !payload.Reason.empty();  // a remark of the transport
    if (!incomplete && !concerns(parsed.texts())) return;
    MultiThreadingObjectLockGuard guard(this);
    if (!guard.tryEnter()) return;
    const bool complains = parsed.claimComplaints();
    if (incomplete && complains)
        ZOL_LOG_WARNING_LIMITED(*_badDataLines, "WebsocketDataObjectSplitter: " << payload.Reason);
    for (const ParsedText_t& text : parsed.texts()) {
        if (text.object) {
            postNotification(text, origin, payload.receipt);
        } else if (complains) {
            ZOL_LOG_ERROR_LIMITED(*_badDataLines, "OnWebSocketNotification: error parsing JSON: "
                                                      << Logging::shortened(text.error));
        }
    }
}

// Nearly all messages of the registry name another handler's service. With hundreds of handlers it pays not
// to enter for them (0.05 instead of 0.25 microseconds a handler), unless they are to be logged.
bool ServiceHandler::concerns(const std::vector<ParsedText_t>& texts) const {
    const auto isForAnother = [this](const ParsedText_t& text) { return text.isForAnother(_serviceName); };
    return Logging::Log::IsLogLevelActive(Poco::Message::PRIO_INFORMATION) ||
           !std::all_of(texts.begin(), texts.end(), isForAnother);
}

void ServiceHandler::postNotification(const ParsedText_t& parsed, Origin origin,
                                      const std::shared_ptr<const void>& receipt) {
    ZOL_LOG_INFO("OnWebSocketNotification: " << Logging::shortened(parsed.text));
    // Every handler hears the registry's connection: what names another service is that one's business.
    if (parsed.isForAnother(_serviceName)) return;
    // A service does not speak for the registry. (The registry's handler has an empty name.)
    if (parsed.isRegistryAnswer && origin == Origin::OwnConnection && !_serviceName.empty()) return;
    if (!post(new WebSocketDataAvailableMessage(this, parsed.object, receipt))) {
        ZOL_LOG_WARNING("ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!");
    }
}

// --- caller's thread ---

void ServiceHandler::WebSocketDataAvailableHandlerSync(const Object::Ptr& data) {
    MultiThreadingObjectLockGuard guard(this);
    if (!guard.tryEnter()) return;
    try {
        const std::string event = eventOf(*data);
        const std::string type = typeOf(*data);
        const UriText uri(event);
        const std::string service = EventFragment(uri).service;
        // The registry's handler has an empty name: an event without a service part is nobody's all the same.
        if (type == WebSocketResponseObject::TYPE_SUBSCRIBE || service.empty() || service != _serviceName)
            return;
        if (uri.path() == REGISTRY_PATH) {
            if (type == WebSocketResponseObject::TYPE_DATA) handleServiceUpdates(*data);
        } else {
            handleNotification(data, event, type);
        }
    } catch (const std::bad_alloc&) {
        startOver();
        askRegistryAgain();
    } catch (const Poco::Exception& e) {
        // Of what a peer has sent: what subscribers throw is caught where they are called.
        ZOL_LOG_ERROR_LIMITED(*_badDataLines,
                              "ServiceHandler::WebSocketDataAvailableHandlerSync - exception: "
                                  << Logging::shortened(e.displayText()));
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketDataAvailableHandlerSync - unknown exception: ");
    }
}

// Its answer may be what was lost.
void ServiceHandler::askRegistryAgain() {
    try {
        start();
    } catch (...) {
        // The registry's next connection does it.
    }
}

void ServiceHandler::handleServiceUpdates(const Object& notification) {
    const auto records = notification.getArray(WebSocketRequestObject::TYPE_DATA);
    if (!records) return;
    std::string address;
    Poco::UInt16 port = 0;
    if (const Object::Ptr record = findRecord(*records, _serviceName)) {
        address = hostOf(*record);
        // Out of range: an exception.
        port = record->getValue<Poco::UInt16>(Nubo::Data::ServiceBase::KEY_PORT);
    }
    const ServiceAddress_t known = serviceAddress();
    // The registry's first answer brings back what nobody else does, without auto-reconnect for example.
    const bool isFirst = std::exchange(_firstAnswerDue, false);
    const bool mustConnect = isFirst && !address.empty() && !_isSocketConnected;
    if (address != known.host || port != known.port || mustConnect) setNewServiceAddress(address, port);
}

void ServiceHandler::handleNotification(const Object::Ptr& data, const std::string& event,
                                        const std::string& type) {
    // The book knows normalised URIs, which a service need not echo; one that it knows is normalised.
    const auto* resource = _book->findByEvent(event);
    const std::string subscrUri = resource != nullptr ? event : normalizeUrl(event);
    if (resource == nullptr) resource = _book->findByEvent(subscrUri);
    if (resource == nullptr) {
        handleOtherEvent(data, event, subscrUri.substr(0, subscrUri.find('#')));
        return;
    }
    updateClone(resource->value->second.Value, data);
    ServiceHandlerNotificationData_t notification{this, event, data, "", type};
    SubscriptionBook::Round round(*_book, *resource);
    while (const std::string* virtualUri = round.next()) notifySubscriber(notification, *virtualUri);
}

// Not one that was subscribed at the service: posted by this handler for a new subscriber, of a subscriber
// who has left meanwhile, or one that nobody ever subscribed to.
void ServiceHandler::handleOtherEvent(const Object::Ptr& data, const std::string& event,
                                      const std::string& realUri) {
    Object::Ptr newest = data;
    const auto* own = _book->findBySubscriber(event);
    if (own != nullptr && own->value->second.Value) {
        newest = Nubo::Util::JSONTools::cloneJsonObject(own->value->second.Value);  // or newer, by now
        newest->set(WebSocketRequestObject::FIELD_EVENT, event);
    } else if (_book->wasRemoved(event)) {
        return;
    } else if (const auto* resource = _book->findByRealUri(realUri)) {
        updateClone(resource->value->second.Value, data);
    }
    ServiceHandlerNotificationData_t notification{this, event, newest, "", typeOf(*newest)};
    notifySubscriber(notification, event);
}

// What one subscriber throws must not keep the notification from the next.
void ServiceHandler::notifySubscriber(ServiceHandlerNotificationData_t& data, const std::string& virtualUri) {
    ZOL_LOG_INFO(DATA_AVAILABLE_HANDLER_SYNC << " notify subscriber " << Logging::shortened(virtualUri));
    try {
        data.additionalFragment = EventFragment(virtualUri).tag;
        data.event = virtualUri;
        RaiseSocketDataAvailable(data);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketDataAvailableHandlerSync - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketDataAvailableHandlerSync - unknown exception: ");
    }
}

void ServiceHandler::RaiseSocketDataAvailable(const ServiceHandlerNotificationData_t& data) {
    notifyEach(SocketDataAvailable, this, data);
}

}  // namespace Nubo::Client
