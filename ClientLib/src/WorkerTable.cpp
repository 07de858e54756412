#include "WorkerTable.h"

#include <algorithm>

#include "EnqueueSurely.h"

namespace Nubo::Client {

using Lock = Poco::Mutex::ScopedLock;
using Notification = WebSocketRequestHandler::WebsocketNotification;

void WorkerTable::add(WebSocketRequestHandler::Ptr worker, const Poco::Net::WebSocket& socket) {
    Lock lock(_mutex);
    _bySocket[socket.impl()] = worker.get();
    _workers.push_back(worker);
}

void WorkerTable::remove(const WebSocketRequestHandler::Ptr& worker) {
    const auto socket = worker->getSocket();
    const auto isSame = [&](const WebSocketRequestHandler::Ptr& other) {
        return other == worker || (socket && other->getSocket() == socket);
    };
    WebSocketRequestHandler::Ptr removed;  // outlives the lock
    Lock lock(_mutex);
    const auto found = std::find_if(_workers.begin(), _workers.end(), isSame);
    if (found == _workers.end()) return;
    removed.swap(*found);
    _workers.erase(found);
    forgetLocked(removed.get());
}

void WorkerTable::forgetLocked(const WebSocketRequestHandler* worker) {
    const auto isIts = [worker](const auto& entry) { return entry.second == worker; };
    const auto socket = worker->getSocket();
    const auto found =
        socket ? _bySocket.find(socket->impl()) : std::find_if(_bySocket.begin(), _bySocket.end(), isIts);
    if (found != _bySocket.end() && isIts(*found)) _bySocket.erase(found);
}

WorkerTable::Workers WorkerTable::all() const {
    Lock lock(_mutex);
    return _workers;
}

// A worker without a socket has shut down and owns none.
WebSocketRequestHandler* WorkerTable::findLocked(const Poco::Net::WebSocket& socket) const {
    const auto found = _bySocket.find(socket.impl());
    return found != _bySocket.end() && found->second->getSocket() ? found->second : nullptr;
}

bool WorkerTable::queue(const Nubo::Net::WebsocketDataEventPayload& data) {
    Queue entries;  // a share of it, not of the worker, whose last pointer this thread must not come to hold
    {
        Lock lock(_mutex);
        if (const auto* worker = findLocked(*data.webSocketProxy.webSocket)) entries = worker->_queue;
    }
    if (entries) entries->enqueueNotification(new Notification(data));
    return !entries.isNull();
}

bool WorkerTable::close(const Nubo::Net::WebsocketEventPayload& payload, Report report) {
    Poco::Notification::Ptr entry(report == Report::Yes ? new Notification(payload) : new Poco::Notification);
    Queue entries;
    {
        Lock lock(_mutex);
        auto* const worker = findLocked(*payload.webSocketProxy.webSocket);
        const auto listed = std::find(_workers.begin(), _workers.end(), worker);
        if (listed == _workers.end()) return false;
        entries = worker->_queue;
        forgetLocked(worker);
        // One whose thread has ended stays listed, for whoever has shut it down.
        if (worker->keepUntilClosed(*listed)) _workers.erase(listed);
    }
    enqueueSurely(*entries, entry);
    return true;
}

}  // namespace Nubo::Client
