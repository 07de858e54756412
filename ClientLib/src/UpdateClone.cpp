#include "UpdateClone.h"

#include <Nubo/Util/JSONTools.h>

#include <algorithm>
#include <cmath>
#include <string>

namespace Nubo::Client {

using Nubo::Util::JSONTools;
using Poco::Dynamic::Var;
using Poco::JSON::Object;

namespace {

template <typename T>
bool is(const Var& value) {
    return value.type() == typeid(T);
}

Object::Ptr objectIn(const Var& value) {
    return is<Object::Ptr>(value) ? value.extract<Object::Ptr>() : Object::Ptr();
}

// Whether a copy of the value is the value itself.
bool isPlain(const Var& value) {
    if (value.isEmpty() || is<Poco::Int64>(value) || is<bool>(value)) return true;
    return is<std::string>(value) && value.extract<std::string>().find('\0') == std::string::npos;
}

template <typename T>
bool areEqual(const Var& one, const Var& other) {
    return is<T>(one) && is<T>(other) && one.extract<T>() == other.extract<T>();
}

bool areEqual(const Var& one, const Var& other) {
    if (one.isEmpty() || other.isEmpty()) return one.isEmpty() && other.isEmpty();
    return areEqual<std::string>(one, other) || areEqual<Poco::Int64>(one, other) ||
           areEqual<bool>(one, other) || areEqual<double>(one, other);
}

// A number may change its type on its way through a text: 1.0 comes back as an integer.
Var cloneOf(const Var& number) {
    Object::Ptr wrapped(new Object);
    wrapped->set("number", number);
    return JSONTools::cloneJsonObject(wrapped)->begin()->second;
}

// Whether new values are all that `clone` needs: the same members, and in objects the same again. What this
// lets through, update() copies without throwing.
bool fits(const Object& clone, const Object& source) {
    const auto memberFits = [](const auto& member, const auto& sourceMember) {
        if (member.first != sourceMember.first) return false;
        const Var& value = sourceMember.second;
        if (isPlain(value)) return true;
        if (is<double>(value)) return std::isfinite(value.extract<double>());
        const Object::Ptr object = objectIn(member.second);
        const Object::Ptr sourceObject = objectIn(value);
        return object && sourceObject && fits(*object, *sourceObject);
    };
    return std::equal(clone.begin(), clone.end(), source.begin(), source.end(), memberFits);
}

void update(Object& clone, const Object& source) {
    auto member = clone.begin();
    for (const auto& [key, value] : source) {
        if (is<Object::Ptr>(value))
            update(*objectIn(member->second), *objectIn(value));
        else if (!areEqual(member->second, value))
            clone.set(key, isPlain(value) ? value : cloneOf(value));
        ++member;
    }
}

}  // namespace

void updateClone(Object::Ptr& clone, const Object::Ptr& object) {
    if (clone && object && clone.referenceCount() == 1 && fits(*clone, *object))
        update(*clone, *object);
    else
        clone = JSONTools::cloneJsonObject(object);
}

}  // namespace Nubo::Client
