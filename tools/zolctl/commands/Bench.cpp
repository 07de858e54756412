// zolctl bench: how fast notifications of one element come.
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Data/XObjectBase.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>
#include <sstream>

#include "../Command.h"
#include "../Output.h"
#include "../Request.h"
#include "../Session.h"

namespace ZolCtl {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Nubo::Client::ServiceHandler;
using Nubo::Client::ServiceListener;

namespace {

constexpr int DEFAULT_COUNT = 200;
constexpr auto PATIENCE = 5s;  // for one notification
constexpr auto QUIET = 1s;     // after so long without a notification no more is expected

/// Counts the notifications of one subscription. Any thread, but for the listener's own operations.
class Counter : public ServiceListener {
public:
    Counter(Session& session, const std::string& service) : ServiceListener(&session.client(), 1) {
        session.follow(service);
        addServiceToMonitor(service, false);
    }
    ~Counter() override { shutdown(); }

    struct State_t {
        long count;
        Clock::time_point last;
    };
    State_t state() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _state;
    }

    /// Waits for more than `count` notifications. @throws Failure when they do not come in time
    Clock::time_point awaitMoreThan(long count) {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_counted.wait_for(lock, PATIENCE, [&] { return _state.count > count; }))
            throw Failure("a change was not followed by a notification; does it change anything?");
        return _state.last;
    }

private:
    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        if (data.type != Nubo::Command::WebSocketResponseObject::TYPE_DATA) return;
        std::lock_guard<std::mutex> guard(_mutex);
        _state = {_state.count + 1, Clock::now()};
        _counted.notify_all();
    }

    mutable std::mutex _mutex;  // leaf
    std::condition_variable _counted;
    State_t _state{0, {}};  // guarded by _mutex
};

/// What a run has found.
struct Result_t {
    std::vector<double> latenciesMs;
    long notifications = 0;
    double seconds = 0;

    double latency(double share) const {
        return latenciesMs[static_cast<std::size_t>(share * static_cast<double>(latenciesMs.size() - 1))];
    }
};

/// Changes the element, on a thread of its own, while the session's thread runs the library's messages.
class Bench {
public:
    Bench(Session& session, const std::string& path, const std::string& content, int count)
        : _session(session),
          _path(path),
          _content(content),
          _count(count),
          _counter(session, serviceOf(path)) {}

    Result_t run() {
        subscribe();
        inBackground([this] { oneByOne(); });
        inBackground([this] { asFastAsItGoes(); });
        awaitQuiet();
        std::sort(_result.latenciesMs.begin(), _result.latenciesMs.end());
        return _result;
    }

private:
    void subscribe() {
        _counter.startup();
        if (!_session.run([this] { return _counter.getLastNotificationState() == Counter::Available; },
                          PATIENCE))
            throw Failure(serviceOf(_path) + " is not available");
        if (_counter.addSubscription(_path, "", 0, "", false).empty())
            throw Failure("cannot subscribe to " + _path);
        if (!_session.run([this] { return _counter.state().count > 0; }, PATIENCE))
            throw Failure("no data of " + _path);
    }

    void inBackground(const std::function<void()>& work) {
        auto done = std::async(std::launch::async, work);
        try {
            _session.run([&done] { return done.wait_for(0s) == std::future_status::ready; }, std::nullopt);
        } catch (...) {
            _stopped = true;
            throw;
        }
        done.get();
    }

    void change() { request(_session.client(), "PUT", _path, _content); }

    /// Waits for each notification before the next change.
    void oneByOne() {
        for (int done = 0; done < _count && !_stopped; ++done) {
            const long before = _counter.state().count;
            const auto start = Clock::now();
            change();
            const std::chrono::duration<double, std::milli> latency = _counter.awaitMoreThan(before) - start;
            _result.latenciesMs.push_back(latency.count());
        }
    }

    void asFastAsItGoes() {
        _countBefore = _counter.state().count;
        _start = Clock::now();
        for (int done = 0; done < _count && !_stopped; ++done) change();
    }

    void awaitQuiet() {
        const auto quiet = [this] {
            const auto state = _counter.state();
            return state.count >= _countBefore + _count ||
                   Clock::now() - std::max(state.last, _start) > QUIET;
        };
        _session.run(quiet, std::nullopt);
        const auto state = _counter.state();
        _result.notifications = state.count - _countBefore;
        _result.seconds = std::chrono::duration<double>(state.last - _start).count();
    }

    Session& _session;
    const std::string _path;
    const std::string _content;
    const int _count;
    std::atomic<bool> _stopped{false};
    Counter _counter;
    // Each written by one thread at a time, one after another.
    Result_t _result;
    long _countBefore = 0;
    Clock::time_point _start;
};

std::string rounded(double number) {
    std::ostringstream text;
    text.precision(3);
    text << std::fixed << number;
    return text.str();
}

void show(const Result_t& result) {
    Output::table(
        {"MEASURED", "VALUE"},
        {{"notifications a second", rounded(static_cast<double>(result.notifications) / result.seconds)},
         {"latency ms, least", rounded(result.latency(0))},
         {"latency ms, median", rounded(result.latency(0.5))},
         {"latency ms, 99 %", rounded(result.latency(0.99))},
         {"latency ms, most", rounded(result.latency(1))}});
}

/// A change that changes nothing: the element's own name.
std::string unchanged(Session& session, const std::string& path) {
    const auto element = request(session.client(), "GET", path);
    if (element.type() != typeid(Poco::JSON::Object::Ptr)) throw UsageError(path + " is no element");
    const auto& key = Nubo::Data::XObjectBase::KEY_NAME;
    Poco::JSON::Object change;
    change.set(key, element.extract<Poco::JSON::Object::Ptr>()->get(key));
    std::ostringstream text;
    change.stringify(text);
    return text.str();
}

}  // namespace

void runBench(const Call_t& call) {
    const auto path = requestPath(call.arguments[0]);
    serviceOf(path);
    const auto content = call.arguments.size() > 1 ? jsonArgument(call.arguments[1]) : "";
    Session session;
    Bench bench(session, path, content.empty() ? unchanged(session, path) : content,
                call.options.getInt("count", DEFAULT_COUNT));
    show(bench.run());
}

}  // namespace ZolCtl
