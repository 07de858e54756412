#include "HttpExchange.h"

#include <Logging/LogLine.h>
#include <Logging/Shortened.h>
#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Net/HTTPEncoderDecoder.h>
#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>

#include <exception>
#include <istream>
#include <ostream>
#include <vector>

#include "HttpBody.h"
#include "HttpSyntax.h"
#include "Limits.h"
#include "ParseJson.h"

namespace Nubo::Client {

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

namespace {

constexpr std::size_t COPY_BUFFER_SIZE = 8192;
constexpr const char* CONTENT_TYPE = "application/json; charset=utf-8";
constexpr const char* ACCEPT = "application/json";
constexpr const char* KEY_HOST_ADDRESS = "hostAddress";

void send(BoundedSession& session, HTTPRequest& request, const std::string& content) {
    // The line end is not counted in the content length, so POCO's stream drops it and goes bad: intended,
    // and of no consequence for the answer.
    session.sendRequest(request) << content << std::endl;
}

/// Appends the stream to `body`, up to the limit. @throws Poco::IOException for a body that cannot be decoded
void copyDecoded(std::istream& decoded, std::string& body) {
    std::vector<char> room(COPY_BUFFER_SIZE);
    while (decoded) {
        decoded.read(room.data(), static_cast<std::streamsize>(room.size()));
        body.append(room.data(), static_cast<std::size_t>(decoded.gcount()));
        if (body.size() <= Limits::MAX_BODY_BYTES) continue;
        body.resize(Limits::MAX_BODY_BYTES);
        throw Poco::Net::MessageException("decoded body is longer than " +
                                          std::to_string(Limits::MAX_BODY_BYTES) + " bytes");
    }
}

/// Reads the whole body, decoded. A stream ends silently on a body that is cut short, and throws on one that
/// cannot be decoded: each is an exception here, with what was read left in `body`.
void readBody(BoundedSession& session, const HTTPRequest& request, HTTPResponse& response,
              std::string& body) {
    HttpBody received(session, request, response);
    std::istream raw(&received);
    Nubo::Net::HTTPEncoderDecoder decoder(request, response);
    body.clear();
    std::exception_ptr damage;
    try {
        copyDecoded(decoder.getInputStream(raw), body);
    } catch (const Poco::IOException&) {
        damage = std::current_exception();
    }
    received.finish();  // that the body was cut short says more, so that comes first
    if (damage) std::rethrow_exception(damage);
}

/// What `text` redirects to, which may be no more than a path.
Poco::URI redirectionTo(const std::string& text) {
    Poco::URI uri(text);
    const bool isWeb = uri.isRelative() || uri.getScheme() == "http" || uri.getScheme() == "https";
    const bool isPlace = uri.getHost().empty() || HttpSyntax::isHost(uri.getHost());
    if (!isWeb || !isPlace || !HttpSyntax::isTarget(text))
        throw Poco::Net::MessageException("not followed: redirection to " + text);
    return uri;
}

/// The address in a 300 answer: {"data":[{"hostAddress":"http://..."}]}. @return false when it names none
bool findHostAddress(const std::string& body, Poco::URI& redirection) {
    const auto data = parseJsonObject(body)->getArray(Nubo::Command::ResponseObject::FIELD_DATA);
    if (!data || data->size() == 0) return false;
    // An entry that is not an object: null pointer exception. A text that is not a URI leaves `redirection`
    // alone.
    redirection = redirectionTo(data->getObject(0)->getValue<std::string>(KEY_HOST_ADDRESS));
    return true;
}

/// One answer's two or three log lines differ by level and by the comma in the second: both are intended.
bool logOutcome(const HTTPRequest& request, const HTTPResponse& response, const std::string& content,
                const std::string& body) {
    const int status = response.getStatus();
    if (status < HTTPResponse::HTTP_BAD_REQUEST) {
        ZOL_LOG_INFO("sendRequest: " << request.getMethod() << " " << request.getURI() << " -> " << status
                                     << " " << response.getReason() << std::endl
                                     << ", request content: " << Logging::shortened(content) << ", "
                                     << std::endl
                                     << "response content: " << Logging::shortened(body));
        return true;
    }
    ZOL_LOG_ERROR("sendRequest: " << request.getMethod() << " " << request.getURI() << " -> " << status << " "
                                  << response.getReason() << std::endl
                                  << "request content: " << Logging::shortened(content) << ", " << std::endl
                                  << "response content: " << Logging::shortened(body));
    return false;
}

}  // namespace

HTTPRequest requestFor(const HttpQuestion_t& question) {
    if (!HttpSyntax::isToken(question.method)) throw Poco::InvalidArgumentException("not a method");
    if (!HttpSyntax::isTarget(question.path)) throw Poco::InvalidArgumentException("not a path");
    if (!HttpSyntax::isFieldValue(question.useragent))
        throw Poco::InvalidArgumentException("not a user agent");
    HTTPRequest request(question.method, question.path, HTTPRequest::HTTP_1_1);
    request.setContentLength64(static_cast<Poco::Int64>(question.content.size()));
    request.setContentType(CONTENT_TYPE);
    if (!question.useragent.empty()) request.set("User-Agent", question.useragent);
    request.set("Accept", ACCEPT);
    return request;
}

bool exchange(BoundedSession& session, HTTPRequest& request, HTTPResponse& response,
              const std::string& content, std::string& body, Poco::URI& redirection) {
    send(session, request, content);
    session.receiveResponse(response);
    if (response.getStatus() == HTTPResponse::HTTP_TEMPORARY_REDIRECT && response.has("Location")) {
        redirection = redirectionTo(response.get("Location"));
        return true;
    }
    readBody(session, request, response, body);
    if (response.getStatus() == HTTPResponse::HTTP_MULTIPLE_CHOICES)
        return findHostAddress(body, redirection);
    return logOutcome(request, response, content, body);
}

}  // namespace Nubo::Client
