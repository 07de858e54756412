#include "BoundedSession.h"

#include <Poco/MemoryStream.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/StreamSocket.h>

#include <cctype>
#include <utility>

#include "Limits.h"
#include "NameLookup.h"

namespace Nubo::Client {

using Poco::Net::HTTPResponse;
using Poco::Net::MessageException;

namespace {

bool isInterim(const HTTPResponse& response) {
    return response.getStatus() < HTTPResponse::HTTP_OK &&
           response.getStatus() != HTTPResponse::HTTP_SWITCHING_PROTOCOLS;
}

/// POCO takes any three characters for a status, and a line that begins with CR for the end of the header.
void parse(const std::string& head, HTTPResponse& response) {
    const std::string status = head.substr(0, 5) == "HTTP/" ? head.substr(head.find(' ') + 1, 4) : "";
    const bool isNumber = status.size() == 4 && status[0] >= '1' && status[0] <= '5' &&
                          status.find_first_not_of("0123456789") == 3 && std::isspace(status[3]) != 0;
    if (!isNumber) throw MessageException("no HTTP status");
    Poco::MemoryInputStream stream(head.data(), static_cast<std::streamsize>(head.size()));
    response.clear();
    response.read(stream);
    if (stream.peek() != std::istream::traits_type::eof()) throw MessageException("broken header line");
}

}  // namespace

BoundedSession::BoundedSession(const std::string& host, Poco::UInt16 port, std::shared_ptr<WaitBounds> bounds)
    : HTTPClientSession(host, port, ProxyConfig()), _bounds(std::move(bounds)) {
    setKeepAlive(true);
}

void BoundedSession::open(ConnectBudget::Names names) {
    _bounds->beginPhase(Limits::CONNECT);
    _bounds->setAim("look-up not finished in time: " + getHost());
    const auto addresses = addressesOf(getHost(), getPort(), names, *_bounds);
    for (auto address = addresses.begin(); !connected(); ++address) {
        _bounds->check();
        _bounds->setAim("connect timed out: " + address->toString());
        try {
            connect(*address);
        } catch (const Poco::Exception&) {
            reset();
            if (address + 1 == addresses.end()) throw;
        }
    }
    _bounds->endPhase();
    _bounds->setAim("answer not finished in time by " + getHost());
}

void BoundedSession::adopt(int descriptor) {
    attach(new BoundedSocket(_bounds, descriptor));
}

void BoundedSession::connect(const Poco::Net::SocketAddress& address) {
    attach(new BoundedSocket(_bounds));
    HTTPClientSession::connect(address);
}

void BoundedSession::attach(BoundedSocket* bounded) {
    attachSocket(Poco::Net::StreamSocket(bounded));
    _bounded.assign(bounded, true);
}

int BoundedSession::write(const char* buffer, std::streamsize length) {
    // Past HTTPClientSession, which would connect again. NOLINTNEXTLINE(bugprone-parent-virtual-call)
    return HTTPSession::write(buffer, length);
}

std::istream& BoundedSession::receiveResponse(HTTPResponse& response) {
    flushRequest();
    std::size_t size = 0;
    for (int interim = 0; interim <= Limits::MAX_INTERIM_ANSWERS; ++interim) {
        const std::string head = readHead(Limits::MAX_HEAD_BYTES - size);
        size += head.size();
        parse(head, response);
        if (isInterim(response)) continue;
        const bool upgraded = response.getStatus() == HTTPResponse::HTTP_SWITCHING_PROTOCOLS;
        if (upgraded && response.hasToken("Connection", "upgrade")) response.set("Connection", "Upgrade");
        return _noBody;
    }
    throw MessageException("more than " + std::to_string(Limits::MAX_INTERIM_ANSWERS) + " interim answers");
}

// All lines up to the first empty one, which ends them.
std::string BoundedSession::readHead(std::size_t atMost) {
    std::string head;
    std::size_t lineBegin = 0;
    for (;;) {
        const int byte = readByte();
        if (byte < 0 && head.empty()) throw Poco::Net::NoMessageException();
        if (byte < 0) throw MessageException("the header is cut short");
        if (head.size() == atMost) throw MessageException("the header is too long");
        head += static_cast<char>(byte);
        if (byte != '\n') continue;
        const auto length = head.size() - lineBegin;
        if (length == 1 || (length == 2 && head[lineBegin] == '\r')) return head;
        lineBegin = head.size();
    }
}

std::size_t BoundedSession::readBody(char* buffer, std::size_t size) {
    return static_cast<std::size_t>(read(buffer, static_cast<std::streamsize>(size)));
}

int BoundedSession::readByte() {
    if (buffered() == 0) peek();  // its result says nothing of a byte beyond ASCII
    char byte = 0;
    return buffered() > 0 && read(&byte, 1) == 1 ? static_cast<unsigned char>(byte) : -1;
}

}  // namespace Nubo::Client
