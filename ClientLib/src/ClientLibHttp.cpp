// The HTTP path of the ClientLib. Reentrant: the arguments and the constant parameters are all it uses.

#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Net/HTTPEncoderDecoder.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/CountingStream.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/NumberFormatter.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

#include <exception>
#include <limits>
#include <ostream>

#include "HostAddress.h"
#include "ParseJson.h"

namespace Nubo::Client {

using Poco::Net::HTTPClientSession;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

namespace {

constexpr std::size_t COPY_BUFFER_SIZE = 8192;
constexpr const char* CONTENT_TYPE = "application/json; charset=utf-8";
constexpr const char* ACCEPT = "application/json";
constexpr const char* KEY_HOST_ADDRESS = "hostAddress";
constexpr const char* SEND_TO_HOST =
    "bool Nubo::Client::ClientLib::sendRequest(const string&, Poco::UInt16, Poco::Net::HTTPResponse&, "
    "std::__cxx11::string&, const string&, const string&, const string&) const";
constexpr const char* SEND_TO_REGISTRY =
    "virtual bool Nubo::Client::ClientLib::sendRequest(Poco::Net::HTTPResponse&, std::__cxx11::string&, "
    "const string&, const string&, const string&) const";

void sendWithContent(HTTPClientSession& session, HTTPRequest& request, const std::string& content) {
    // The line end is not counted in the content length, so POCO's stream drops it and goes bad: intended,
    // and of no consequence for the answer.
    session.sendRequest(request) << content << std::endl;
}

bool bodyHasLength(const HTTPRequest& request, const HTTPResponse& response) {
    return response.hasContentLength() && request.getMethod() != HTTPRequest::HTTP_HEAD &&
           response.getStatus() != HTTPResponse::HTTP_NO_CONTENT &&
           response.getStatus() != HTTPResponse::HTTP_NOT_MODIFIED;
}

/// Reads the whole body, decoded. POCO's streams end silently on a time-out, on a body that is cut short and
/// on one that cannot be decoded: each is an exception here, with what was read left in `body`.
void readBody(HTTPClientSession& session, const HTTPRequest& request, const HTTPResponse& response,
              Nubo::Net::HTTPEncoderDecoder& decoder, std::istream& stream, std::string& body) {
    Poco::CountingInputStream raw(stream);
    body.clear();
    std::exception_ptr damage;
    try {
        Poco::StreamCopier::copyToString(decoder.getInputStream(raw), body, COPY_BUFFER_SIZE);
    } catch (const Poco::IOException&) {
        damage = std::current_exception();  // that the body was cut short says more, so that comes first
    }
    raw.ignore(std::numeric_limits<std::streamsize>::max());  // what a decoder leaves behind its end mark
    if (session.networkException()) session.networkException()->rethrow();
    if (bodyHasLength(request, response) && raw.chars() < response.getContentLength64()) {
        throw Poco::Net::MessageException(
            "body ends after " + Poco::NumberFormatter::format(raw.chars()) + " of " +
            Poco::NumberFormatter::format(response.getContentLength64()) + " bytes");
    }
    if (damage) std::rethrow_exception(damage);
}

/// The address in a 300 answer: {"data":[{"hostAddress":"http://..."}]}. @return false when it names none
bool findHostAddress(const std::string& body, Poco::URI& redirection) {
    const auto data = parseJsonObject(body)->getArray(Nubo::Command::ResponseObject::FIELD_DATA);
    if (!data || data->size() == 0) return false;
    // An entry that is no object: null pointer exception. A text that is no URI leaves `redirection` alone.
    redirection = Poco::URI(data->getObject(0)->getValue<std::string>(KEY_HOST_ADDRESS));
    return true;
}

/// One answer's two or three log lines differ by level and by the comma in the second: both are intended.
bool logOutcome(const HTTPRequest& request, const HTTPResponse& response, const std::string& content,
                const std::string& body) {
    const int status = response.getStatus();
    if (status < HTTPResponse::HTTP_BAD_REQUEST) {
        ZOL_LOG_INFO("sendRequest: " << request.getMethod() << " " << request.getURI() << " -> " << status
                                     << " " << response.getReason() << std::endl
                                     << ", request content: " << content << ", " << std::endl
                                     << "response content: " << body);
        return true;
    }
    ZOL_LOG_ERROR("sendRequest: " << request.getMethod() << " " << request.getURI() << " -> " << status << " "
                                  << response.getReason() << std::endl
                                  << "request content: " << content << ", " << std::endl
                                  << "response content: " << body);
    return false;
}

/// Sends one request and reads its answer. @return what sendRequest() returns. Throws what POCO throws.
bool exchange(HTTPClientSession& session, HTTPRequest& request, HTTPResponse& response,
              const std::string& content, std::string& body, Poco::URI& redirection) {
    sendWithContent(session, request, content);
    std::istream& stream = session.receiveResponse(response);
    Nubo::Net::HTTPEncoderDecoder decoder(request, response);
    if (response.getStatus() == HTTPResponse::HTTP_TEMPORARY_REDIRECT && response.has("Location")) {
        redirection = Poco::URI(response.get("Location"));
        return true;
    }
    readBody(session, request, response, decoder, stream, body);
    if (response.getStatus() == HTTPResponse::HTTP_MULTIPLE_CHOICES)
        return findHostAddress(body, redirection);
    return logOutcome(request, response, content, body);
}

}  // namespace

bool ClientLib::sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber, HTTPResponse& response,
                            std::string& body, const std::string& method, const std::string& uri,
                            const std::string& content, Poco::URI& redirection) const {
    std::string path = uri;
    ZOL_LOG_INFO("sendRequest: " << method << " " << path << ", content: " << content);
    if (path.empty()) {
        ZOL_LOG_ERROR("sendRequest: empty uri specified!");
        return false;
    }
    if (path.front() != '/') {
        ZOL_LOG_WARNING("sendRequest: relative path may not be supported!");
        path.insert(0, 1, '/');
    }
    try {
        HTTPClientSession session(bareHost(hostAddress), portNumber);
        session.setKeepAlive(true);
        HTTPRequest request(method, path, HTTPRequest::HTTP_1_1);
        request.setContentLength64(static_cast<Poco::Int64>(content.size()));
        request.setContentType(CONTENT_TYPE);
        if (!_params.useragent.empty()) request.set("User-Agent", _params.useragent);
        request.set("Accept", ACCEPT);
        return exchange(session, request, response, content, body, redirection);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("sendRequest: sending request " << path << ": " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("sendRequest: exception: Error sending request " << path);
    }
    return false;
}

namespace {

/// One exchange and, when its answer redirects, a second one where it points; no third.
/// @param announce writes the line between the two, which each caller words in its own way
bool sendFollowingOnce(const ClientLib& client, const std::string& hostAddress, Poco::UInt16 portNumber,
                       HTTPResponse& response, std::string& body, const std::string& method,
                       const std::string& uri, const std::string& content,
                       void (*announce)(const Poco::URI& redirection)) {
    Poco::URI redirection;
    const bool done =
        client.sendRequest(hostAddress, portNumber, response, body, method, uri, content, redirection);
    if (!done || redirection.empty()) return done;
    announce(redirection);
    Poco::URI notFollowed;
    return client.sendRequest(redirection.getHost(), redirection.getPort(), response, body, method,
                              redirection.getPathAndQuery(), content, notFollowed);
}

}  // namespace

bool ClientLib::sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber, HTTPResponse& response,
                            std::string& body, const std::string& method, const std::string& uri,
                            const std::string& content) const {
    const auto announce = [](const Poco::URI& redirection) {
        ZOL_LOG_DEBUG(SEND_TO_HOST << ": Redirecting to : " << redirection.getPathAndQuery());
    };
    return sendFollowingOnce(*this, hostAddress, portNumber, response, body, method, uri, content, announce);
}

bool ClientLib::sendRequest(HTTPResponse& response, std::string& body, const std::string& method,
                            const std::string& uri, const std::string& content) const {
    const auto announce = [](const Poco::URI& redirection) {
        ZOL_LOG_DEBUG(SEND_TO_REGISTRY << ": Redirecting to " << redirection.getHost() << ":"
                                       << redirection.getPort() << redirection.getPathAndQuery());
    };
    return sendFollowingOnce(*this, ServiceRegistryConnection::ADDRESS, ServiceRegistryConnection::PORT,
                             response, body, method, uri, content, announce);
}

}  // namespace Nubo::Client
