// WebSockets of the ClientLib: opening, keep-alive, and the way from the connection manager to the workers.

#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Net/TransportLimits.h>
#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include "BoundedSession.h"
#include "ConnectBudget.h"
#include "HostAddress.h"
#include "HttpSyntax.h"
#include "Limits.h"
#include "NotifyEach.h"
#include "WaitBounds.h"
#include "WorkerTable.h"

namespace Nubo::Client {

using Nubo::Net::TransportLimits;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketEventPayload;
using Poco::Net::WebSocket;

namespace {

constexpr const char* CREATE_NEW_WEBSOCKET =
    "virtual Nubo::Client::WebSocketRequestHandler::Ptr Nubo::Client::ClientLib::createNewWebsocket("
    "const string&, const string&, int, uint32_t)";
constexpr const char* SOCKET_CLOSED_HANDLER =
    "virtual void Nubo::Client::ClientLib::SocketClosedHandler(const Nubo::Net::WebsocketEventPayload&)";
constexpr const char* DESTROY_WEBSOCKET =
    "virtual void Nubo::Client::ClientLib::destroyWebsocket(Nubo::Client::WebSocketRequestHandler::Ptr)";
constexpr const char* DELEGATE_HAS_THROWN =
    "ClientLib: a delegate of SocketDataAvailable or SocketClosed has thrown: ";

// By exact text: a host name, or another loopback address, counts as external.
bool isLocalAddress(const std::string& address) {
    return address == "127.0.0.1" || address == "::1" || address == "[::1]";
}

struct KeepaliveOption_t {
    int option;
    const char* name;
    uint32_t value;
};

// Anything else would end its place in the request.
void checkPlace(const std::string& service, const std::string& host, int port) {
    if (!HttpSyntax::isTarget(service))
        throw Poco::InvalidArgumentException("not the name of a service", service);
    if (!HttpSyntax::isHost(host)) throw Poco::InvalidArgumentException("not a host", host);
    if (port <= 0 || port > std::numeric_limits<Poco::UInt16>::max())
        throw Poco::InvalidArgumentException("not a port", std::to_string(port));
}

/// @param budget  null: the attempt has its full time
std::shared_ptr<WaitBounds> boundsOf(const ConnectBudget* budget,
                                     const std::shared_ptr<const Nubo::Net::Cancellation>& stop) {
    if (budget)
        return std::make_shared<WaitBounds>(budget->total(),
                                            WaitBounds::Cancellations{stop, budget->cancellation()});
    return std::make_shared<WaitBounds>(Limits::CONNECT + TransportLimits::UPGRADE,
                                        WaitBounds::Cancellations{stop});
}

// Of the connection manager's thread: whose events it is raising.
thread_local const ClientLib* raising = nullptr;

// What a delegate throws costs neither the other delegates their call nor a worker the rest of the frame.
template <class Event, class Payload>
void raise(const ClientLib* lib, Event& event, const Payload& payload) {
    struct Scope_t {
        ~Scope_t() { raising = outer; }
        const ClientLib* outer;
    };
    const Scope_t scope{std::exchange(raising, lib)};
    try {
        notifyEach(event, lib, payload);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_WARNING(DELEGATE_HAS_THROWN << e.displayText());
    } catch (const std::exception& e) {
        ZOL_LOG_WARNING(DELEGATE_HAS_THROWN << e.what());
    } catch (...) {
        ZOL_LOG_WARNING(DELEGATE_HAS_THROWN << "unspecified exception");
    }
}

}  // namespace

WebSocketRequestHandler::Ptr ClientLib::createNewWebsocket(const std::string& service,
                                                           const std::string& address, int port,
                                                           uint32_t timeoutBeforePing) {
    ZOL_LOG_INFO(CREATE_NEW_WEBSOCKET << ": " << service << ", addr: " << address << ", port: " << port
                                      << ", timeoutBeforePing: " << timeoutBeforePing);
    auto socket = upgrade(service, address, port);
    if (_params.tcp_keepalive_enabled) setTcpKeepaliveParameters(socket, isLocalAddress(address));
    return registerConnection(socket, static_cast<long>(timeoutBeforePing));
}

Poco::SharedPtr<WebSocket> ClientLib::upgrade(const std::string& service, const std::string& address,
                                              int port) {
    if (_stop->cancelled() && !connectionManager()) throw Poco::NullPointerException();
    const std::string host = bareHost(address);
    checkPlace(service, host, port);
    const ConnectBudget* const budget = ConnectBudget::ofThisThread();
    const auto bounds = boundsOf(budget, _stop);
    BoundedSession session(host, static_cast<Poco::UInt16>(port), bounds);
    session.open(budget ? budget->names() : ConnectBudget::Names::MayBeLookedUp);
    bounds->beginPhase(TransportLimits::UPGRADE);
    bounds->setAim("upgrade to a WebSocket not finished in time by " + host);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, createQuery("/" + service, "", 0, ""),
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    Poco::Net::HTTPResponse response;
    Poco::SharedPtr<WebSocket> socket(new WebSocket(session, request, response));
    session.upgradeDone();
    return socket;
}

// The worker is in the list before the manager reads the socket: what comes at once finds it.
WebSocketRequestHandler::Ptr ClientLib::registerConnection(Poco::SharedPtr<WebSocket>& socket,
                                                           long timeoutMs) {
    auto manager = connectionManager();
    if (!manager) throw Poco::NullPointerException();
    WebSocketRequestHandler::Ptr worker = startWorker(socket);
    _workers->add(worker, *socket);
    try {
        manager->addConnection(socket, timeoutMs);
    } catch (...) {
        _workers->remove(worker);
        throw;
    }
    return worker;
}

// Told here: handlers take every failure of a connection attempt for a peer that is away.
WebSocketRequestHandler::Ptr ClientLib::startWorker(Poco::SharedPtr<WebSocket>& socket) {
    try {
        return new WebSocketRequestHandler(socket);
    } catch (const Poco::SystemException& e) {
        ZOL_LOG_ERROR(CREATE_NEW_WEBSOCKET << ": " << e.displayText());
        throw;
    }
}

Poco::SharedPtr<Nubo::Net::WebsocketConnectionManager> ClientLib::connectionManager() const {
    Nubo::Util::MutexLock lock(_mutexManager);
    return _wsConnectionManager;
}

void ClientLib::destroyWebsocket(WebSocketRequestHandler::Ptr wsReqHandler) {
    ZOL_LOG_DEBUG(DESTROY_WEBSOCKET);
    if (!wsReqHandler) return;
    _workers->remove(wsReqHandler);
}

void ClientLib::DataAvailableHandler(const WebsocketDataEventPayload& data) {
    if (m_disposing || !_workers->queue(data)) return;
    raise(this, SocketDataAvailable, data);
}

void ClientLib::IncompleteDroppedHandler(const WebsocketDataEventPayload& dropped) {
    if (!m_disposing) _workers->queue(dropped);
}

void ClientLib::SocketClosedHandler(const WebsocketEventPayload& payload) {
    ZOL_LOG_DEBUG(SOCKET_CLOSED_HANDLER);
    const auto report = m_disposing ? WorkerTable::Report::No : WorkerTable::Report::Yes;
    if (_workers->close(payload, report) && report == WorkerTable::Report::Yes)
        raise(this, SocketClosed, payload);
}

bool ClientLib::isRaisingHere() const {
    return raising == this;
}

bool ClientLib::setSocketOption(Poco::SharedPtr<WebSocket>& webSocket, int level, int option,
                                unsigned int value) {
    try {
        int readBack = 0;
        webSocket->impl()->setOption(level, option, static_cast<int>(value));
        webSocket->impl()->getOption(level, option, readBack);
        return readBack == static_cast<int>(value);
    } catch (...) {
        return false;
    }
}

void ClientLib::setTcpKeepaliveParameters(Poco::SharedPtr<WebSocket>& webSocket, bool isLocal) {
    try {
        setKeepaliveOptions(webSocket, isLocal);
    } catch (const std::exception& e) {
        ZOL_LOG_ERROR("setTcpKeepaliveParameters: exception occurred: " << e.what());
    } catch (...) {
        ZOL_LOG_ERROR("setTcpKeepaliveParameters: unspecified exception occurred");
    }
}

void ClientLib::setKeepaliveOptions(Poco::SharedPtr<WebSocket>& webSocket, bool isLocal) {
    if (!setSocketOption(webSocket, SOL_SOCKET, SO_KEEPALIVE, 1)) {
        ZOL_LOG_ERROR("setTcpKeepaliveParameters: setsockopt SO_KEEPALIVE returned an error");
    }
    const KeepaliveOption_t options[] = {
        {TCP_KEEPCNT, "TCP_KEEPCNT",
         isLocal ? _params.tcp_keepalive_count_local : _params.tcp_keepalive_count_external},
        {TCP_KEEPIDLE, "TCP_KEEPIDLE",
         isLocal ? _params.tcp_keepalive_time_local : _params.tcp_keepalive_time_external},
        {TCP_KEEPINTVL, "TCP_KEEPINTVL",
         isLocal ? _params.tcp_keepalive_intval_local : _params.tcp_keepalive_intval_external}};
    for (const KeepaliveOption_t& option : options) {
        ZOL_LOG_INFO("setTcpKeepaliveParameters: set " << option.name << " = " << option.value);
        if (!setSocketOption(webSocket, IPPROTO_TCP, option.option, option.value)) {
            ZOL_LOG_ERROR("setTcpKeepaliveParameters: setsockopt " << option.name << " returned an error");
        }
    }
}

}  // namespace Nubo::Client
