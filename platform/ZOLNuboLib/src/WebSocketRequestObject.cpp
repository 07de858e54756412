#include <Nubo/Command/WebSocketRequestObject.h>
#include <Poco/Exception.h>
#include <Poco/Types.h>

namespace Nubo::Command {
namespace {

/// `event` as a URI, empty when it is none.
Poco::URI parseEvent(const std::string& event) {
    try {
        return Poco::URI(event);
    } catch (const Poco::Exception&) {
        return Poco::URI();
    }
}

void setGiven(Poco::JSON::Object& data, const std::string& key, const Poco::Optional<long>& number) {
    if (number.isSpecified()) data.set(key, static_cast<Poco::Int64>(number.value()));
}

}  // namespace

WebSocketRequestObject::WebSocketRequestObject(const std::string& type, const std::string& event,
                                               const Poco::Optional<long>& interval,
                                               const Poco::Optional<long>& updateLimit,
                                               const std::string* authorization, bool autosubscribe)
    : RequestBase(parseEvent(event)),
      m_isValid(!getUrlPath().getUri().empty()),
      m_data(new Poco::JSON::Object),
      m_type(type),
      m_event(getUrlPath().getUri()),
      m_interval(interval),
      m_updateLimit(updateLimit),
      m_authorization(authorization != nullptr ? *authorization : std::string()),
      m_autosubscribe(autosubscribe) {
    m_data->set(FIELD_TYPE, type);
    m_data->set(FIELD_EVENT, event);
    setGiven(*m_data, FIELD_SUBSCRIPTION_INTERVAL, interval);
    setGiven(*m_data, FIELD_SUBSCRIPTION_UPDATE_LIMIT, updateLimit);
    if (authorization != nullptr) m_data->set(FIELD_AUTHORIZATION, *authorization);
    if (autosubscribe) m_data->set(FIELD_AUTOSUBSCRIBE, true);
}

}  // namespace Nubo::Command
