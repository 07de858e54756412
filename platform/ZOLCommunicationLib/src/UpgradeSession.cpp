#include <Nubo/Net/UpgradeSession.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "ConnectionLoop.h"
#include "UpgradeDeadlines.h"

namespace Nubo::Net {

namespace {

// POCO takes "[::1]" for a name to be resolved.
std::string withoutBrackets(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

}  // namespace

UpgradeSession::UpgradeSession(const std::string& host, Poco::UInt16 port,
                               const Poco::SharedPtr<WebsocketConnectionManager>& manager)
    : Poco::Net::HTTPClientSession(withoutBrackets(host), port), _manager(manager) {}

UpgradeSession::~UpgradeSession() = default;

void UpgradeSession::upgradeDone() {
    _deadline.reset();
}

bool UpgradeSession::deadlinePassed() const {
    return _deadline && _deadline->passed();
}

std::ostream& UpgradeSession::sendRequest(Poco::Net::HTTPRequest& request) {
    try {
        return HTTPClientSession::sendRequest(request);
    } catch (const Poco::Exception&) {
        rethrow();
    }
}

// POCO wants "Upgrade" alone in the answer's Connection header, where RFC 6455, 4.1 wants it among others.
std::istream& UpgradeSession::receiveResponse(Poco::Net::HTTPResponse& response) {
    try {
        std::istream& body = HTTPClientSession::receiveResponse(response);
        const bool upgraded = response.getStatus() == Poco::Net::HTTPResponse::HTTP_SWITCHING_PROTOCOLS;
        if (upgraded && response.hasToken("Connection", "upgrade")) response.set("Connection", "Upgrade");
        return body;
    } catch (const Poco::Exception&) {
        rethrow();
    }
}

void UpgradeSession::connect(const Poco::Net::SocketAddress& address) {
    _deadline.reset();
    HTTPClientSession::connect(address);
    if (_manager)
        _deadline = std::make_unique<UpgradeDeadline>(_manager->_loop->upgrades(), socket().impl()->sockfd());
}

// Called from a handler: throws the exception in flight, or the one that names its cause.
void UpgradeSession::rethrow() const {
    if (deadlinePassed())
        throw Poco::TimeoutException("upgrade to a WebSocket not finished in time by " + getHost());
    throw;  // cppcheck-suppress rethrowNoCurrentException ; there is one, see above
}

}  // namespace Nubo::Net
