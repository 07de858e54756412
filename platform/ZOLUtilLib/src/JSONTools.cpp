#include <Nubo/Util/JSONTools.h>
#include <Poco/JSON/Parser.h>

#include <sstream>

namespace Nubo::Util {

Poco::JSON::Object::Ptr JSONTools::cloneJsonObject(Poco::JSON::Object::Ptr object) {
    if (object.isNull()) return object;
    std::ostringstream text;
    object->stringify(text);
    return Poco::JSON::Parser().parse(text.str()).extract<Poco::JSON::Object::Ptr>();
}

}  // namespace Nubo::Util
