#ifndef CLIENTLIB_SRC_NOTIFICATIONTEXT_H
#define CLIENTLIB_SRC_NOTIFICATIONTEXT_H

#include <Nubo/Command/WebSocketRequestObject.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>

#include <string>

namespace Nubo::Client {

/// A member that must be there and must be a string; valid as long as the object is not changed.
/// A walk over the members: Object::get() would copy the value twice (0.3 microseconds a call).
/// @throws Poco::InvalidAccessException
inline const std::string& stringMember(const Poco::JSON::Object& object, const std::string& key) {
    for (const auto& member : object) {
        if (member.first == key && member.second.isString()) return member.second.extract<std::string>();
    }
    throw Poco::InvalidAccessException("no text under", key);
}

/// The two members that every message has.
inline const std::string& eventOf(const Poco::JSON::Object& message) {
    return stringMember(message, Nubo::Command::WebSocketRequestObject::FIELD_EVENT);
}
inline const std::string& typeOf(const Poco::JSON::Object& message) {
    return stringMember(message, Nubo::Command::WebSocketRequestObject::FIELD_TYPE);
}

}  // namespace Nubo::Client

#endif
