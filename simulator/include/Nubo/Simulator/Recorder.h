#ifndef NUBO_SIMULATOR_RECORDER_H
#define NUBO_SIMULATOR_RECORDER_H

#include <Poco/Net/NameValueCollection.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::Simulator {

class ChangeSignal;

/// A message received over a WebSocket.
struct Request_t {
    unsigned socket = 0;  ///< which of the endpoint's sockets, counted from 1 in the order of the upgrades
    std::string type;     ///< empty when the message is no JSON object or has no such member
    std::string event;    ///< byte for byte
    std::optional<long> interval;
    std::optional<long> updateLimit;
    std::string authorization;
    bool autosubscribe = false;
    std::string text;  ///< the message as it came
    std::chrono::steady_clock::time_point time;
};

/// A request received over HTTP; of an upgrade, the request alone.
struct HttpRequest_t {
    std::string method;
    std::string uri;  ///< path and query as in the request line
    Poco::Net::NameValueCollection headers;
    std::string body;
    std::chrono::steady_clock::time_point time;
};

/// What an endpoint has received since it was made or clear() was called. Locks itself; any thread. Grows
/// with every request: long runs call clear() now and then.
class Recorder {
public:
    /// @param changed is told of every addition; outlives the recorder.
    explicit Recorder(ChangeSignal& changed);

    void add(const Request_t& request);
    void addHttp(const HttpRequest_t& request);
    void addUpgradeRequest(const HttpRequest_t& request);
    /// Counts an accepted upgrade. @return its number, which clear() does not set back.
    unsigned addUpgrade();
    void clear();

    /// All messages in the order in which they were handled.
    std::vector<Request_t> requests() const;
    /// Those of one type, in order.
    std::vector<Request_t> requests(const std::string& type) const;
    /// Plain HTTP requests in order of arrival.
    std::vector<HttpRequest_t> httpRequests() const;
    /// Upgrade requests in order of arrival, answered properly or not.
    std::vector<HttpRequest_t> upgradeRequests() const;
    /// How many upgrades were answered with status 101.
    std::size_t upgrades() const;

private:
    // Fixed after construction.
    ChangeSignal& _changed;

    mutable std::mutex _mutex;  // leaf
    // Guarded by _mutex.
    std::vector<Request_t> _requests;
    std::vector<HttpRequest_t> _httpRequests;
    std::vector<HttpRequest_t> _upgradeRequests;
    std::size_t _upgrades = 0;
    unsigned _lastSocket = 0;
};

}  // namespace Nubo::Simulator

#endif
