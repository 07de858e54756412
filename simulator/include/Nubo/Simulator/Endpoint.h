#ifndef NUBO_SIMULATOR_ENDPOINT_H
#define NUBO_SIMULATOR_ENDPOINT_H

#include <Nubo/Simulator/Faults.h>
#include <Nubo/Simulator/Recorder.h>
#include <Poco/Types.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::Simulator {

class Connection;
class FaultTable;
class Listener;
class SocketTable;
struct Change_t;
struct Subscription_t;
struct Target_t;

/// What the registry and a service have in common: a port served over HTTP and WebSocket, subscriptions and
/// pushes, a record of everything received, and the faults that it can be told to show.
///
/// Every operation may be called from any thread but the endpoint's own, and none of them throws unless its
/// description says so. Faults stay until they are used up or clearFaults() is called, over stop() and
/// start() as well.
///
/// A subscription is served at once and on every change. One with an `interval` (milliseconds, not 0) is
/// served at most `updateLimit` times (0 or not given: once) in each interval; a change beyond that is not
/// lost, but what has become of it by then is sent when the interval is over.
///
/// One thread accepts connections, one more serves each connection. What is sent to subscribers is sent on
/// the thread that causes it; a peer that takes nothing for 2 s (SEND_TIMEOUT) loses its connection.
class Endpoint {
public:
    static constexpr std::chrono::seconds SEND_TIMEOUT{2};

    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    virtual ~Endpoint();

    // --- Life -------------------------------------------------------------------------------------------

    /// Listens again on the same port; nothing happens when it does already. While stopped the port stays
    /// reserved, and a connection to it is refused.
    /// @throws Poco::Net::NetException "port 4480 of 127.0.0.1 is taken" when another process listens on it.
    void start();

    /// Ends like a process that is killed: closes the port and every connection, and waits for their threads
    /// (a matter of milliseconds). Elements, records and faults are kept, subscriptions are gone.
    void stop();

    bool isRunning() const;
    /// The service's name, or "registry".
    const std::string& name() const { return _name; }
    const std::string& address() const { return _address; }
    Poco::UInt16 port() const { return _port; }

    // --- Faults -----------------------------------------------------------------------------------------

    /// The next `times` upgrade requests meet `fault`, in place of any other upgrade fault.
    void onUpgrade(const Fault_t& fault, int times = Fault_t::ALWAYS);

    /// The next `times` plain HTTP requests meet `fault`, in place of any other HTTP fault.
    void onHttp(const Fault_t& fault, int times = Fault_t::ALWAYS);

    /// Hangs: connections stay open, but nothing is read, answered or pushed, no pings, no upgrades and no
    /// HTTP requests either. pushRaw() and its like still send.
    void goSilent();

    /// Ends goSilent(): what waits is answered, and the subscriptions that missed a change get the data of
    /// now.
    void speak();

    /// Back to normal: no faults, not silent. Requests that meet their fault already go on.
    void clearFaults();

    /// Ends every open WebSocket. After a close frame or the end of the stream the peer may still send; it is
    /// read and ignored until the peer ends its side as well. @return how many there were.
    std::size_t dropSockets(const Ending_t& ending);

    // --- Pushing as given ---------------------------------------------------------------------------------

    /// Sends `text` as one text frame to every open WebSocket. @return how many sockets took it.
    std::size_t pushRaw(const std::string& text);

    /// Sends `bytes`, which need not be a frame, to every open WebSocket.
    std::size_t pushBytes(const std::string& bytes);

    static constexpr unsigned TEXT = 1, CLOSE = 8;
    /// The bytes of a frame as a server sends it (RFC 6455, 5.2), for pushBytes().
    static std::string encodeFrame(const std::string& payload, unsigned opcode = TEXT);

    // --- What happened ---

    const Recorder& record() const { return _recorder; }
    void clearRecord() { _recorder.clear(); }

    /// WebSockets that are open and whose end has not begun.
    std::size_t openSockets() const;
    /// Live subscriptions over all open sockets whose path is that of `uri` and, when `uri` has a query,
    /// whose query is the same. A fragment of `uri` and a '/' at the path's end do not matter.
    /// @throws Poco::SyntaxException when `uri` is none.
    std::size_t liveSubscriptions(const std::string& uri) const;
    /// The events of all live subscriptions, socket by socket.
    std::vector<std::string> subscribedEvents() const;

protected:
    /// Reserves `port` (0: a free one) of `address`; does not listen yet. A deriving class calls start() and
    /// stop() in its own constructor and destructor, since connections call the operations below.
    /// @param name for those who are told what happens
    /// @param changed is told of everything that happens; outlives the endpoint.
    /// @throws Poco::Net::NetException as start().
    Endpoint(const std::string& name, const std::string& address, Poco::UInt16 port, ChangeSignal& changed);

    /// Goes to another free port, with the same state otherwise; runs afterwards if it ran before.
    void relocate();

    /// Makes a change and pushes it to the subscriptions concerned, before any other change is made. `change`
    /// says what it has changed. @return how many subscriptions were served.
    std::size_t publish(const std::function<Change_t()>& change);

    /// Tells the platform's observer of a happening here.
    void report(const std::string& what, const std::string& text = "", unsigned socket = 0) const;

private:
    friend class Connection;
    friend class HttpExchange;

    // Both run on connection threads, several at a time; publish() holds _order around render().
    virtual bool servesUpgrade(const Target_t& target) const = 0;
    virtual HttpAnswer_t answer(const HttpRequest_t& request) = 0;
    /// The JSON text of what `target` names, nothing when there is no such thing.
    virtual std::optional<std::string> render(const Target_t& target) const = 0;

    void received(Connection& connection, const std::string& text);
    void subscribe(Connection& connection, const Request_t& request);
    bool pushData(Connection& connection, const Subscription_t& subscription);
    void pushDue(Connection& connection);
    void raiseChanged();

    // Both need _lifeMutex held.
    void startLocked();
    void stopLocked();

    // Fixed after construction.
    const std::string _name;
    const std::string _address;
    ChangeSignal& _changed;

    // Each locks itself.
    Recorder _recorder;
    const std::unique_ptr<FaultTable> _faults;
    const std::unique_ptr<SocketTable> _sockets;
    std::atomic<bool> _silent{false};
    std::atomic<Poco::UInt16> _port;

    // Orders changes and what is sent for them: held while data is rendered and sent, so that no subscriber
    // sees an older state after a newer one. A send is bounded by SEND_TIMEOUT. Taken before all locks below.
    std::mutex _order;

    mutable std::mutex _lifeMutex;  // Serialises start, stop and relocate; taken before every other lock.
    // Guarded by _lifeMutex.
    std::unique_ptr<Listener> _listener;
    bool _running = false;
};

}  // namespace Nubo::Simulator

#endif
