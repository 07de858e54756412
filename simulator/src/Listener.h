#ifndef NUBO_SIMULATOR_LISTENER_H
#define NUBO_SIMULATOR_LISTENER_H

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace Nubo::Simulator {

/// Stack of the platform's threads; hundreds of them may run.
constexpr int STACK_SIZE = 256 * 1024;

/// A port that is reserved as long as the object lives, and listened on between start() and stop(). Reserved
/// means bound: connections are refused, and the system gives the port to nobody else, not even to the
/// loopback connections of a client that keeps trying to reconnect to it. Used by one thread at a time.
class Listener : private Poco::Runnable {
public:
    using Accept = std::function<void(const Poco::Net::StreamSocket&)>;

    /// @param port 0: a free one. @throws Poco::Net::NetException "port N of ADDRESS is taken"
    Listener(const std::string& address, Poco::UInt16 port);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() override;

    /// Calls `accept` with each new connection, on a thread of its own. Exceptions as of the constructor.
    void start(const Accept& accept);
    /// Waits for that thread. Connections that it has not accepted yet are reset. Not from that thread.
    void stop();

    Poco::UInt16 port() const { return _address.port(); }

private:
    void run() override;

    // Fixed after construction.
    Poco::Net::SocketAddress _address;
    Poco::Net::ServerSocket _socket;

    // Touched by start() and stop(); _accept in between by the thread alone.
    std::unique_ptr<Poco::Thread> _thread;  // a new one each time
    Accept _accept;

    std::atomic<bool> _stopping{false};
};

}  // namespace Nubo::Simulator

#endif
