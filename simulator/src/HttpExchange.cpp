#include "HttpExchange.h"

#include <Nubo/Simulator/Endpoint.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/WebSocketImpl.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>

#include "Connection.h"
#include "FaultTable.h"
#include "FrameReader.h"
#include "Target.h"
#include "Wire.h"

namespace Nubo::Simulator {

using Poco::Net::HTTPServerParams;
using Poco::Net::HTTPServerRequestImpl;
using Poco::Net::HTTPServerResponseImpl;

namespace {

const char* const HEADER_KEY = "Sec-WebSocket-Key";

/// A session that leaves its socket open at its end: the connection closes it, under its locks.
class Session : public Poco::Net::HTTPServerSession {
public:
    using HTTPServerSession::HTTPServerSession;
    ~Session() override { detachSocket(); }
};

/// Makes a socket of a WebSocketImpl, which POCO itself does only inside its own handshake.
class UpgradedSocket : public Poco::Net::Socket {
public:
    UpgradedSocket(const Poco::Net::StreamSocket& stream, Poco::Net::HTTPSession& session)
        : Socket(new Poco::Net::WebSocketImpl(static_cast<Poco::Net::StreamSocketImpl*>(stream.impl()),
                                              session, false)) {}
};

}  // namespace

void HttpExchange::serve(Endpoint& endpoint, Connection& connection, const Poco::Net::StreamSocket& stream) {
    HTTPServerParams::Ptr params(new HTTPServerParams);
    Session session(stream, params);
    while (session.hasMoreRequests()) {
        HTTPServerResponseImpl response(session);
        HTTPServerRequestImpl request(response, session, params.get());
        if (request.getExpectContinue()) response.sendContinue();
        HttpExchange exchange(endpoint, connection, request, stream);
        session.setKeepAlive(exchange.run(request.getKeepAlive()));
    }
}

HttpExchange::HttpExchange(Endpoint& endpoint, Connection& connection, HTTPServerRequestImpl& request,
                           const Poco::Net::StreamSocket& stream)
    : _endpoint(endpoint), _connection(connection), _request(request), _stream(stream) {}

bool HttpExchange::run(bool keepAlive) {
    read();
    if (!_connection.waitWhileSilent()) return false;
    const Fault_t fault = isUpgrade() ? _endpoint._faults->takeUpgrade() : _endpoint._faults->takeHttp();
    if (!_connection.pause(fault.delay)) return false;
    if (isUpgrade() && (fault.kind == Fault_t::Kind::None || fault.kind == Fault_t::Kind::OpenAndEnd)) {
        upgrade(fault);
        return false;
    }
    if (fault.kind != Fault_t::Kind::None) {
        report("a fault");
        meet(fault);
        return false;
    }
    const HttpAnswer_t answer = properAnswer();
    report(std::to_string(answer.status));
    return _connection.trySend(Wire::compose(answer, keepAlive)) && keepAlive;
}

bool HttpExchange::isUpgrade() const {
    return Poco::icompare(_request.get("Upgrade", ""), "websocket") == 0 && _request.has(HEADER_KEY);
}

void HttpExchange::read() {
    _received.method = _request.getMethod();
    _received.uri = _request.getURI();
    _received.headers = _request;
    _received.time = std::chrono::steady_clock::now();
    Poco::StreamCopier::copyToString(_request.stream(), _received.body);
    if (isUpgrade())
        _endpoint._recorder.addUpgradeRequest(_received);
    else
        _endpoint._recorder.addHttp(_received);
}

void HttpExchange::report(const std::string& outcome) const {
    _endpoint.report("http", _received.method + " " + _received.uri + " " + outcome);
}

void HttpExchange::meet(const Fault_t& fault) {
    switch (fault.kind) {
        case Fault_t::Kind::Answer:
            _connection.trySend(Wire::compose(fault.answer, false));
            break;
        case Fault_t::Kind::Raw:
            _connection.trySend(fault.bytes);
            break;
        case Fault_t::Kind::NoAnswer:
            _connection.awaitHangUp();
            break;
        case Fault_t::Kind::Reset:
            _connection.reset();
            break;
        default:
            break;  // hangs up, as all of them do in the end
    }
}

HttpAnswer_t HttpExchange::properAnswer() {
    try {
        return _endpoint.answer(_received);
    } catch (const Poco::Exception& exception) {
        return Wire::failure(400, exception.displayText());
    }
}

bool HttpExchange::servesUpgrade() const {
    try {
        return _endpoint.servesUpgrade(Target_t::parse(_received.uri));
    } catch (const Poco::SyntaxException&) {
        return false;
    }
}

void HttpExchange::upgrade(const Fault_t& fault) {
    if (!servesUpgrade()) {
        report("404");
        return meet(Fault_t::answering(Wire::failure(404, "no such service")));
    }
    const std::string answer = Wire::switchingProtocols(_request.get(HEADER_KEY));
    if (!_connection.open(_endpoint._recorder.addUpgrade(), answer)) return;
    _endpoint.report("opened", "", _connection.number());
    _endpoint.raiseChanged();
    if (fault.kind == Fault_t::Kind::OpenAndEnd) _connection.end(fault.ending);
    serveFrames();
}

void HttpExchange::serveFrames() {
    const Poco::Net::WebSocket webSocket(UpgradedSocket(_stream, _request.session()));
    FrameReader(webSocket, _connection).run();
}

}  // namespace Nubo::Simulator
