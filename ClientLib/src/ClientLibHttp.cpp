// The HTTP path of the ClientLib. Reentrant: the arguments, the constant parameters and what is safe for
// several threads are all it uses.

#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <memory>

#include "BoundedSession.h"
#include "HostAddress.h"
#include "HttpExchange.h"
#include "HttpRequests.h"
#include "HttpSyntax.h"
#include "WaitBounds.h"

namespace Nubo::Client {

using Poco::Net::HTTPResponse;

namespace {

constexpr const char* SEND_TO_HOST =
    "bool Nubo::Client::ClientLib::sendRequest(const string&, Poco::UInt16, Poco::Net::HTTPResponse&, "
    "std::__cxx11::string&, const string&, const string&, const string&) const";
constexpr const char* SEND_TO_REGISTRY =
    "virtual bool Nubo::Client::ClientLib::sendRequest(Poco::Net::HTTPResponse&, std::__cxx11::string&, "
    "const string&, const string&, const string&) const";

/// One call of sendRequest(): what all of its exchanges have in common.
struct Call_t {
    bool exchange(const std::string& hostAddress, Poco::UInt16 portNumber, const std::string& uri,
                  Poco::URI& redirection) const;
    bool exchangeOn(const std::string& hostAddress, Poco::UInt16 portNumber, const std::string& path,
                    Poco::URI& redirection) const;
    bool exchangeFollowingOnce(const std::string& hostAddress, Poco::UInt16 portNumber,
                               const std::string& uri, void (*announce)(const Poco::URI& redirection)) const;

    const std::string& useragent;
    const std::shared_ptr<WaitBounds> bounds;
    HTTPResponse& response;
    std::string& body;
    const std::string& method;
    const std::string& content;
};

bool Call_t::exchange(const std::string& hostAddress, Poco::UInt16 portNumber, const std::string& uri,
                      Poco::URI& redirection) const {
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
        return exchangeOn(bareHost(hostAddress), portNumber, path, redirection);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("sendRequest: sending request " << path << ": " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("sendRequest: exception: Error sending request " << path);
    }
    return false;
}

bool Call_t::exchangeOn(const std::string& host, Poco::UInt16 portNumber, const std::string& path,
                        Poco::URI& redirection) const {
    if (!HttpSyntax::isHost(host)) throw Poco::InvalidArgumentException("not a host");
    auto request = requestFor({method, path, content, useragent});
    BoundedSession session(host, portNumber, bounds);
    session.open(ConnectBudget::Names::MayBeLookedUp);
    return Nubo::Client::exchange(session, request, response, content, body, redirection);
}

/// One exchange and, when its answer redirects, a second one where it points; no third.
/// @param announce writes the line between the two, which each caller words in its own way
bool Call_t::exchangeFollowingOnce(const std::string& hostAddress, Poco::UInt16 portNumber,
                                   const std::string& uri,
                                   void (*announce)(const Poco::URI& redirection)) const {
    Poco::URI redirection;
    const bool done = exchange(hostAddress, portNumber, uri, redirection);
    if (!done || redirection.empty()) return done;
    announce(redirection);
    Poco::URI notFollowed;
    return exchange(redirection.getHost(), redirection.getPort(), redirection.getPathAndQuery(), notFollowed);
}

}  // namespace

void ClientLib::setRequestTimeout(std::chrono::milliseconds total) {
    _requests->setTimeout(total);
}

std::shared_ptr<WaitBounds> ClientLib::requestBounds() const {
    return std::make_shared<WaitBounds>(_requests->timeout(), WaitBounds::Cancellations{_stop});
}

bool ClientLib::sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber, HTTPResponse& response,
                            std::string& body, const std::string& method, const std::string& uri,
                            const std::string& content, Poco::URI& redirection) const {
    const HttpRequests::Call inProgress(*_requests);
    const Call_t call{_params.useragent, requestBounds(), response, body, method, content};
    return call.exchange(hostAddress, portNumber, uri, redirection);
}

bool ClientLib::sendRequest(const std::string& hostAddress, Poco::UInt16 portNumber, HTTPResponse& response,
                            std::string& body, const std::string& method, const std::string& uri,
                            const std::string& content) const {
    const auto announce = [](const Poco::URI& redirection) {
        ZOL_LOG_DEBUG(SEND_TO_HOST << ": Redirecting to : " << redirection.getPathAndQuery());
    };
    const HttpRequests::Call inProgress(*_requests);
    const Call_t call{_params.useragent, requestBounds(), response, body, method, content};
    return call.exchangeFollowingOnce(hostAddress, portNumber, uri, announce);
}

bool ClientLib::sendRequest(HTTPResponse& response, std::string& body, const std::string& method,
                            const std::string& uri, const std::string& content) const {
    const auto announce = [](const Poco::URI& redirection) {
        ZOL_LOG_DEBUG(SEND_TO_REGISTRY << ": Redirecting to " << redirection.getHost() << ":"
                                       << redirection.getPort() << redirection.getPathAndQuery());
    };
    const HttpRequests::Call inProgress(*_requests);
    const Call_t call{_params.useragent, requestBounds(), response, body, method, content};
    return call.exchangeFollowingOnce(ServiceRegistryConnection::ADDRESS, ServiceRegistryConnection::PORT,
                                      uri, announce);
}

}  // namespace Nubo::Client
