#include <Nubo/Data/ServiceBase.h>
#include <Nubo/Data/XObjectBase.h>
#include <Nubo/Simulator/Registry.h>
#include <Nubo/Simulator/Service.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include "Target.h"
#include "Wire.h"

namespace Nubo::Simulator {

using Nubo::Data::ServiceBase;
using Nubo::Data::XObjectBase;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Guard = std::lock_guard<std::mutex>;

namespace {

Change_t changed(const Target_t& element) {
    return {Change_t::Kind::Element, element};
}

HttpAnswer_t notFound(const Target_t& target) {
    return Wire::failure(HTTPResponse::HTTP_NOT_FOUND, "nothing at " + target.path());
}

}  // namespace

Service::Service(const std::string& name, const std::string& address, const RecordForm_t& form,
                 Registry& registry, ChangeSignal& signal)
    : Endpoint(name, address, 0, signal), _registry(registry), _tree(name), _form(form) {
    start();
}

Service::~Service() {
    stop();
}

void Service::registerService(const RecordForm_t& form) {
    {
        Guard guard(_formMutex);
        _form = form;
    }
    registerService();
}

void Service::registerService() {
    _registry.put(name(), registryRecord());
}

void Service::withdraw() {
    _registry.remove(name());
}

void Service::move() {
    relocate();
    if (_registry.has(name())) registerService();
}

Poco::JSON::Object::Ptr Service::registryRecord() const {
    Guard guard(_formMutex);
    const std::string path = "/" + name() + "/";
    const std::string portText = std::to_string(port());
    const bool withHost = _form.uri == RecordForm_t::Uri::WithHost;
    Poco::JSON::Object::Ptr record = new Poco::JSON::Object;
    record->set(XObjectBase::KEY_NAME, name());
    record->set(XObjectBase::KEY_URI, withHost ? "http://" + address() + ":" + portText + path : path);
    if (_form.port == RecordForm_t::Port::Number)
        record->set(ServiceBase::KEY_PORT, port());
    else
        record->set(ServiceBase::KEY_PORT, portText);
    return record;
}

void Service::addResource(const std::string& resource) {
    _tree.addResource(resource);
}

std::size_t Service::setElement(const std::string& resource, const std::string& element,
                                const std::string& json) {
    return publish([&] {
        _tree.set(resource, element, json);
        return changed(Target_t::ofElement(name(), resource, element));
    });
}

std::size_t Service::changeElement(const std::string& resource, const std::string& element,
                                   const std::string& json) {
    return publish([&] {
        return _tree.merge(resource, element, json) ? changed(Target_t::ofElement(name(), resource, element))
                                                    : Change_t();
    });
}

std::size_t Service::removeElement(const std::string& resource, const std::string& element) {
    return publish([&] {
        return _tree.remove(resource, element) ? changed(Target_t::ofElement(name(), resource, element))
                                               : Change_t();
    });
}

bool Service::servesUpgrade(const Target_t& target) const {
    return target.segments == std::vector<std::string>{name()};
}

std::optional<std::string> Service::render(const Target_t& target) const {
    return _tree.render(target);
}

HttpAnswer_t Service::answer(const HttpRequest_t& request) {
    const auto target = Target_t::parse(request.uri);
    const auto present = render(target);
    if (!present) return notFound(target);
    const bool isElement = !target.element().empty();
    if (request.method == HTTPRequest::HTTP_GET) return Wire::ok(*present);
    if (request.method == HTTPRequest::HTTP_PUT && isElement) return modify(target, request.body);
    if (request.method == HTTPRequest::HTTP_POST && isElement) return modify(target, request.body);
    if (request.method == HTTPRequest::HTTP_POST) return create(target, request.body);
    if (request.method == HTTPRequest::HTTP_DELETE && isElement) return erase(target);
    return Wire::failure(HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "no " + request.method + " here");
}

HttpAnswer_t Service::modify(const Target_t& target, const std::string& json) {
    changeElement(target.segments[1], target.element(), json);
    const auto element = render(target);
    return element ? Wire::ok(*element) : notFound(target);
}

HttpAnswer_t Service::create(const Target_t& list, const std::string& json) {
    if (list.segments.size() < 2) return Wire::failure(HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "no list");
    Target_t created;
    publish([&]() -> Change_t {
        const auto id = _tree.add(list.segments[1], json);
        if (!id) return {};
        created = Target_t::ofElement(name(), list.segments[1], *id);
        return changed(created);
    });
    const auto element = render(created);
    return element ? Wire::ok(*element, HTTPResponse::HTTP_CREATED) : notFound(list);
}

HttpAnswer_t Service::erase(const Target_t& target) {
    removeElement(target.segments[1], target.element());
    return Wire::ok("{}");
}

}  // namespace Nubo::Simulator
