#include "Request.h"

#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Command/UrlPath.h>
#include <Poco/JSON/Parser.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

#include <iostream>

#include "Command.h"
#include "LibraryLog.h"

namespace ZolCtl {

using Nubo::Client::ClientLib;
using Nubo::Command::ResponseObject;
using Poco::Dynamic::Var;
using Poco::Net::HTTPResponse;

namespace {

constexpr uint8_t RETRIES = 4;
constexpr uint32_t RETRY_AFTER_MS = 500;

const char* const KEY_MESSAGE = "message";
const std::string FUNCTION = "sendRequest: ";  // as it stands in front of the library's lines

/// With its members in the order in which they came.
Var parse(const std::string& json) {
    return Poco::JSON::Parser(new Poco::JSON::ParseHandler(true)).parse(json);
}

/// What a service says about its refusal: ": no such element", or nothing.
std::string messageIn(const std::string& body) {
    try {
        const auto object = parse(body).extract<Poco::JSON::Object::Ptr>();
        const auto message = object->optValue<std::string>(KEY_MESSAGE, "");
        return message.empty() ? "" : ": " + message;
    } catch (const Poco::Exception&) {
        return "";
    }
}

std::string causeOf(const HTTPResponse& response, const std::string& body) {
    if (response.getStatus() >= HTTPResponse::HTTP_BAD_REQUEST)
        return std::to_string(response.getStatus()) + " " + response.getReason() + messageIn(body);
    const std::string error = LibraryLog::lastError();
    if (error.empty()) return "the registry names no address of the service";
    return error.compare(0, FUNCTION.size(), FUNCTION) == 0 ? error.substr(FUNCTION.size()) : error;
}

}  // namespace

ClientLib::ClientLibParameters clientParameters() {
    ClientLib::ClientLibParameters parameters{};
    parameters.useragent = "zolctl/" ZOL_VERSION;
    parameters.timeoutBeforePingServiceRegistry = PING_AFTER_MS;
    parameters.countConnectService_Retry = RETRIES;
    parameters.delayConnectService_Retry = RETRY_AFTER_MS;
    return parameters;
}

std::string requestPath(const std::string& argument) {
    try {
        const std::string path = Poco::URI(argument).getPathAndQuery();
        if (path.empty()) throw UsageError("\"" + argument + "\" is no path");
        return path.front() == '/' ? path : "/" + path;
    } catch (const Poco::SyntaxException& exception) {
        throw UsageError("\"" + argument + "\" is no path: " + exception.displayText());
    }
}

std::string serviceOf(const std::string& path) {
    return serviceName(Nubo::Command::UrlPath(Poco::URI(path)).getService());
}

std::string serviceName(const std::string& argument) {
    if (argument.empty()) throw UsageError("the name of a service is missing");
    if (argument.find_first_of("-/") != std::string::npos)
        throw UsageError("\"" + argument +
                         "\" is no name of a service that can be followed: it has a '-' or '/'");
    return argument;
}

Var request(const ClientLib& client, const std::string& method, const std::string& path,
            const std::string& content) {
    HTTPResponse response;
    std::string body;
    if (!client.sendRequest(response, body, method, path, content))
        throw Failure(method + " " + path + ": " + causeOf(response, body));
    try {
        const Var answer = parse(body);
        const auto object = answer.extract<Poco::JSON::Object::Ptr>();
        return object->has(ResponseObject::FIELD_DATA) ? object->get(ResponseObject::FIELD_DATA) : answer;
    } catch (const Poco::Exception& exception) {
        throw Failure(method + " " + path + ": the answer is no JSON object: " + exception.displayText());
    }
}

std::string jsonArgument(const std::string& argument) {
    std::string json = argument;
    if (argument == "-") {
        json.clear();
        Poco::StreamCopier::copyToString(std::cin, json);
    }
    try {
        parse(json);
        return json;
    } catch (const Poco::Exception& exception) {
        throw UsageError("no JSON: " + exception.displayText());
    }
}

}  // namespace ZolCtl
