#ifndef NUBO_SIMULATOR_REGISTRY_H
#define NUBO_SIMULATOR_REGISTRY_H

#include <Nubo/Simulator/Endpoint.h>
#include <Poco/JSON/Object.h>

#include <map>

namespace Nubo::Simulator {

/// The service registry: lists the records of the registered services, over HTTP at "/" and to subscriptions
/// such as "/?name=Media#11-Media", and sends requests for a service's resources on to that service: by
/// status 300 with the URL under data[0].hostAddress.
class Registry final : public Endpoint {
public:
    /// Starts listening. Parameters and exceptions as of Endpoint and its start().
    Registry(const std::string& address, Poco::UInt16 port, ChangeSignal& changed);
    ~Registry() override;

    /// Registers a service, or replaces its record; pushed to the subscriptions without a name and to those
    /// of that name. The record is sent as given, also when members are missing or make no sense.
    /// @param record is not changed by anybody afterwards. @return how many subscriptions were served.
    std::size_t put(const std::string& name, const Poco::JSON::Object::Ptr& record);
    /// The same from JSON text. @throws Poco::Exception when it is no JSON object.
    std::size_t put(const std::string& name, const std::string& record);
    /// Withdraws a service; nothing happens when there is no such record.
    std::size_t remove(const std::string& name);
    bool has(const std::string& name) const;

private:
    bool servesUpgrade(const Target_t& target) const override;
    HttpAnswer_t answer(const HttpRequest_t& request) override;
    std::optional<std::string> render(const Target_t& target) const override;
    std::optional<std::string> locate(const std::string& service) const;

    mutable std::mutex _recordsMutex;  // leaf
    // Guarded by _recordsMutex, as is turning records into text, which writes into nested objects.
    std::map<std::string, Poco::JSON::Object::Ptr> _records;
};

}  // namespace Nubo::Simulator

#endif
