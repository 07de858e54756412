#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Net/Cancellation.h>
#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebSocketSender.h>
#include <Poco/Delegate.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <new>
#include <utility>

#include "HttpRequests.h"
#include "NonNull.h"
#include "RetryInterval.h"
#include "WorkerTable.h"

namespace Nubo::Client {

using Nubo::Net::WebsocketConnectionManager;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketDataObjectSplitter;
using Nubo::Net::WebsocketEventPayload;

namespace {
constexpr const char* GET_SERVICE_HANDLER =
    "virtual Nubo::Client::ServiceHandler::Ptr Nubo::Client::ClientLib::getServiceHandler(const string&) "
    "const";
}

ClientLib::ClientLib(IMessageSyncInterface* msgSync, const ClientLibParameters& params)
    : _iMsgSync(msgSync),
      m_disposing(false),
      _params(params),
      _srServiceHandler(new SRServiceHandler(this, _iMsgSync, params.timeoutBeforePingServiceRegistry)),
      _workers(std::make_unique<WorkerTable>(_connections, _mutexConnections)),
      _stop(std::make_shared<Nubo::Net::Cancellation>()),
      _requests(std::make_unique<HttpRequests>()) {
    _srServiceHandler->MicroServiceRegistrationChanged +=
        Poco::delegate(this, &ClientLib::HandleServiceRegistryAvailabilityChanged);
}

ClientLib::~ClientLib() {
    try {
        ClientLib::shutdown();
    } catch (...) {
        // A handler or mutex that fails here must not keep the rest from being released.
    }
    _services.clear();
    _replacedHandlers.clear();
    _srServiceHandler = nullptr;  // uses members that go before it
}

void ClientLib::startup() {
    m_disposing = false;
    exchangeConnectionManager(new WebsocketConnectionManager);
    auto manager = connectionManager();
    _wsOjectSplitter = new WebsocketDataObjectSplitter;
    _wsOjectSplitter->ObjectAvailable += Poco::delegate(this, &ClientLib::DataAvailableHandler);
    _wsOjectSplitter->IncompleteDropped += Poco::delegate(this, &ClientLib::IncompleteDroppedHandler);
    manager->DataAvailable +=
        Poco::delegate(_wsOjectSplitter.get(), &WebsocketDataObjectSplitter::onDataBlockAvailable);
    manager->SocketClosed += Poco::delegate(this, &ClientLib::SocketClosedHandler);
    _srServiceHandler->start();  // Poco::NullPointerException after shutdown()
}

void ClientLib::shutdown() {
    if (m_disposing) return;
    if (isRaisingHere()) {
        ZOL_LOG_ERROR(
            "ClientLib::shutdown: called from inside a delegate of SocketDataAvailable or SocketClosed: it "
            "would wait for the thread that it is called on, so it does nothing");
        return;
    }
    m_disposing = true;
    _stop->cancel();
    // Memory that is refused must not leave it half done: each step may be taken again.
    while (!tryShutdown()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
}

// @return false when there was no memory
bool ClientLib::tryShutdown() {
    try {
        shutdownAll();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void ClientLib::shutdownAll() {
    unwireTransport();
    endAttemptsAndSends();
    closeAhead();
    for (auto& handler : handlers()) {
        if (handler) handler->shutdown();
    }
    for (auto& handler : _replacedHandlers) handler->shutdown();  // they raise nothing any more
    if (_srServiceHandler) {  // null when a startup() after shutdown() has failed
        _srServiceHandler->shutdown();
        _srServiceHandler->MicroServiceRegistrationChanged -=
            Poco::delegate(this, &ClientLib::HandleServiceRegistryAvailabilityChanged);
        _srServiceHandler = nullptr;
    }
    closeConnections();
    exchangeConnectionManager(nullptr);
    _wsOjectSplitter = nullptr;
    _requests->awaitEnd();
}

// Whatever waits for a peer, at once and for all handlers; none begins anew.
void ClientLib::endAttemptsAndSends() {
    if (_srServiceHandler) _srServiceHandler->wakeReconnectThread();
    wakeReconnectThreads();
    for (const auto& worker : _workers->all()) {
        if (auto socket = worker->getSocket()) Nubo::Net::cancelSends(*socket);
    }
}

void ClientLib::wakeReconnectThreads() {
    for (auto& handler : handlers()) {
        if (handler) handler->wakeReconnectThread();
    }
}

// All close frames go out before the first handler waits for what its connection needs behind its own.
void ClientLib::closeAhead() {
    for (auto& handler : handlers()) {
        if (handler) handler->closeAhead();
    }
}

// The destructor of the earlier one joins its thread, which must not happen under the lock.
void ClientLib::exchangeConnectionManager(Poco::SharedPtr<WebsocketConnectionManager> manager) {
    Nubo::Util::MutexLock lock(_mutexManager);
    manager.swap(_wsConnectionManager);
}

// Holding the lock: a thread of the manager must not come to hold its last pointer.
void ClientLib::callLater(std::chrono::milliseconds delay, std::function<void()> action) {
    Nubo::Util::MutexLock lock(_mutexManager);
    if (_wsConnectionManager) _wsConnectionManager->callLater(delay, std::move(action));
}

void ClientLib::unwireTransport() {
    auto manager = connectionManager();
    if (!manager || !_wsOjectSplitter) return;
    manager->DataAvailable -=
        Poco::delegate(_wsOjectSplitter.get(), &WebsocketDataObjectSplitter::onDataBlockAvailable);
    _wsOjectSplitter->ObjectAvailable -= Poco::delegate(this, &ClientLib::DataAvailableHandler);
    _wsOjectSplitter->IncompleteDropped -= Poco::delegate(this, &ClientLib::IncompleteDroppedHandler);
    manager->SocketClosed -= Poco::delegate(this, &ClientLib::SocketClosedHandler);
}

void ClientLib::closeConnections() {
    auto manager = connectionManager();
    // A reconnect thread on its way out may still add one. The entries stay until destruction.
    for (const auto& worker : _workers->all()) {
        const auto socket = worker->getSocket();
        if (!socket) continue;
        try {
            Nubo::Net::WebSocketProxy(socket, manager.get()).shutdown();
        } catch (...) {
            // One socket that cannot be closed must not keep the others open.
        }
    }
}

ServiceHandler::Ptr ClientLib::addService(ServiceHandler::Ptr handler) {
    releaseReplacedHandlers();
    const std::string name = handler->getServiceName();
    if (name.find('-') != std::string::npos)
        ZOL_LOG_WARNING("ClientLib::addService: service " << name
                                                          << " has a '-' in its name, with which it hears "
                                                             "neither the registry nor its notifications");
    ServiceHandler::Ptr& entry = _services[name];
    ServiceHandler::Ptr replaced = entry;
    entry = handler;
    if (replaced && replaced != handler) {
        replaced->retire();  // others may hold it
        // Replaced from inside its own callback: it must survive until that has returned.
        if (replaced->isInOwnActivity()) _replacedHandlers.push_back(replaced);
    }
    handler->setReconnectParameters(_params.countConnectService_Retry, _params.delayConnectService_Retry);
    handler->start();
    return handler;
}

void ClientLib::releaseReplacedHandlers() {
    const auto idle = [](ServiceHandler::Ptr& handler) { return !handler->isInOwnActivity(); };
    _replacedHandlers.erase(std::remove_if(_replacedHandlers.begin(), _replacedHandlers.end(), idle),
                            _replacedHandlers.end());
}

ServiceHandler::Ptr ClientLib::getServiceHandler(const std::string& serviceName) const {
    const auto found = _services.find(serviceName);
    if (found != _services.end()) return found->second;
    ZOL_LOG_ERROR(GET_SERVICE_HANDLER << ": getServiceHandler returned nullptr for service: " << serviceName);
    return nullptr;
}

WebSocketRequestHandler::Ptr ClientLib::getServiceRegistryWebSocket() const {
    return _srServiceHandler->getWebSocket();
}

void ClientLib::HandleServiceRegistryAvailabilityChanged(
    const ServiceHandler::ServiceRegistrationEventData_t& data) {
    if (m_disposing) return;
    const bool available = nonNull(data.handler).isAvailable();
    if (!available) {
        wakeReconnectThreads();
        closeAhead();
    }
    for (auto& handler : handlers()) {
        if (available) {
            handler->start();
        } else {
            handler->shutdown();
        }
    }
}

// In key order. A copy: listeners may add or replace services from within start() and shutdown().
std::vector<ServiceHandler::Ptr> ClientLib::handlers() const {
    std::vector<ServiceHandler::Ptr> all;
    all.reserve(_services.size());
    for (const auto& entry : _services) all.push_back(entry.second);
    return all;
}

}  // namespace Nubo::Client
