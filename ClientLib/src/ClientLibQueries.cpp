// Resource queries of the ClientLib. Reentrant; they block for one HTTP exchange.

#include <Logging/LogLine.h>
#include <Logging/Shortened.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Data/XObjectBase.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/NumberFormatter.h>

#include <algorithm>
#include <typeinfo>

#include "ParseJson.h"

namespace Nubo::Client {

using Nubo::Data::XObjectBase;
using Poco::JSON::Object;

namespace {

constexpr char RECORD_SEPARATOR = '\x1E';
constexpr const char* GET_RESOURCE_ELEMENT =
    "virtual Poco::JSON::Object::Ptr Nubo::Client::ClientLib::getResourceElement(const string&) const";
constexpr const char* FIND_ELEMENT_BY_NAME =
    "virtual Poco::JSON::Object::Ptr Nubo::Client::ClientLib::findElementByName(const string&, const "
    "string&) const";

void appendTerm(std::string& query, const std::string& term) {
    if (!query.empty()) query += '&';
    query += term;
}

/// The first entry of a list's data, null when there is none. @throws Poco::Exception when it has no URI
Object::Ptr firstElement(const Object& list) {
    const auto data = list.getArray(Nubo::Command::ResponseObject::FIELD_DATA);
    Object::Ptr element = data ? data->getObject(0) : Object::Ptr();
    if (element) {
        // Must be there, logged or not.
        const auto uri = element->getValue<std::string>(XObjectBase::KEY_URI);
        ZOL_LOG_INFO("findElementByName: returned " << uri);
    }
    return element;
}

}  // namespace

std::string ClientLib::createQuery(const std::string& uri, const std::string& fields, uint8_t expansionLevel,
                                   const std::string& filter) {
    if (uri.empty()) return uri;
    std::string query;
    if (!fields.empty()) query = fields.find('=') == std::string::npos ? "$fields=" + fields : fields;
    // unsigned: a uint8_t would be written as a character
    if (expansionLevel != 0)
        appendTerm(query, "$expand=" + Poco::NumberFormatter::format(unsigned{expansionLevel}));
    if (!filter.empty()) appendTerm(query, filter);
    const std::string path = uri.front() == '/' ? uri : "/" + uri;
    return query.empty() ? path : path + "?" + query;
}

void ClientLib::cleanJsonString(std::string& value) {
    value.erase(std::remove(value.begin(), value.end(), RECORD_SEPARATOR), value.end());
}

Object::Ptr ClientLib::getResourceElement(const std::string& uri) const {
    Poco::Net::HTTPResponse response;
    std::string body;
    if (!sendRequest(response, body, Poco::Net::HTTPRequest::HTTP_GET, uri, "") ||
        response.getStatus() != Poco::Net::HTTPResponse::HTTP_OK) {
        ZOL_LOG_ERROR("getObject: ! HTTP_OK");
        return nullptr;
    }
    try {
        cleanJsonString(body);
        const Poco::Dynamic::Var parsed = parseJson(body);
        if (parsed.type() == typeid(Object::Ptr)) return parsed.extract<Object::Ptr>();
        ZOL_LOG_ERROR("getObject: error parsing JSON: " << Logging::shortened(body));
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(GET_RESOURCE_ELEMENT << " - exception: " << e.displayText());
    }
    return nullptr;
}

Object::Ptr ClientLib::findElementByName(const std::string& resource, const std::string& name) const {
    const Object::Ptr list =
        getResourceElement(createQuery(resource, "", 0, XObjectBase::KEY_NAME + "=" + name));
    if (!list) {
        ZOL_LOG_WARNING(FIND_ELEMENT_BY_NAME << ": error getting element for " << resource << " " << name);
        return nullptr;
    }
    try {
        if (Object::Ptr element = firstElement(*list)) return element;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(FIND_ELEMENT_BY_NAME << " - exception: " << e.displayText());
    }
    ZOL_LOG_INFO("findElementByName: returned nullptr");
    return nullptr;
}

}  // namespace Nubo::Client
