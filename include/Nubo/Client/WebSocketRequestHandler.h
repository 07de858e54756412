#ifndef NUBO_CLIENT_WEBSOCKETREQUESTHANDLER_H
#define NUBO_CLIENT_WEBSOCKETREQUESTHANDLER_H

#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/AutoPtr.h>
#include <Poco/BasicEvent.h>
#include <Poco/Mutex.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>
#include <Poco/SharedPtr.h>
#include <Poco/Thread.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>

namespace Nubo::Client {

/// The worker of one open WebSocket: a thread with a queue. Outgoing requests, received data and the report
/// that the socket has closed are queued from other threads and handled on the worker's own, in order: a
/// request is sent as one text frame, data and close are raised as events.
///
/// Made by ClientLib::createNewWebsocket(). All operations may be called from any thread. The worker never
/// takes its owner's locks; its own socket mutex is held by its thread only around a send, which the
/// transport bounds (Nubo/Net/WebSocketSender.h).
class ZOL_EXPORT WebSocketRequestHandler : public Poco::Runnable {
public:
    using Ptr = Poco::SharedPtr<WebSocketRequestHandler>;  ///< counted; made from `new`

    /// What a queue entry carries.
    enum WebsocketNotificationType { SocketEvent = 0, Request = 1, SocketClosedEvent = 2 };

    /// One queue entry; each constructor copies its argument.
    class ZOL_EXPORT WebsocketNotification : public Poco::Notification {
    public:
        /// Of SocketEvent.
        explicit WebsocketNotification(const Nubo::Net::WebsocketDataEventPayload& payload);
        /// Of Request.
        explicit WebsocketNotification(const Nubo::Command::WebSocketRequestObject& request);
        /// Of SocketClosedEvent.
        explicit WebsocketNotification(const Nubo::Net::WebsocketEventPayload& payload);

        const WebsocketNotificationType _type;  ///< which of the three it is
        // Exactly one is set, as _type says. Three members, not a union: so they are released.
        const Poco::SharedPtr<Nubo::Net::WebsocketDataEventPayload> _dataEventPayload;  ///< SocketEvent
        const Nubo::Command::WebSocketRequestObject::Ptr _request;                      ///< Request
        const Poco::SharedPtr<Nubo::Net::WebsocketEventPayload> _closeEventPayload;     ///< SocketClosedEvent
    };

    /// Raised for each received block of data, in the order of arrival.
    /// Runs on: the worker's thread; delegates one after another, in the order in which they were added.
    /// Called: once per block; data that comes before the first delegate waits for it, one second at most.
    /// Holding: no lock. Must not: block for long (it holds up the connection's sends); expect shutdown() of
    /// this worker to return true. An exception ends this notification; Poco's with a Warning line.
    Poco::BasicEvent<const Nubo::Net::WebsocketDataEventPayload, Poco::FastMutex> SocketDataAvailable;

    /// Raised when the transport has reported that the socket closed; also while the worker shuts down.
    /// Runs on, Holding, Must not: as SocketDataAvailable. Called: after the last data of the connection.
    Poco::BasicEvent<const Nubo::Net::WebsocketEventPayload, Poco::FastMutex> SocketClosed;

    /// Starts the worker's thread, with the system's default stack size and every signal blocked.
    /// @param socket an open WebSocket, shared. Null is tolerated: requests then go nowhere.
    /// @throws Poco::SystemException when no thread can be started.
    explicit WebSocketRequestHandler(Poco::SharedPtr<Poco::Net::WebSocket>& socket);

    /// Shuts down and returns when the worker's thread has ended: blocks as shutdown(), and as long as a
    /// delegate that is running. On the worker's own thread (a delegate dropped the last pointer) it does not
    /// wait: the thread ends by itself once the delegate returns.
    ~WebSocketRequestHandler() override;
    WebSocketRequestHandler(const WebSocketRequestHandler&) = delete;
    WebSocketRequestHandler& operator=(const WebSocketRequestHandler&) = delete;

    /// The thread's body; not to be called by users.
    void run() override;

    /// Queues a request (copied) and returns at once. It is sent once, without retry; a failure is a Warning
    /// line. After shutdown() it is never sent.
    void operator<<(const Nubo::Command::WebSocketRequestObject& request);

    /// Queues received data (copied), as the ClientLib does on the connection manager's thread.
    void enqueueSocketData(const Nubo::Net::WebsocketDataEventPayload& payload);

    /// Queues the report that the socket closed (copied). Called like enqueueSocketData().
    void socketClosedHandler(const Nubo::Net::WebsocketEventPayload& payload);

