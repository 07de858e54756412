#ifndef NUBO_SIMULATOR_PLATFORM_H
#define NUBO_SIMULATOR_PLATFORM_H

#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/Happening.h>
#include <Nubo/Simulator/Registry.h>
#include <Nubo/Simulator/Service.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Nubo::Simulator {

/// A service platform in one process: the registry at its fixed address and any number of services, each on a
/// free port of the loopback interface. Any thread, except the platform's own; waitFor() alone blocks.
///
///     Platform platform;
///     Service& media = platform.addService("Media");
///     media.setElement("tracks", "0xa", R"({"title":"First"})");
class Platform {
public:
    enum class Registration { AtOnce, Later };

    /// Starts the registry. @param registryPort 0 takes a free one (which the client library does not know).
    /// @param observer copied; told of everything that happens, from the start of the registry on
    /// @throws Poco::Net::NetException "port 4480 of 127.0.0.1 is taken" when something listens there.
    explicit Platform(Poco::UInt16 registryPort = Nubo::ServiceRegistryConnection::PORT,
                      const Observer& observer = {});
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    /// Stops everything, services first, and joins all threads.
    ~Platform();

    Registry& registry() { return *_registry; }
    void startRegistry() { _registry->start(); }
    void stopRegistry() { _registry->stop(); }

    /// Adds and starts a service. @param name no '/' and not empty.
    /// @return the service, which lives as long as the platform.
    /// @throws Poco::ExistsException when there is one of that name.
    Service& addService(const std::string& name, Registration registration = Registration::AtOnce,
                        const RecordForm_t& form = {});

    /// @throws Poco::NotFoundException when there is none of that name.
    Service& service(const std::string& name);
    /// All services, by name.
    std::vector<Service*> services();

    /// Waits until condition() is true or `deadline` has passed. condition() is looked at whenever a registry
    /// or service has received or changed something, and at least every 50 ms (for conditions on something
    /// else); it runs on the calling thread, with no lock held. @return what it said last.
    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) const;

private:
    // Fixed after construction, each locks itself. The signal outlives what uses it.
    const std::unique_ptr<ChangeSignal> _changed;
    const std::unique_ptr<Registry> _registry;

    std::mutex _mutex;
    // Guarded by _mutex.
    std::map<std::string, std::unique_ptr<Service>> _services;
};

}  // namespace Nubo::Simulator

#endif
