#include "Description.h"

#include <Poco/JSON/Object.h>

#include <algorithm>
#include <sstream>

namespace ZolPlatform {

using Nubo::Simulator::RecordForm_t;

namespace {

/// A path segment: a name that is not empty and has no '/'.
void checkSegment(const std::string& name, const Located& where) {
    if (name.empty() || name.find('/') != std::string::npos)
        where.fail("\"" + name + "\" is no name: it is empty or has a '/'");
}

template <typename Choice>
Choice choose(const Located& service, const std::string& member, Choice otherwise, const std::string& first,
              Choice ifFirst, const std::string& second, Choice ifSecond) {
    const Located* chosen = service.find(member);
    if (!chosen) return otherwise;
    if (chosen->text() == first) return ifFirst;
    if (chosen->text() == second) return ifSecond;
    chosen->fail("must be \"" + first + "\" or \"" + second + "\"");
}

RecordForm_t readForm(const Located& service) {
    using Uri = RecordForm_t::Uri;
    using Port = RecordForm_t::Port;
    return {choose(service, "recordUri", Uri::WithHost, "full", Uri::WithHost, "path", Uri::WithoutHost),
            choose(service, "recordPort", Port::Number, "number", Port::Number, "text", Port::Text)};
}

ElementDescription_t readElement(const std::string& resource, const std::string& id, const Located& element) {
    checkSegment(id, element);
    ElementDescription_t made{resource, id, "", {}};
    Poco::JSON::Object start;
    for (const auto& [name, value] : element.members()) {
        if (ValueSource::isDescribedBy(value)) {
            made.changing.push_back({name, ValueSource::make(value)});
            start.set(name, made.changing.back().source->first());
        } else {
            start.set(name, value.value());
        }
    }
    std::ostringstream json;
    start.stringify(json);
    made.json = json.str();
    return made;
}

std::string readServiceName(const Located& name) {
    const std::string text = name.text();
    checkSegment(text, name);
    if (text.find('-') != std::string::npos)
        name.fail("no client can follow a service with a '-' in its name");
    return text;
}

ServiceDescription_t readService(const Located& service) {
    service.allowOnly({"name", "registered", "recordUri", "recordPort", "resources"});
    ServiceDescription_t made;
    made.name = readServiceName(service.at("name"));
    made.form = readForm(service);
    if (const Located* registered = service.find("registered")) made.registered = registered->flag();
    if (const Located* resources = service.find("resources")) {
        for (const auto& [resource, elements] : resources->members()) {
            checkSegment(resource, elements);
            made.resources.push_back(resource);
            for (const auto& [id, element] : elements.members())
                made.elements.push_back(readElement(resource, id, element));
        }
    }
    return made;
}

}  // namespace

std::vector<ServiceDescription_t> readDescription(const std::string& file, const std::string& text) {
    const Located root = Located::parse(file, text);
    root.allowOnly({"services"});
    std::vector<ServiceDescription_t> services;
    for (const auto& description : root.at("services").items()) {
        ServiceDescription_t service = readService(description);
        const bool twice = std::any_of(services.begin(), services.end(),
                                       [&](const auto& other) { return other.name == service.name; });
        if (twice) description.at("name").fail("there are two services " + service.name);
        services.push_back(std::move(service));
    }
    return services;
}

}  // namespace ZolPlatform
