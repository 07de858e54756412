// The service handler's connection: made, lost, rebuilt, retried on the reconnect thread, torn down.

#include <Logging/LineLimit.h>
#include <Logging/LogLine.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/DataMessages/WebSocketClosedMessage.h>
#include <Nubo/Client/DataMessages/WebSocketOpenedMessage.h>
#include <Nubo/Client/IClientLibInterface.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Poco/DateTime.h>
#include <Poco/Exception.h>

#include <exception>
#include <new>
#include <random>

#include "ConnectBudget.h"
#include "LossRate.h"
#include "NonNull.h"
#include "ReconnectThread.h"
#include "RetryInterval.h"
#include "RetryTicket.h"
#include "SendLock.h"

namespace Nubo::Client {

using Lock = Poco::Mutex::ScopedLock;
using StateLock = Nubo::Util::MutexLock;

namespace {

constexpr long JOIN_MS = 1000;
constexpr std::chrono::milliseconds CALLERS_ATTEMPT{500};
constexpr std::chrono::seconds REFUSED_THREAD_DELAY{1};
constexpr std::chrono::seconds THREADS_ATTEMPT{90};  // of which the transport gives 60 to the upgrade
constexpr unsigned DELAY_SPREAD_MS = 100;
constexpr int PAUSE_IN_DELAYS = 20;

// From the clock, so that handlers started together do not retry in step.
Poco::UInt32 seedFromClock() {
    const Poco::DateTime now;
    return static_cast<Poco::UInt32>(now.second()) * 1000000U +
           static_cast<Poco::UInt32>(now.millisecond()) * 1000U +
           static_cast<Poco::UInt32>(now.microsecond());
}

/// Sets a flag while it lives.
class Entered {
public:
    explicit Entered(bool& flag) : _flag(flag) { _flag = true; }
    ~Entered() { _flag = false; }
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;

private:
    bool& _flag;
};

}  // namespace

// --- reaction to a new state, on the caller's thread ---

void ServiceHandler::ServiceAvailabilityChanged(bool available) {
    if (available == _lastServiceAvailableValue || Disposing() || _serviceAvailabilityChangedEntered) return;
    const Entered entered(_serviceAvailabilityChangedEntered);
    react(available);
    announceAvailability();
}

void ServiceHandler::react(bool available) {
    try {
        ZOL_LOG_DEBUG("ServiceHandler::ServiceAvailabilityChanged: " << getServiceDescription() << " = "
                                                                     << available);
        const bool stays = !available && (!_autoReconnect || !isReconnectPossible());
        const bool atOnce = available || (!stays && noteLoss());
        if (!atOnce) tearDownConnection();
        _threadRefused = false;
        if (!stays && (!atOnce || !connectAtOnce())) startReconnectThread();
    } catch (const std::bad_alloc&) {
        startOver();
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::ServiceAvailabilityChanged - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::ServiceAvailabilityChanged - unspecified exception");
    }
}

// Memory was refused, so that something is half done: with a new connection everything is done anew.
void ServiceHandler::startOver() noexcept {
    try {
        ZOL_LOG_ERROR("ServiceHandler: no memory, starting over with service: " << getServiceDescription());
        destroyWebsocket();
        startReconnectThread();
    } catch (...) {
        // Of no use: the next change of the service's state tries again.
    }
}

// A peer that ends one connection after the other is left to the reconnect thread: that waits before each
// one.
// @return whether the connection may be rebuilt at once
bool ServiceHandler::noteLoss() {
    _lossRate->lost(std::chrono::steady_clock::now() - _announcedAt);
    return !_lossRate->tooHigh();
}

// The application's thread is not held by a peer, nor by a name server.
bool ServiceHandler::connectAtOnce() {
    const ConnectBudget budget(CALLERS_ATTEMPT, ConnectBudget::Names::LiteralsAndLocalhostOnly, nullptr);
    return reconnectServiceSocket();
}

void ServiceHandler::tearDownConnection() {
    while (!shutdownWebSocket()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
    destroyWebsocket();
}

// A connection that was replaced while the service stayed available is no change and raises no event: the
// live subscriptions are sent again here, and a subclass is told.
void ServiceHandler::announceAvailability() {
    try {
        const uint64_t generation = connection().generation;
        const bool replaced = _isSocketConnected && generation != _announcedGeneration;
        const bool unannounced = replaced && isAvailable() == _lastServiceAvailableValue;
        if (replaced) {
            // Only now: the reconnect thread may be between making a connection and calling it connected.
            _announcedGeneration = generation;
            _announcedAt = std::chrono::steady_clock::now();
            resubscribeAll();
        }
        RaiseMicroServiceRegistrationChanged(ServiceRegistrationEventData_t{this});
        if (unannounced) HandleConnectionReplaced();
    } catch (const std::bad_alloc&) {
        startOver();
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::ServiceAvailabilityChanged - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::ServiceAvailabilityChanged - unspecified exception");
    }
}

void ServiceHandler::WebSocketOpenedHandlerSync() {
    MultiThreadingObjectLockGuard guard(this);
    if (!guard.tryEnter()) return;
    ZOL_LOG_INFO("WebSocketOpenedHandlerSync: reconnect msg received");
    try {
        checkReconnected();
    } catch (const std::bad_alloc&) {
        startOver();
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketOpenedHandlerSync - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketOpenedHandlerSync - unspecified exception");
    }
    announceAvailability();
}

// What the reconnect thread made may be of no use any more when its message runs.
void ServiceHandler::checkReconnected() {
    auto worker = getWebSocket();
    if (!isReconnectPossible()) {
        destroyWebsocket();  // withdrawn while the message was on its way: nobody else would close it
    } else if (worker && worker->closeReported()) {
        // The close message may have come first, when the service counted as lost still.
        destroyWebsocket();
        if (_autoReconnect) startReconnectThread();
    }
}

void ServiceHandler::WebSocketClosedHandlerSync(const Nubo::Net::WebsocketEventPayload& payload) {
    MultiThreadingObjectLockGuard guard(this);
    if (!guard.tryEnter()) return;
    try {
        _badDataLines->writeLeftOut();
        ZOL_LOG_ERROR("WebSocketClosedHandlerSync: communication error with service: "
                      << getServiceDescription() << ";" << payload.Reason);
        ServiceAvailabilityChanged(false);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketClosedHandlerSync - exception: " << e.displayText());
    } catch (...) {
        ZOL_LOG_ERROR("ServiceHandler::WebSocketClosedHandlerSync - unknown exception: ");
    }
}

// --- a worker's thread ---

void ServiceHandler::WebSocketClosedHandler(const Nubo::Net::WebsocketEventPayload& payload) {
    if (!post(new WebSocketClosedMessage(this, payload))) {
        ZOL_LOG_WARNING("ServiceHandler::WebSocketClosedHandler: Could not enqueue message!");
    }
}

// From the call on the message is the sink's, accepted or not; without a sink it is refused here. A sink that
// throws, which it must not, has refused it: the exception would cost other handlers their call.
bool ServiceHandler::post(Nubo::Util::DataMessageBase* message) {
    if (!_messageSyncInterface) {
        message->release();
        return false;
    }
    try {
        return _messageSyncInterface->enqueueDataMessage(message);
    } catch (...) {
        return false;
    }
}

// --- connecting and tearing down, under _socketMutex, on the caller's or the reconnect thread ---

bool ServiceHandler::reconnectServiceSocket() {
    const ReconnectThread::Overtake lock(*_reconnectThread, _socketMutex);
    ZOL_LOG_DEBUG("reconnectServiceSocket: reconnecting to service: " << getServiceDescription());
    try {
        if (getWebSocket()) {
            while (!destroyWebsocket()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
        }
        if (isReconnectPossible() && connectToService()) return true;
    } catch (...) {
        // A refused connection, a time-out, an upgrade that was answered otherwise: no connection.
    }
    destroyWebsocket();
    return false;
}

// @return false when the new connection was closed before this handler listened to it
bool ServiceHandler::connectToService() {
    const ServiceAddress_t address = serviceAddress();
    auto worker = nonNull(_clientLibInterface)
                      .createNewWebsocket(_serviceName, address.host, address.port, _timeoutBeforePing);
    setConnection(worker);
    {
        const SendLock workerLock(worker->getSocketMutex());
        addDelegates(*worker, &ServiceHandler::OwnConnectionDataHandler);
    }
    if (worker->closeReported()) return false;
    _isSocketConnected = true;
    return true;
}

void ServiceHandler::setConnection(const WebSocketRequestHandler::Ptr& worker) {
    StateLock lock(_mutexState);
    _serviceWebSocket = worker;
    ++_connectionGeneration;
}

bool ServiceHandler::shutdownWebSocket() {
    const ReconnectThread::Overtake lock(*_reconnectThread, _socketMutex);
    auto worker = getWebSocket();
    if (!worker) return true;
    removeDelegates(*worker);
    return worker->shutdown();
}

// The delegates come off first: this end is not to be reported.
void ServiceHandler::closeAhead() {
    const ReconnectThread::Overtake lock(*_reconnectThread, _socketMutex);
    auto worker = getWebSocket();
    if (!worker) return;
    removeDelegates(*worker);
    worker->closeAhead();
}

bool ServiceHandler::destroyWebsocket() {
    const ReconnectThread::Overtake lock(*_reconnectThread, _socketMutex);
    if (auto worker = getWebSocket()) {
        removeDelegates(*worker);
        try {
            nonNull(_clientLibInterface).destroyWebsocket(worker);
        } catch (const Poco::Exception& e) {
            ZOL_LOG_ERROR("ServiceHandler::destroyWebsocket - exception: " << e.displayText());
        } catch (...) {
            // It is given up in any case.
        }
        // Handlers that still remember this worker as the registry's keep it, and its socket, alive.
        worker->shutdown();
        setConnection(nullptr);
    }
    _isSocketConnected = false;
    return true;
}

// --- the reconnect thread: started, stopped, joined ---

void ServiceHandler::startReconnectThread() {
    ZOL_LOG_DEBUG("startReconnectThread");
    if (Disposing() || !isReconnectPossible()) return;
    try {
        _reconnectThread->start(*this, {_countConnectServiceRetry, _delayConnectServiceRetry});
        _threadRefused = false;
    } catch (const Poco::SystemException& e) {
        ZOL_LOG_ERROR("startReconnectThread: " << e.displayText() << ": " << getServiceDescription()
                                               << " is tried again later");
        _threadRefused = true;
        startReconnectThreadLater();
    }
}

// The next loss or announcement tries again too, but none may come. Without a ClientLib there is no timer.
void ServiceHandler::startReconnectThreadLater() {
    auto* const clientLib = dynamic_cast<ClientLib*>(_clientLibInterface);
    if (!clientLib) return;
    clientLib->callLater(REFUSED_THREAD_DELAY, [ticket = _ticket] {
        const StateLock lock(ticket->mutex);
        if (ticket->handler && ticket->handler->_threadRefused) ticket->handler->startReconnectThread();
    });
}

bool ServiceHandler::stopReconnectThread() {
    ZOL_LOG_DEBUG("stopReconnectThread");
    return joinReconnectThread();
}

void ServiceHandler::wakeReconnectThread() {
    _reconnectThread->wake();
}

bool ServiceHandler::joinReconnectThread() {
    { const StateLock timerHasRun(_ticket->mutex); }
    return _reconnectThread->join(JOIN_MS);
}

void ServiceHandler::endReconnectThread() {
    _reconnectThread->stopForGood();
    while (!stopReconnectThread()) {
        // The thread is in the sink.
    }
}

// --- the reconnect thread's body ---

void ServiceHandler::run() {
    ReconnectThread::Run run(*_reconnectThread);
    do {
        try {
            const auto [count, delayMs] = run.retries();
            runSeries(count, delayMs);
        } catch (...) {
            // Nothing may leave the thread, not even for lack of memory for a log line.
        }
    } while (run.again([this] { return !_isSocketConnected && isReconnectPossible() && !Disposing(); }));
}

void ServiceHandler::runSeries(uint8_t count, uint32_t baseDelayMs) {
    try {
        retryUntilConnected(count, baseDelayMs);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::start - exception: " << e.displayText());
    } catch (const std::exception& e) {
        ZOL_LOG_ERROR("ServiceHandler::start - exception: " << e.what());
    }
}

void ServiceHandler::retryUntilConnected(uint8_t count, uint32_t baseDelayMs) {
    std::minstd_rand random(seedFromClock());  // unlike POCO's, it needs no memory
    int attemptsLeft = count;
    long delayMs = static_cast<long>(baseDelayMs);
    uint64_t own = 0;
    while (!Disposing()) {
        if (attemptsLeft == 0) {
            if (!waitForNextSeries(delayMs)) return;
            attemptsLeft = count + 1;  // one more than the first series: intended
            continue;
        }
        delayMs = static_cast<long>(baseDelayMs) + static_cast<long>(random() % DELAY_SPREAD_MS);
        if (_wait.tryWait(delayMs)) return;
        if (!isReconnectPossible()) {
            ZOL_LOG_INFO("run: won't try reconnect since service is not registered at SR");
            return;
        }
        if (tryReconnect(own)) return;
        --attemptsLeft;
    }
}

// Lack of memory, threads or descriptors fails an attempt, and no more: there is another one.
bool ServiceHandler::tryReconnect(uint64_t& own) {
    try {
        ZOL_LOG_DEBUG("run: try reconnect");
        return reconnectUnlessConnected(own) && postOpened();
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const Poco::SystemException&) {
        return false;
    }
}

// A connection that the caller's thread has made meanwhile stays: the application was told of it, and nobody
// would tell it of a gap.
// @param own the number of the connection that this run of the thread has made, 0 for none
bool ServiceHandler::reconnectUnlessConnected(uint64_t& own) {
    Lock lock(_socketMutex);
    Connection_t current = connection();
    const bool connected = _isSocketConnected && current.worker && !current.worker->closeReported();
    if (connected && current.generation != own) return true;
    const ReconnectThread::Attempt attempt(*_reconnectThread);
    const ConnectBudget budget(THREADS_ATTEMPT, ConnectBudget::Names::MayBeLookedUp, attempt.cancellation());
    if (!reconnectServiceSocket()) return false;
    own = connection().generation;
    return true;
}

// @return false when the thread was asked to stop
bool ServiceHandler::waitForNextSeries(long delayMs) {
    ZOL_LOG_WARNING("run: service " << getServiceDescription() << " is not reachable (semi-permanent)!");
    for (int waits = 0; waits < PAUSE_IN_DELAYS && !Disposing(); ++waits) {
        if (_wait.tryWait(delayMs)) return false;
    }
    return true;
}

bool ServiceHandler::postOpened() {
    if (post(new WebSocketOpenedMessage(this))) {
        ZOL_LOG_INFO("run: reconnect done");
        return true;
    }
    ZOL_LOG_ERROR("ServiceHandler::WebSocketDataAvailableHandler: Could not enqueue message!");
    return false;
}

}  // namespace Nubo::Client
