#ifndef CLIENTLIB_SRC_WORKERTABLE_H
#define CLIENTLIB_SRC_WORKERTABLE_H

#include <Nubo/Client/WebSocketRequestHandler.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Poco/Mutex.h>
#include <Poco/Net/WebSocket.h>

#include <unordered_map>
#include <vector>

namespace Nubo::Client {

/// The ClientLib's list of workers, and beside it an index by socket: what comes in for the last of a
/// thousand connections finds its worker as fast as for the first.
///
/// A release of a worker may wait for its thread, so none happens under the lock, nor in queue() and close(),
/// which are the connection manager's. Any thread.
class WorkerTable {
public:
    using Workers = std::vector<WebSocketRequestHandler::Ptr>;

    /// @param workers  the list, in the order of creation; guarded by `mutex`; both outlive this object
    WorkerTable(Workers& workers, Poco::Mutex& mutex) : _workers(workers), _mutex(mutex) {}

    /// @param socket  the worker's
    void add(WebSocketRequestHandler::Ptr worker, const Poco::Net::WebSocket& socket);

    /// Takes the worker out that has the very same WebSocket object; of those that have shut down, which have
    /// none, the one that is meant.
    void remove(const WebSocketRequestHandler::Ptr& worker);

    /// A copy of the list.
    Workers all() const;

    /// Queues data for the worker of its connection. @return false when nobody has that connection (any more)
    bool queue(const Nubo::Net::WebsocketDataEventPayload& data);

    enum class Report { Yes, No };
    /// Takes the worker of the connection out, queues the report, and leaves it to the worker's thread to
    /// release the list's pointer. @return as queue()
    bool close(const Nubo::Net::WebsocketEventPayload& payload, Report report);

private:
    using Key = const Poco::Net::SocketImpl*;
    using Queue = Poco::SharedPtr<Poco::NotificationQueue>;

    WebSocketRequestHandler* findLocked(const Poco::Net::WebSocket& socket) const;
    void forgetLocked(const WebSocketRequestHandler* worker);

    Workers& _workers;
    Poco::Mutex& _mutex;
    // Guarded by _mutex. A worker that has shut down may be in it with a socket that is gone: its place is
    // taken over when the address comes again.
    std::unordered_map<Key, WebSocketRequestHandler*> _bySocket;
};

}  // namespace Nubo::Client

#endif
