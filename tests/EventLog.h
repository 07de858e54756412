#ifndef TESTS_EVENTLOG_H
#define TESTS_EVENTLOG_H

#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Poco/Delegate.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

constexpr std::chrono::seconds DEADLINE{30};

/// Looks at a condition until it holds; false when it does not within the deadline.
template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// Notes the events of a worker, or of the ClientLib, as "data {text}" and "closed {reason}", and then does
/// what the test wants done inside the delegate.
class EventLog {
public:
    template <class Source>
    void listen(Source& source) {
        source.SocketDataAvailable += Poco::delegate(this, &EventLog::data);
        source.SocketClosed += Poco::delegate(this, &EventLog::closed);
    }
    void data(const Nubo::Net::WebsocketDataEventPayload& payload) { note("data " + payload.data); }
    void closed(const Nubo::Net::WebsocketEventPayload& payload) { note("closed " + payload.Reason); }

    std::vector<std::string> events() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _events;
    }
    bool waitFor(const std::vector<std::string>& all) const {
        return eventually([&] { return events() == all; });
    }

    std::function<void(const std::string& event)> inside = [](const std::string&) {};

private:
    void note(const std::string& event) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _events.push_back(event);
        }
        inside(event);
    }

    mutable std::mutex _mutex;
    std::vector<std::string> _events;  // guarded by _mutex
};

#endif
