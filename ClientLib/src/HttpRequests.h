#ifndef CLIENTLIB_SRC_HTTPREQUESTS_H
#define CLIENTLIB_SRC_HTTPREQUESTS_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Limits.h"

namespace Nubo::Client {

/// The calls of sendRequest() of one ClientLib: how long each may take, and which are in progress. Any
/// thread.
class HttpRequests {
public:
    /// A call in progress, as long as this object lives.
    class Call {
    public:
        explicit Call(HttpRequests& all) : _all(all) {
            const std::lock_guard<std::mutex> lock(_all._mutex);
            ++_all._inProgress;
        }
        ~Call() {
            const std::lock_guard<std::mutex> lock(_all._mutex);
            if (--_all._inProgress == 0) _all._ended.notify_all();
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        HttpRequests& _all;
    };

    void setTimeout(std::chrono::milliseconds total) {
        _timeout = std::clamp(total, Limits::MIN_REQUEST, Limits::MAX_REQUEST);
    }
    std::chrono::milliseconds timeout() const { return _timeout; }

    /// Waits until none is in progress: whoever calls it has ended them.
    void awaitEnd() {
        std::unique_lock<std::mutex> lock(_mutex);
        _ended.wait(lock, [this] { return _inProgress == 0; });
    }

private:
    std::atomic<std::chrono::milliseconds> _timeout{Limits::REQUEST};

    std::mutex _mutex;
    std::condition_variable _ended;
    int _inProgress = 0;  // guarded by _mutex
};

}  // namespace Nubo::Client

#endif