    /// Local and peer address of the socket, as they were at construction; a default address where the socket
    /// could not tell, and after shutdown(). Never block and never throw.
    Poco::Net::SocketAddress address();
    Poco::Net::SocketAddress peerAddress();  ///< @copydoc address()

    /// The lock around every use of the socket, for callers that change delegates or use the socket directly.
    /// A thread that holds it may take a handler's socket mutex, never the other way round with the
    /// registry's worker (ARCHITECTURE.md lists the order).
    Poco::Mutex& getSocketMutex();

    /// The first call stops the thread, sends a close frame (code 1000) and gives the socket up; further
    /// calls only report. What is queued by then is gone through first: a close is still raised, the rest is
    /// dropped. Blocks up to 100 ms for a send, which is ended then, up to 1 s for a delegate that is
    /// running, and 10 ms. From the worker's own thread it does not wait for the thread.
    /// @return true once the thread has ended.
    bool shutdown();

    /// The socket, shared; null after shutdown(). Never blocks.
    Poco::SharedPtr<Poco::Net::WebSocket> getSocket() const;

    /// @return true from the moment at which the worker's thread has seen the close report, just before it
    ///         raises SocketClosed: whoever attaches a delegate too late for that event sees it here.
    bool closeReported() const { return _closeReported; }

private:
    friend class ServiceHandler;  // closes many workers before it waits for any of them
    friend class WorkerTable;     // queues what comes in, and gives its pointers up
    using Entry = Poco::AutoPtr<WebsocketNotification>;
    enum class Afterwards { Continue, Leave };

    /// The first half of shutdown(), up to the close frame: shutdown() then does the rest. For many workers,
    /// of which each needs a moment between its close frame and the release of its socket.
    void closeAhead();
    /// Takes over the pointer by which this worker was listed, when its connection has closed. A release may
    /// wait for the worker's thread, so that thread does it, behind the report of the close.
    /// @return false, with nothing taken over, when the thread has left its loop
    bool keepUntilClosed(Ptr& listed);
    Ptr takeKept(Afterwards afterwards);

    void handleNext(const std::atomic<bool>& destroyed) noexcept;
    void recover(const WebsocketNotification& entry, const std::atomic<bool>& destroyed) noexcept;
    void leave();
    Entry nextEntry();
    bool earlyEntriesAreDue();
    bool mustWaitForDelegates(const Entry& entry);
    bool hasDelegates() const;
    void handle(const WebsocketNotification& entry);
    void raiseData(const WebsocketNotification& entry);
    void sendRequest(const WebsocketNotification& entry);
    void raiseClosed(const WebsocketNotification& entry);
    void stopAndCloseLocked();
    void wakeThread();
    void joinThread();
    void sendCloseFrame();
    void releaseSocketLocked();

    std::atomic<bool> _disposing;
    std::atomic<bool> _finishedThread;
    // Shared with run(): log messages made on the thread ask it for its name, also when a delegate has
    // dropped the last pointer to this object.
    std::shared_ptr<Poco::Thread> _threadObject;
    Poco::SharedPtr<Poco::Net::WebSocket> _socket;    // use: _socketMutex; pointer: _mutexSocketPointer
    Poco::SharedPtr<Poco::NotificationQueue> _queue;  // locks itself
    Poco::Mutex _socketMutex;
    // Leaf. The ClientLib compares sockets while shutdown() holds _socketMutex: the pointer has its own lock.
    mutable Nubo::Util::Mutex _mutexSocketPointer;
    std::atomic<bool> _closeReported;
    bool _joined = false;  // guarded by _socketMutex: a Poco::Thread must be joined exactly once
    // Outlives the worker when a delegate drops the last pointer to it: its thread must not touch it again.
    std::shared_ptr<std::atomic<bool>> _destroyedOnOwnThread;
    // Worker's thread only: entries that came before anybody listened.
    std::deque<Entry> _earlyEntries;
    std::chrono::steady_clock::time_point _earlyDeadline;
    bool _listenedTo = false;  // a delegate was there, or none came in time: nothing waits any more
    bool _atStopMark = false;  // worker's thread only
    const Poco::AutoPtr<Poco::Notification> _stopMark;  // the entry behind which nothing is handled
    // Fixed after construction.
    Poco::Net::SocketAddress _address;
    Poco::Net::SocketAddress _peerAddress;
    bool _stopped = false;                             // guarded by _socketMutex: the stop mark is queued
    std::chrono::steady_clock::time_point _releaseAt;  // guarded by _socketMutex: not before is _socket reset
    Ptr _keptUntilClosed ZOL_GUARDED_BY(_mutexSocketPointer);
    bool _left ZOL_GUARDED_BY(_mutexSocketPointer) = false;  // the thread is behind its loop
};

}  // namespace Nubo::Client

#endif
