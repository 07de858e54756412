#ifndef CLIENTLIB_SRC_NOTIFICATIONTEXT_H
#define CLIENTLIB_SRC_NOTIFICATIONTEXT_H

#include <Nubo/Command/WebSocketRequestObject.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>

#include <string>

namespace Nubo::Client {

/// A member that must be there and must be a string. @throws Poco::InvalidAccessException
inline std::string stringMember(const Poco::JSON::Object& object, const std::string& key) {
    const Poco::Dynamic::Var value = object.get(key);
    if (!value.isString()) throw Poco::InvalidAccessException("no text under", key);
    return value.extract<std::string>();
}

/// The two members that every message has.
inline std::string eventOf(const Poco::JSON::Object& message) {
    return stringMember(message, Nubo::Command::WebSocketRequestObject::FIELD_EVENT);
}
inline std::string typeOf(const Poco::JSON::Object& message) {
    return stringMember(message, Nubo::Command::WebSocketRequestObject::FIELD_TYPE);
}

}  // namespace Nubo::Client

#endif
