#ifndef NUBO_SIMULATOR_CONNECTION_H
#define NUBO_SIMULATOR_CONNECTION_H

#include <Nubo/Simulator/Faults.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "SubscriptionList.h"

namespace Nubo::Simulator {

class Endpoint;

/// One accepted connection and its thread: HTTP requests first, frames after an upgrade. The thread alone
/// reads, and closes the descriptor at its end; others send, and end the connection by shutting it down.
class Connection : private Poco::Runnable {
public:
    Connection(Endpoint& endpoint, const Poco::Net::StreamSocket& stream);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Any thread.
    /// @{
    void setSilent(bool silent);
    /// Ends an open WebSocket. @return whether it was one
    bool end(const Ending_t& ending);
    /// Ends the connection at once, whatever it is doing. Takes no lock that a send holds.
    void abort();
    /// Sends on an open WebSocket. A failed send ends it. @return whether the bytes went out
    bool send(const std::string& bytes);
    bool isOpen() const;
    /// 0 before the upgrade.
    unsigned number() const { return _number; }
    SubscriptionList& subscriptions() { return _subscriptions; }
    /// The thread has nothing more to do.
    bool isFinished() const { return _finished; }
    /// @}

    /// The owner's thread: once each. The connection is not destroyed between the two.
    /// @{
    void start();
    void join();
    /// @}

    /// The connection's thread. Those that return a bool say false when the connection is to end.
    /// @{
    bool waitWhileSilent();
    bool pause(std::chrono::milliseconds time);
    /// Sends before the upgrade.
    bool trySend(const std::string& bytes);
    /// Reads until the peer has ended the connection.
    void awaitHangUp();
    void reset();
    /// Becomes a WebSocket with the number `number` and sends `answer`, in one step for other threads.
    bool open(unsigned number, const std::string& answer);
    /// Hands a message over to the endpoint.
    void received(const std::string& text);
    /// Serves the subscriptions whose limit held back a change and now lets it go.
    void pushDue();
    /// Sends `lastBytes` and the end of the stream on an open WebSocket. @return whether it was one
    bool endOurSide(const std::string& lastBytes);
    /// @}

private:
    enum class Phase {
        Http,     ///< not upgraded yet
        Open,     ///< an open WebSocket
        Closing,  ///< our side has ended, the peer's has not: only reads
        Ending,   ///< the thread is to end now
        Closed    ///< the descriptor is closed
    };

    void run() override;
    void close();
    bool isPhase(Phase phase) const;
    void endNowLocked(int how);

    // Fixed after construction.
    Endpoint& _endpoint;

    // Each locks itself.
    SubscriptionList _subscriptions;
    std::atomic<unsigned> _number{0};
    std::atomic<bool> _finished{false};

    std::unique_ptr<Poco::Thread> _thread;  // the owner's

    // Orders what is sent on an open WebSocket. Taken before _mutex.
    std::mutex _sendMutex;

    mutable std::mutex _mutex;  // leaf
    std::condition_variable _changed;
    // Guarded by _mutex. The descriptor is closed under both mutexes: it stays valid under either.
    Poco::Net::StreamSocket _stream;
    Phase _phase = Phase::Http;
    bool _silent = false;
};

}  // namespace Nubo::Simulator

#endif
