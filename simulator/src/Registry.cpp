#include <Nubo/Data/ServiceBase.h>
#include <Nubo/Data/XObjectBase.h>
#include <Nubo/Simulator/Registry.h>
#include <Poco/JSON/Array.h>
#include <Poco/URI.h>

#include "Target.h"
#include "Wire.h"

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;
using Nubo::Data::ServiceBase;
using Nubo::Data::XObjectBase;

Registry::Registry(const std::string& address, Poco::UInt16 port, ChangeSignal& changed)
    : Endpoint("registry", address, port, changed) {
    start();
}

Registry::~Registry() {
    stop();
}

std::size_t Registry::put(const std::string& name, const Poco::JSON::Object::Ptr& record) {
    return publish([&]() -> Change_t {
        Guard guard(_recordsMutex);
        _records[name] = record;
        report("registered", name);
        return {Change_t::Kind::Record, {}, name};
    });
}

std::size_t Registry::put(const std::string& name, const std::string& record) {
    return put(name, Wire::parseObject(record));
}

std::size_t Registry::remove(const std::string& name) {
    return publish([&]() -> Change_t {
        Guard guard(_recordsMutex);
        if (_records.erase(name) == 0) return {};
        report("withdrawn", name);
        return {Change_t::Kind::Record, {}, name};
    });
}

bool Registry::has(const std::string& name) const {
    Guard guard(_recordsMutex);
    return _records.count(name) != 0;
}

bool Registry::servesUpgrade(const Target_t& target) const {
    return target.segments.empty();
}

std::optional<std::string> Registry::render(const Target_t& target) const {
    if (!target.segments.empty()) return std::nullopt;
    Guard guard(_recordsMutex);
    Poco::JSON::Array::Ptr list = new Poco::JSON::Array;
    for (const auto& [name, record] : _records)
        if (target.accepts(*record)) list->add(record);
    return Wire::toText(list);
}

HttpAnswer_t Registry::answer(const HttpRequest_t& request) {
    const auto target = Target_t::parse(request.uri);
    if (const auto list = render(target)) return Wire::ok(*list);
    const auto service = locate(target.segments[0]);
    if (!service) return Wire::failure(404, "no service " + target.segments[0] + " is registered");
    return Wire::choice(*service + request.uri);
}

std::optional<std::string> Registry::locate(const std::string& service) const {
    Guard guard(_recordsMutex);
    const auto found = _records.find(service);
    if (found == _records.end()) return std::nullopt;
    const Poco::JSON::Object& record = *found->second;
    const std::string host = Poco::URI(record.getValue<std::string>(XObjectBase::KEY_URI)).getHost();
    return "http://" + (host.empty() ? address() : host) + ":" +
           record.getValue<std::string>(ServiceBase::KEY_PORT);
}

}  // namespace Nubo::Simulator
