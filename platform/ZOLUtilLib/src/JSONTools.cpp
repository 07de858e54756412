#include <Nubo/Util/JSONTools.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>

#include <cmath>
#include <limits>
#include <sstream>

namespace Nubo::Util {

using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Poco::JSON::Object;

namespace {

// A copy that walks the values costs a sixth of writing and parsing them again (2 against 12 microseconds for
// 300 bytes), but is the same only for what the parser makes. Each function returns false when it meets
// anything else, or what the text would change; the whole object is then copied by its text.

constexpr int MAX_DEPTH = 100;  // below the parser's own limit, which the text may meet

bool copyObject(const Object& source, Object& copy, int depth);
bool copyArray(const Array& source, Array& copy, int depth);

// A zero byte is cut or kept by POCO depending on where it stands.
bool isPlainText(const std::string& text) {
    return text.find('\0') == std::string::npos;
}

// Below that, POCO writes 1.0 as 1, which comes back as an integer.
constexpr double WRITTEN_WITH_EXPONENT = 1e21;

bool staysDouble(double number) {
    return std::isfinite(number) &&
           (std::trunc(number) != number || std::fabs(number) >= WRITTEN_WITH_EXPONENT);
}

// Whether the value is what its own text would be parsed to.
bool isOwnCopy(const Var& value) {
    if (value.isEmpty()) return true;
    const std::type_info& type = value.type();
    if (type == typeid(std::string)) return isPlainText(value.extract<std::string>());
    if (type == typeid(Poco::Int64) || type == typeid(bool)) return true;
    if (type == typeid(double)) return staysDouble(value.extract<double>());
    constexpr auto maxInt64 = static_cast<Poco::UInt64>(std::numeric_limits<Poco::Int64>::max());
    return type == typeid(Poco::UInt64) && value.extract<Poco::UInt64>() > maxInt64;
}

Var throughText(const Var& number) {
    const Var list = Poco::JSON::Parser().parse("[" + number.convert<std::string>() + "]");
    return list.extract<Array::Ptr>()->get(0);
}

bool copyOther(const Var& source, Var& copy, int depth) {
    const std::type_info& type = source.type();
    if (type == typeid(Object::Ptr)) {
        Object::Ptr object(new Object);
        copy = object;
        return !source.extract<Object::Ptr>().isNull() &&
               copyObject(*source.extract<Object::Ptr>(), *object, depth + 1);
    }
    if (type == typeid(Array::Ptr)) {
        Array::Ptr array(new Array);
        copy = array;
        return !source.extract<Array::Ptr>().isNull() &&
               copyArray(*source.extract<Array::Ptr>(), *array, depth + 1);
    }
    if (type != typeid(double)) return false;
    copy = throughText(source);
    return true;
}

bool copyObject(const Object& source, Object& copy, int depth) {
    if (depth > MAX_DEPTH) return false;
    for (const auto& member : source) {
        if (member.first.empty() || !isPlainText(member.first)) return false;
        if (isOwnCopy(member.second)) {
            copy.set(member.first, member.second);
            continue;
        }
        Var value;
        if (!copyOther(member.second, value, depth)) return false;
        copy.set(member.first, value);
    }
    return true;
}

bool copyArray(const Array& source, Array& copy, int depth) {
    if (depth > MAX_DEPTH) return false;
    for (const auto& element : source) {
        Var value;
        if (isOwnCopy(element))
            value = element;
        else if (!copyOther(element, value, depth))
            return false;
        copy.add(value);
    }
    return true;
}

Object::Ptr copyByText(const Object& object) {
    std::ostringstream text;
    object.stringify(text);
    return Poco::JSON::Parser().parse(text.str()).extract<Object::Ptr>();
}

}  // namespace

Object::Ptr JSONTools::cloneJsonObject(Object::Ptr object) {
    if (object.isNull()) return object;
    Object::Ptr copy(new Object);
    return copyObject(*object, *copy, 0) ? copy : copyByText(*object);
}

}  // namespace Nubo::Util
