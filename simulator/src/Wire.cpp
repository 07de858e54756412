#include "Wire.h"

#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Command/StatusObject.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Poco/JSON/Parser.h>
#include <Poco/JSONString.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/WebSocket.h>

#include <sstream>

namespace Nubo::Simulator::Wire {

using Nubo::Command::ResponseObject;
using Nubo::Command::StatusObject;
using Nubo::Command::WebSocketRequestObject;
using Nubo::Command::WebSocketResponseObject;

namespace {

const char* const KEY_STATUS = "status";
const char* const KEY_MESSAGE = "message";
const char* const KEY_HOST_ADDRESS = "hostAddress";
const char* const STATUS_OK = "ok";
const char* const STATUS_ERROR = "error";

std::string member(const std::string& key, const std::string& json) {
    return Poco::toJSON(key) + ":" + json;
}

std::string textMember(const std::string& key, const std::string& text) {
    return member(key, Poco::toJSON(text));
}

std::string eventAndType(const std::string& event, const std::string& type) {
    return textMember(WebSocketRequestObject::FIELD_EVENT, event) + "," +
           textMember(WebSocketRequestObject::FIELD_TYPE, type) + "}";
}

std::optional<long> number(const Poco::JSON::Object& object, const std::string& key) {
    if (!object.has(key)) return std::nullopt;
    return object.getValue<long>(key);
}

void readMembers(const Poco::JSON::Object& object, Request_t& request) {
    request.type = object.optValue<std::string>(WebSocketRequestObject::FIELD_TYPE, "");
    request.event = object.optValue<std::string>(WebSocketRequestObject::FIELD_EVENT, "");
    request.authorization = object.optValue<std::string>(WebSocketRequestObject::FIELD_AUTHORIZATION, "");
    request.autosubscribe = object.optValue(WebSocketRequestObject::FIELD_AUTOSUBSCRIBE, false);
    request.interval = number(object, WebSocketRequestObject::FIELD_SUBSCRIPTION_INTERVAL);
    request.updateLimit = number(object, WebSocketRequestObject::FIELD_SUBSCRIPTION_UPDATE_LIMIT);
}

/// Opens POCO's own computation of the handshake's accept value.
struct Handshake : Poco::Net::WebSocket {
    using WebSocket::computeAccept;
};

}  // namespace

Poco::JSON::Object::Ptr parseObject(const std::string& json) {
    Poco::JSON::Parser parser;
    return parser.parse(json).extract<Poco::JSON::Object::Ptr>();
}

std::string toText(const Poco::Dynamic::Var& json) {
    std::ostringstream text;
    Poco::JSON::Stringifier::stringify(json, text);
    return text.str();
}

Request_t parseRequest(unsigned socket, const std::string& text) {
    Request_t request;
    request.socket = socket;
    request.text = text;
    request.time = std::chrono::steady_clock::now();
    try {
        readMembers(*parseObject(text), request);
    } catch (const Poco::Exception&) {
        // The record shows the text itself.
    }
    return request;
}

std::string data(const std::string& event, const std::string& json) {
    return "{" + member(WebSocketRequestObject::FIELD_DATA, json) + "," +
           eventAndType(event, WebSocketResponseObject::TYPE_DATA);
}

std::string acknowledgement(const std::string& event) {
    return "{" + eventAndType(event, WebSocketResponseObject::TYPE_SUBSCRIBE);
}

std::string error(const std::string& event, int code) {
    return "{" + member(StatusObject::FIELD_ERROR_CODE, std::to_string(code)) + "," +
           eventAndType(event, WebSocketResponseObject::TYPE_ERROR);
}

HttpAnswer_t ok(const std::string& json, int status) {
    return {status,
            "{" + textMember(KEY_STATUS, STATUS_OK) + "," + member(ResponseObject::FIELD_DATA, json) + "}"};
}

HttpAnswer_t failure(int status, const std::string& message) {
    return {status, "{" + textMember(KEY_STATUS, STATUS_ERROR) + "," +
                        member(StatusObject::FIELD_ERROR_CODE, std::to_string(status)) + "," +
                        textMember(KEY_MESSAGE, message) + "}"};
}

HttpAnswer_t choice(const std::string& url) {
    return ok("[{" + textMember(KEY_HOST_ADDRESS, url) + "}]", 300);
}

std::string compose(const HttpAnswer_t& answer, bool keepAlive) {
    using Poco::Net::HTTPResponse;
    HTTPResponse head(HTTPResponse::HTTP_1_1, static_cast<HTTPResponse::HTTPStatus>(answer.status));
    head.setContentType("application/json; charset=utf-8");
    head.setContentLength64(static_cast<Poco::Int64>(answer.body.size()));
    head.setKeepAlive(keepAlive);
    for (const auto& header : answer.headers) head.set(header.first, header.second);
    std::ostringstream bytes;
    head.write(bytes);
    bytes << answer.body;
    return bytes.str();
}

std::string switchingProtocols(const std::string& key) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           Handshake::computeAccept(key) + "\r\n\r\n";
}

}  // namespace Nubo::Simulator::Wire
