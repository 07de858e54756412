#include <Nubo/Simulator/Platform.h>
#include <Poco/Exception.h>

#include "ChangeSignal.h"

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;

namespace {

const char* const LOOPBACK = "127.0.0.1";

}  // namespace

Platform::Platform(Poco::UInt16 registryPort, const Observer& observer)
    : _changed(std::make_unique<ChangeSignal>(observer)),
      _registry(
          std::make_unique<Registry>(Nubo::ServiceRegistryConnection::ADDRESS, registryPort, *_changed)) {}

Platform::~Platform() = default;

Service& Platform::addService(const std::string& name, Registration registration, const RecordForm_t& form) {
    Service* added = nullptr;
    {
        Guard guard(_mutex);
        if (_services.count(name) != 0) throw Poco::ExistsException("service", name);
        auto service = std::make_unique<Service>(name, LOOPBACK, form, *_registry, *_changed);
        added = service.get();
        _services[name] = std::move(service);
    }
    if (registration == Registration::AtOnce) added->registerService();
    return *added;
}

Service& Platform::service(const std::string& name) {
    Guard guard(_mutex);
    const auto found = _services.find(name);
    if (found == _services.end()) throw Poco::NotFoundException("service", name);
    return *found->second;
}

std::vector<Service*> Platform::services() {
    Guard guard(_mutex);
    std::vector<Service*> services;
    for (const auto& entry : _services) services.push_back(entry.second.get());
    return services;
}

bool Platform::waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) const {
    return _changed->waitFor(condition, deadline);
}

}  // namespace Nubo::Simulator
