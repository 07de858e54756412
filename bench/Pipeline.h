#ifndef BENCH_PIPELINE_H
#define BENCH_PIPELINE_H

#include <Poco/JSON/Object.h>

#include <cstddef>
#include <memory>
#include <string>

#include "Figures.h"

/// A client of the peer that takes notifications all the way to a callback on the calling thread. Three of
/// them do the same job: the library, the pipeline that one would write by hand, and one on Boost.
class Pipeline {
public:
    Pipeline() = default;
    virtual ~Pipeline() = default;
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    /// The path of its connection at the peer.
    virtual std::string name() const = 0;

    /// How many callbacks one notification leads to.
    virtual std::size_t subscribers() const { return 1; }

    /// Subscribes to so many resources, and returns when each has sent its current data.
    virtual void subscribe(std::size_t resources) = 0;

    /// Waits for notifications and runs callbacks on this thread until there were `count` callbacks.
    /// @throws std::runtime_error when none comes for ten seconds
    void receive(std::size_t count);

    /// From now on received() notes how long each notification was on its way, in microseconds.
    void timeNotifications(bool on) { _timing = on; }
    figures::Samples takeLatencies() { return std::move(_latencies); }

protected:
    /// Takes the next thing that there is to do and does it; false when nothing came for a while.
    virtual bool runNext() = 0;

    /// The application's callback.
    /// @param stamp  the member "stamp" of the notification's data, called when times are noted.
    template <typename Stamp>
    void received(const Stamp& stamp) {
        ++_received;
        if (_timing) note(stamp());
    }

private:
    void note(const std::string& stamp);

    std::size_t _received = 0;
    bool _timing = false;
    figures::Samples _latencies;
};

/// @param service  its name at the peer
/// @param listeners  service listeners of the application
/// @param each  subscriptions of each listener to each resource
std::unique_ptr<Pipeline> makeLibraryPipeline(const std::string& service = "Media", std::size_t listeners = 1,
                                              std::size_t each = 1);
std::unique_ptr<Pipeline> makePlainPipeline();

/// Null where the Boost packages were not found.
std::unique_ptr<Pipeline> makeBeastPipeline();

constexpr long WAIT_MS = 10000;

/// The resource of that number, and the URI by which a service is asked for it.
inline std::string resourcePath(const std::string& service, std::size_t number) {
    return "/" + service + "/tracks/0x" + std::to_string(number);
}

/// A subscription as a client without the library writes it.
std::string subscription(const std::string& service, std::size_t number);

/// The member "stamp" of a notification as POCO's parser made it.
std::string stampOf(const Poco::JSON::Object& notification);

#endif
