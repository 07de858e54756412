#include <Logging/LogLine.h>
#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Net/WebSocketSender.h>
#include <Nubo/Util/SignalsBlocked.h>
#include <Poco/Exception.h>

#include <new>
#include <sstream>
#include <thread>

#include "EnqueueSurely.h"
#include "ParsedPayload.h"
#include "RetryInterval.h"
#include "SendLock.h"

namespace Nubo::Client {

using Nubo::Command::WebSocketRequestObject;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketEventPayload;

namespace {
constexpr const char* RUN = "virtual void Nubo::Client::WebSocketRequestHandler::run()";
constexpr const char* SHUTDOWN = "bool Nubo::Client::WebSocketRequestHandler::shutdown()";
constexpr long JOIN_MS = 1000;
constexpr std::chrono::milliseconds CLOSE_GRACE{10};
// How long data waits for the first delegate, and how often the thread looks for one meanwhile.
constexpr std::chrono::seconds EARLY_GRACE{1};
constexpr long EARLY_POLL_MS = 2;
constexpr long SEND_LOCK_POLL_MS = 10;

// Of each worker's thread, not of the worker: a delegate may destroy that.
thread_local LastObjects lastObjects;

/// A worker's socket mutex, for its shutdown: a send that has it and lasts is ended.
class ShutdownLock {
public:
    ShutdownLock(Poco::Mutex& mutex, Poco::SharedPtr<Poco::Net::WebSocket> socket) : _mutex(mutex) {
        if (_mutex.tryLock(SEND_PATIENCE_MS)) return;
        if (socket) Nubo::Net::cancelSends(*socket);
        _mutex.lock();
    }
    ~ShutdownLock() { _mutex.unlock(); }
    ShutdownLock(const ShutdownLock&) = delete;
    ShutdownLock& operator=(const ShutdownLock&) = delete;

private:
    Poco::Mutex& _mutex;
};

}  // namespace

// --- queue entries ---

WebSocketRequestHandler::WebsocketNotification::WebsocketNotification(
    const WebsocketDataEventPayload& payload)
    : _type(SocketEvent), _dataEventPayload(new WebsocketDataEventPayload(payload)) {}

WebSocketRequestHandler::WebsocketNotification::WebsocketNotification(const WebSocketRequestObject& request)
    : _type(Request), _request(new WebSocketRequestObject(request)) {}

WebSocketRequestHandler::WebsocketNotification::WebsocketNotification(const WebsocketEventPayload& payload)
    : _type(SocketClosedEvent), _closeEventPayload(new WebsocketEventPayload(payload)) {}

// --- any thread ---

WebSocketRequestHandler::WebSocketRequestHandler(Poco::SharedPtr<Poco::Net::WebSocket>& socket)
    : _disposing(false),
      _finishedThread(false),
      _threadObject(std::make_shared<Poco::Thread>()),
      _socket(socket),
      _queue(new Poco::NotificationQueue),
      _closeReported(false),
      _destroyedOnOwnThread(std::make_shared<std::atomic<bool>>(false)),
      _stopMark(new Poco::Notification) {
    const Nubo::Net::WebSocketProxy endpoints(socket, nullptr);
    _address = endpoints.address();
    _peerAddress = endpoints.peerAddress();
    const Nubo::Util::SignalsBlocked blocked;
    _threadObject->start(*this);  // last: the thread uses every member
}

WebSocketRequestHandler::~WebSocketRequestHandler() {
    if (Poco::Thread::current() == _threadObject.get()) {
        shutdown();
        *_destroyedOnOwnThread = true;  // run() returns without touching this object again
        return;
    }
    while (!shutdown()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
    // "Finished" is the thread's last word, not its end.
    if (!_joined) _threadObject->join();
}

void WebSocketRequestHandler::operator<<(const WebSocketRequestObject& request) {
    _queue->enqueueNotification(new WebsocketNotification(request));
}

void WebSocketRequestHandler::enqueueSocketData(const WebsocketDataEventPayload& payload) {
    _queue->enqueueNotification(new WebsocketNotification(payload));
}

void WebSocketRequestHandler::socketClosedHandler(const WebsocketEventPayload& payload) {
    _queue->enqueueNotification(new WebsocketNotification(payload));
}

Poco::Net::SocketAddress WebSocketRequestHandler::address() {
    return getSocket() ? _address : Poco::Net::SocketAddress();
}

Poco::Net::SocketAddress WebSocketRequestHandler::peerAddress() {
    return getSocket() ? _peerAddress : Poco::Net::SocketAddress();
}

Poco::Mutex& WebSocketRequestHandler::getSocketMutex() {
    return _socketMutex;
}

Poco::SharedPtr<Poco::Net::WebSocket> WebSocketRequestHandler::getSocket() const {
    Nubo::Util::MutexLock lock(_mutexSocketPointer);
    return _socket;
}

bool WebSocketRequestHandler::shutdown() {
    const ShutdownLock lock(_socketMutex, getSocket());
    stopAndCloseLocked();
    releaseSocketLocked();
    return _finishedThread;
}

void WebSocketRequestHandler::closeAhead() {
    const ShutdownLock lock(_socketMutex, getSocket());
    stopAndCloseLocked();
}

void WebSocketRequestHandler::stopAndCloseLocked() {
    _disposing = true;
    if (_stopped) return;
    wakeThread();
    _stopped = true;
    joinThread();
    sendCloseFrame();
}

void WebSocketRequestHandler::wakeThread() {
    _queue->wakeUpAll();
    // wakeUpAll() is forgotten when the thread is about to wait: an entry is not.
    enqueueSurely(*_queue, _stopMark);
}

// Held lock: _socketMutex. A thread that wants to send gives up when it finds the lock taken.
void WebSocketRequestHandler::joinThread() {
    if (Poco::Thread::current() != _threadObject.get()) _joined = _threadObject->tryJoin(JOIN_MS);
}

void WebSocketRequestHandler::sendCloseFrame() {
    try {
        Nubo::Net::sendClose(*_socket);
        _releaseAt = std::chrono::steady_clock::now() + CLOSE_GRACE;
    } catch (const Poco::Exception& e) {
        ZOL_LOG_WARNING(SHUTDOWN << ": " << e.displayText());
    } catch (...) {
        // The socket is given up in any case.
    }
}

void WebSocketRequestHandler::releaseSocketLocked() {
    if (!_socket) return;
    std::this_thread::sleep_until(_releaseAt);
    Nubo::Util::MutexLock lock(_mutexSocketPointer);
    _socket.reset();
}

bool WebSocketRequestHandler::keepUntilClosed(Ptr& listed) {
    Nubo::Util::MutexLock lock(_mutexSocketPointer);
    if (_left) return false;
    _keptUntilClosed.swap(listed);
    return true;
}

// --- worker's thread ---

void WebSocketRequestHandler::run() {
    // A delegate may drop the last pointer to this object: these two outlive it.
    const auto thread = _threadObject;
    const auto destroyed = _destroyedOnOwnThread;
    // What was queued before shutdown() is gone through, since a close is reported in any case.
    while (!*destroyed && !(_atStopMark && _earlyEntries.empty())) handleNext(*destroyed);
    if (!*destroyed) leave();
}

// Touches no member behind handle(), which may have destroyed this object. Nothing is thrown: the thread
// would end without a word.
// @param destroyed by a delegate
void WebSocketRequestHandler::handleNext(const std::atomic<bool>& destroyed) noexcept {
    Entry entry;
    try {
        entry = nextEntry();
        if (entry && !mustWaitForDelegates(entry)) handle(*entry);
    } catch (const std::bad_alloc&) {
        if (entry && !destroyed) recover(*entry, destroyed);
    } catch (const Poco::Exception& e) {
        ZOL_LOG_WARNING(RUN << ": A socket is may going down. Exp: " << e.displayText());
    } catch (...) {
        // An exception of a delegate costs its notification only.
    }
}

// Memory was refused for the entry. A close is told until it is heard; what else is lost is fetched again on
// the connection that the owner makes when this one has ended.
void WebSocketRequestHandler::recover(const WebsocketNotification& entry,
                                      const std::atomic<bool>& destroyed) noexcept {
    while (!destroyed) {
        try {
            if (entry._type == SocketClosedEvent) return raiseClosed(entry);
            if (auto socket = getSocket()) Nubo::Net::sendClose(*socket);
            return;
        } catch (const std::bad_alloc&) {
            Poco::Thread::sleep(RETRY_INTERVAL_MS);
        } catch (...) {
            return;  // of a delegate, or the connection has ended already
        }
    }
}

void WebSocketRequestHandler::leave() {
    // cppcheck-suppress unreadVariable
    const Ptr last = takeKept(Afterwards::Leave);  // may be the last one, which destroys this object
    _finishedThread = true;
}

WebSocketRequestHandler::Ptr WebSocketRequestHandler::takeKept(Afterwards afterwards) {
    Ptr kept;
    Nubo::Util::MutexLock lock(_mutexSocketPointer);
    kept.swap(_keptUntilClosed);
    _left = afterwards == Afterwards::Leave;
    return kept;
}

// Null when the thread was woken up, or when it should look again whether somebody listens by now.
WebSocketRequestHandler::Entry WebSocketRequestHandler::nextEntry() {
    if (earlyEntriesAreDue()) {
        Entry entry = _earlyEntries.front();
        _earlyEntries.pop_front();
        return entry;
    }
    // A delivered notification leaves nothing on an idle connection.
    if (_queue->empty()) lastObjects.clear();
    Poco::AutoPtr<Poco::Notification> notification(_earlyEntries.empty()
                                                       ? _queue->waitDequeueNotification()
                                                       : _queue->waitDequeueNotification(EARLY_POLL_MS));
    Entry entry(dynamic_cast<WebsocketNotification*>(notification.get()), true);
    if (notification.isNull() || entry) return entry;
    _atStopMark = _atStopMark || notification == _stopMark;
    // cppcheck-suppress unreadVariable
    const Ptr last = takeKept(Afterwards::Continue);  // may be the last one, which destroys this object
    return nullptr;
}

bool WebSocketRequestHandler::earlyEntriesAreDue() {
    if (_earlyEntries.empty()) return false;
    _listenedTo =
        _listenedTo || _atStopMark || hasDelegates() || std::chrono::steady_clock::now() >= _earlyDeadline;
    return _listenedTo;
}

// A frame, or a close, may come right behind the upgrade, before the owner could add its delegates: it waits
// for them, and so does what comes behind it. Requests do not.
bool WebSocketRequestHandler::mustWaitForDelegates(const Entry& entry) {
    if (_listenedTo || entry->_type == Request) return false;
    if (entry->_type == SocketClosedEvent) _closeReported = true;
    if (_earlyEntries.empty()) {
        _listenedTo = hasDelegates();
        if (_listenedTo) return false;
        _earlyDeadline = std::chrono::steady_clock::now() + EARLY_GRACE;
    }
    _earlyEntries.push_back(entry);
    return true;
}

bool WebSocketRequestHandler::hasDelegates() const {
    return !SocketDataAvailable.empty() || !SocketClosed.empty();
}

void WebSocketRequestHandler::handle(const WebsocketNotification& entry) {
    switch (entry._type) {
        case SocketEvent:
            raiseData(entry);
            break;
        case Request:
            sendRequest(entry);
            break;
        case SocketClosedEvent:
            raiseClosed(entry);
            break;
    }
}

void WebSocketRequestHandler::raiseData(const WebsocketNotification& entry) {
    if (_disposing) return;
    const ParsedPayload parsed(*entry._dataEventPayload, &lastObjects);  // what the delegates then share
    SocketDataAvailable.notify(this, *entry._dataEventPayload);
}

void WebSocketRequestHandler::sendRequest(const WebsocketNotification& entry) {
    if (_disposing) return;
    std::ostringstream text;
    entry._request->getData()->stringify(text, 0, -1);
    // shutdown() holds the mutex while it waits for this thread to end.
    while (!_socketMutex.tryLock(SEND_LOCK_POLL_MS)) {
        if (_disposing) return;
    }
    const std::unique_ptr<Poco::Mutex, void (*)(Poco::Mutex*)> unlock(
        &_socketMutex, [](Poco::Mutex* mutex) { mutex->unlock(); });
    if (_socket) Nubo::Net::sendFrame(*_socket, text.str(), Poco::Net::WebSocket::FRAME_TEXT);
}

// Does not look at _disposing: a close is always reported.
void WebSocketRequestHandler::raiseClosed(const WebsocketNotification& entry) {
    _closeReported = true;
    // cppcheck-suppress unreadVariable
    const Ptr last = takeKept(Afterwards::Continue);  // dropped behind the event
    SocketClosed.notify(this, *entry._closeEventPayload);
}

}  // namespace Nubo::Client
