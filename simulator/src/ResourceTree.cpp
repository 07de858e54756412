#include <Nubo/Data/XObjectBase.h>
#include <Nubo/Simulator/ResourceTree.h>
#include <Poco/JSON/Array.h>

#include <algorithm>

#include "Target.h"
#include "Wire.h"

namespace Nubo::Simulator {

using Nubo::Data::XObjectBase;
using Poco::Dynamic::Var;
using Poco::JSON::Array;
using Guard = std::lock_guard<std::mutex>;

ResourceTree::ResourceTree(const std::string& service) : _service(service) {}

void ResourceTree::addResource(const std::string& resource) {
    Guard guard(_mutex);
    _resources[resource];
}

void ResourceTree::set(const std::string& resource, const std::string& element, const std::string& json) {
    Object object = Wire::parseObject(json);
    Guard guard(_mutex);
    _resources[resource][element] = completeLocked(object, resource, element);
}

bool ResourceTree::merge(const std::string& resource, const std::string& element, const std::string& json) {
    Object changes = Wire::parseObject(json);
    Guard guard(_mutex);
    Object present = findLocked(resource, element);
    if (!present) return false;
    Object merged = new Poco::JSON::Object(*present);
    for (const auto& [key, value] : *changes) merged->set(key, value);
    _resources[resource][element] = merged;
    return true;
}

std::optional<std::string> ResourceTree::add(const std::string& resource, const std::string& json) {
    Object object = Wire::parseObject(json);
    Guard guard(_mutex);
    const auto found = _resources.find(resource);
    if (found == _resources.end()) return std::nullopt;
    auto id = object->optValue<std::string>(XObjectBase::KEY_NAME, "");
    while (id.empty() || id.find('/') != std::string::npos || found->second.count(id) != 0)
        id = std::to_string(++_lastNumber);
    found->second[id] = completeLocked(object, resource, id);
    return id;
}

bool ResourceTree::remove(const std::string& resource, const std::string& element) {
    Guard guard(_mutex);
    const auto found = _resources.find(resource);
    return found != _resources.end() && found->second.erase(element) != 0;
}

bool ResourceTree::has(const std::string& resource, const std::string& element) const {
    Guard guard(_mutex);
    return !findLocked(resource, element).isNull();
}

std::optional<std::string> ResourceTree::render(const Target_t& target) const {
    Guard guard(_mutex);
    if (target.segments.empty() || target.segments[0] != _service) return std::nullopt;
    if (target.segments.size() == 1) return Wire::toText(resourcesLocked());
    const std::string element = target.element();
    if (element.empty()) return renderListLocked(target);
    Object found = findLocked(target.segments[1], element);
    if (!found) return std::nullopt;
    return Wire::toText(viewLocked(found, target));
}

std::optional<std::string> ResourceTree::renderListLocked(const Target_t& target) const {
    const auto found = _resources.find(target.segments[1]);
    if (found == _resources.end()) return std::nullopt;
    Array::Ptr list = new Array;
    for (const auto& [id, element] : found->second)
        if (target.accepts(*element)) list->add(viewLocked(element, target));
    return Wire::toText(list);
}

Var ResourceTree::resourcesLocked() const {
    Array::Ptr list = new Array;
    for (const auto& [resource, elements] : _resources) {
        Object entry = new Poco::JSON::Object;
        entry->set(XObjectBase::KEY_NAME, resource);
        entry->set(XObjectBase::KEY_URI, uriOf(resource, ""));
        list->add(entry);
    }
    return list;
}

std::string ResourceTree::uriOf(const std::string& resource, const std::string& element) const {
    return "/" + _service + "/" + resource + "/" + element;
}

ResourceTree::Object ResourceTree::findLocked(const std::string& resource, const std::string& element) const {
    const auto elements = _resources.find(resource);
    if (elements == _resources.end()) return nullptr;
    const auto found = elements->second.find(element);
    return found == elements->second.end() ? nullptr : found->second;
}

ResourceTree::Object ResourceTree::completeLocked(Object object, const std::string& resource,
                                                  const std::string& element) const {
    if (!object->has(XObjectBase::KEY_NAME)) object->set(XObjectBase::KEY_NAME, element);
    if (!object->has(XObjectBase::KEY_URI)) object->set(XObjectBase::KEY_URI, uriOf(resource, element));
    return object;
}

ResourceTree::Object ResourceTree::viewLocked(const Object& element, const Target_t& target) const {
    const auto levels = std::min(target.expand, MAX_EXPANSION);
    if (target.fields.empty()) return expandMembersLocked(element, levels);
    Object view = new Poco::JSON::Object;
    view->set(XObjectBase::KEY_URI, element->get(XObjectBase::KEY_URI));
    for (const auto& field : target.fields)
        if (element->has(field)) view->set(field, element->get(field));
    return expandMembersLocked(view, levels);
}

ResourceTree::Object ResourceTree::expandMembersLocked(const Object& object, unsigned levels) const {
    Object expanded = new Poco::JSON::Object;
    for (const auto& [key, value] : *object) expanded->set(key, expandLocked(value, levels));
    return expanded;
}

Var ResourceTree::expandLocked(const Var& value, unsigned levels) const {
    if (levels == 0) return value;
    if (value.type() == typeid(Array::Ptr)) {
        Array::Ptr expanded = new Array;
        for (const auto& item : *value.extract<Array::Ptr>()) expanded->add(expandLocked(item, levels));
        return expanded;
    }
    if (value.type() != typeid(Object)) return value;
    const Object& object = value.extract<Object>();
    Object linked = linkedLocked(*object);
    return linked ? expandMembersLocked(linked, levels - 1) : expandMembersLocked(object, levels);
}

ResourceTree::Object ResourceTree::linkedLocked(const Poco::JSON::Object& link) const {
    const Var uri = link.get(XObjectBase::KEY_URI);
    if (!uri.isString()) return nullptr;
    try {
        const auto target = Target_t::parse(uri.toString());
        if (target.segments.size() < 3 || target.segments[0] != _service) return nullptr;
        return findLocked(target.segments[1], target.element());
    } catch (const Poco::SyntaxException&) {
        return nullptr;  // a member of that name that is no link
    }
}

}  // namespace Nubo::Simulator
