// The service handler's core: the registry's side of it, its lifecycle and the announcements.
//
// Lock order, outermost first: the registry worker's socket mutex, this handler's _socketMutex, the service
// worker's socket mutex, leaf locks.

#include <Logging/LineLimit.h>
#include <Logging/LogLine.h>
#include <Nubo/Client/IClientLibInterface.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Data/XObjectBase.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <utility>

#include "LossRate.h"
#include "NonNull.h"
#include "NotifyEach.h"
#include "ReconnectThread.h"
#include "RetryInterval.h"
#include "RetryTicket.h"
#include "SendLock.h"
#include "SubscriptionBook.h"

namespace Nubo::Client {

using Nubo::Command::WebSocketRequestObject;
using Lock = Poco::Mutex::ScopedLock;

namespace {
constexpr int FIRST_ID_LESS_ONE = 10;
constexpr uint8_t DEFAULT_RETRY_COUNT = 4;
constexpr uint32_t DEFAULT_RETRY_DELAY_MS = 500;
}  // namespace

std::atomic<int> ServiceHandler::unique_id_per_session_counter{FIRST_ID_LESS_ONE};

ServiceHandler::ServiceHandler(const std::string& serviceName, IClientLibInterface* clientLib,
                               IMessageSyncInterface* messageSync, uint32_t timeoutBeforePing,
                               bool autoReconnect)
    : _clientLibInterface(clientLib),
      _messageSyncInterface(messageSync),
      _serviceName(serviceName),
      _isSocketConnected(false),
      _servicePort(0),
      _lastServiceAvailableValue(false),
      _serviceAvailabilityChangedEntered(false),
      _autoReconnect(autoReconnect),
      _countConnectServiceRetry(DEFAULT_RETRY_COUNT),
      _delayConnectServiceRetry(DEFAULT_RETRY_DELAY_MS),
      _timeoutBeforePing(timeoutBeforePing),
      _lossRate(std::make_unique<LossRate>()),
      _reconnectThread(std::make_unique<ReconnectThread>(_reconnectThreadObject, _wait)),
      _ticket(std::make_shared<RetryTicket>()),
      _book(std::make_unique<SubscriptionBook>(_subscrMapSubscribers, _subscrUriValueMap)),
      _badDataLines(std::make_unique<Logging::LineLimit>()) {
    const Nubo::Util::MutexLock lock(_ticket->mutex);
    _ticket->handler = this;
}

ServiceHandler::~ServiceHandler() {
    try {
        {
            const Nubo::Util::MutexLock lock(_ticket->mutex);
            _ticket->handler = nullptr;
        }
        wakeReconnectThread();
        detachFromRegistry();  // a handler that was replaced is destroyed without shutdown()
        while (!shutdownWebSocket()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
        endReconnectThread();
        destroyWebsocket();
        _badDataLines->writeLeftOut();
    } catch (...) {
        // A mutex or thread that the system refuses: the members are destroyed all the same.
    }
}

// --- registry ---

void ServiceHandler::start() {
    try {
        const std::string uri = "/?" + Nubo::Data::XObjectBase::KEY_NAME + "=" + _serviceName + "#" +
                                getUniqueId() + "-" + _serviceName;
        ZOL_LOG_INFO("ServiceHandler::start: subscribe to service registry " << uri);
        MultiThreadingObject::startup();
        auto registry = nonNull(_clientLibInterface).getServiceRegistryWebSocket();
        detachFromRegistry();
        subscribeAtRegistry(registry, uri);
        _subscribedRegistry = registry;
        _registryUri = uri;
        _firstAnswerDue = true;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::start - exception: " << e.displayText());
    }
}

// @throws Poco::NullPointerException while the registry is away
void ServiceHandler::subscribeAtRegistry(WebSocketRequestHandler::Ptr registry, const std::string& uri) {
    const auto request = [](const std::string& type, const std::string& event) {
        return WebSocketRequestObject(type, event, {}, {}, nullptr, false);
    };
    const SendLock lock(registry->getSocketMutex());
    attachToRegistry(registry);
    // Else the registry would tell each change once for each start().
    if (registry == _subscribedRegistry)
        *registry << request(WebSocketRequestObject::TYPE_UNSUBSCRIBE, _registryUri);
    *registry << request(WebSocketRequestObject::TYPE_SUBSCRIBE, uri);
}

// Held lock: the registry worker's socket mutex.
void ServiceHandler::attachToRegistry(WebSocketRequestHandler::Ptr registry) {
    _attachedRegistry = registry;
    addDelegates(*registry, &ServiceHandler::WebSocketDataAvailableHandler);
}

// Removing a delegate waits for its running call, which wants neither of the locks held here.
void ServiceHandler::detachFromRegistry() {
    auto registry = _attachedRegistry;  // outlives the lock on its mutex
    if (!registry) return;
    const SendLock lock(registry->getSocketMutex());
    removeDelegates(*registry);
    _attachedRegistry = nullptr;
}

void ServiceHandler::addDelegates(WebSocketRequestHandler& worker, DataHandler onData) {
    worker.SocketDataAvailable += Poco::delegate(this, onData);
    worker.SocketClosed += Poco::delegate(this, &ServiceHandler::WebSocketClosedHandler);
}

void ServiceHandler::removeDelegates(WebSocketRequestHandler& worker) {
    worker.SocketDataAvailable -= Poco::delegate(this, &ServiceHandler::OwnConnectionDataHandler);
    worker.SocketDataAvailable -= Poco::delegate(this, &ServiceHandler::WebSocketDataAvailableHandler);
    worker.SocketClosed -= Poco::delegate(this, &ServiceHandler::WebSocketClosedHandler);
}

// --- lifecycle ---

void ServiceHandler::shutdown() {
    try {
        leaveRegistryAndService();
        joinReconnectThread();  // without an address it ends at once
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::shutdown - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::shutdown - unspecified exception");
    }
    ServiceAvailabilityChanged(false);
    MultiThreadingObject::shutdown();
}

// For a handler that is replaced and that others may hold all the same: messages that are queued for it do
// nothing, delegates, which may be gone before it is, hear nothing more, and its loss is not announced.
void ServiceHandler::retire() {
    refuseActivities();
    leaveRegistryAndService();
    SocketDataAvailable.clear();
    MicroServiceRegistrationChanged.clear();
    _lastServiceAvailableValue = false;  // should it be added again
}

// The worker that the delegates are on, not the current one: the registry may be away, or have a new one.
void ServiceHandler::leaveRegistryAndService() {
    auto registry = _attachedRegistry;  // outlives the lock on its mutex
    if (!registry) return closeServiceConnection();
    const SendLock lock(registry->getSocketMutex());
    detachFromRegistry();
    closeServiceConnection();
}

// One hold of the lock: a reconnect thread that waits for it then finds that the service has no address.
void ServiceHandler::closeServiceConnection() {
    wakeReconnectThread();  // it makes no further attempt
    const ReconnectThread::Overtake lock(*_reconnectThread, _socketMutex);
    while (!destroyWebsocket()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
    Nubo::Util::MutexLock state(_mutexState);
    _isSocketConnected = false;
    _serviceAddress.clear();
}

// --- state, from any thread ---

bool ServiceHandler::isAvailable() const {
    return isReconnectPossible() && _isSocketConnected;
}

// Makes no copy: the reconnect thread's last decision asks, and must not fail for lack of memory.
bool ServiceHandler::isReconnectPossible() const {
    Nubo::Util::MutexLock lock(_mutexState);
    return !_serviceAddress.empty();
}

ServiceHandler::ServiceAddress_t ServiceHandler::serviceAddress() const {
    Nubo::Util::MutexLock lock(_mutexState);
    return {_serviceAddress, _servicePort};
}

std::string ServiceHandler::getServiceName() const {
    return _serviceName;
}

int ServiceHandler::getServicePort() const {
    return serviceAddress().port;
}

std::string ServiceHandler::getServiceDescription() const {
    return _serviceName + " (" + serviceAddress().host + ")";
}

WebSocketRequestHandler::Ptr ServiceHandler::getWebSocket() const {
    return connection().worker;
}

ServiceHandler::Connection_t ServiceHandler::connection() const {
    Nubo::Util::MutexLock lock(_mutexState);
    return {_serviceWebSocket, _connectionGeneration};
}

void ServiceHandler::setReconnectParameters(uint8_t count, uint32_t delayMs) {
    _countConnectServiceRetry = count;
    _delayConnectServiceRetry = delayMs;
}

std::string ServiceHandler::getUniqueId() {
    Lock lock(_sessionIdMutex);
    // Without a sign: a '-' would end the id's part of the fragment.
    return std::to_string(static_cast<unsigned>(++unique_id_per_session_counter));
}

// --- announcements, on the caller's thread ---

void ServiceHandler::setNewServiceAddress(std::string address, uint16_t port) {
    const bool registered = !address.empty();
    {
        Nubo::Util::MutexLock lock(_mutexState);
        _serviceAddress = std::move(address);
        _servicePort = port;
    }
    ServiceAvailabilityChanged(registered);
}

void ServiceHandler::TriggerMicroServiceRegistrationChanged() {
    RaiseMicroServiceRegistrationChangedInternal(ServiceRegistrationEventData_t{this});
}

void ServiceHandler::RaiseMicroServiceRegistrationChanged(const ServiceRegistrationEventData_t& data) {
    RaiseMicroServiceRegistrationChangedInternal(data);
}

void ServiceHandler::RaiseMicroServiceRegistrationChangedInternal(
    const ServiceRegistrationEventData_t& data) {
    try {
        LogServiceAvailability();
        const bool available = isAvailable();
        if (available == _lastServiceAvailableValue) return;
        _lastServiceAvailableValue = available;
        notifyEach(MicroServiceRegistrationChanged, this, data);
    } catch (const std::bad_alloc&) {
        _lastServiceAvailableValue = !isAvailable();  // it is announced once more
        throw;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(
            "ServiceHandler::RaiseMicroServiceRegistrationChangedInternal - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::RaiseMicroServiceRegistrationChangedInternal - unspecified exception");
    }
}

void ServiceHandler::LogServiceAvailability() const {
    ZOL_LOG_INFO("LogServiceAvailability (" << _serviceName
                                            << "): " << (isAvailable() ? ": AVAILABLE" : ": NOT AVAILABLE"));
}

void ServiceHandler::HandleConnectionReplaced() {}

}  // namespace Nubo::Client
