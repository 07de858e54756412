#ifndef NUBO_SIMULATOR_RESOURCETREE_H
#define NUBO_SIMULATOR_RESOURCETREE_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::Simulator {

struct Target_t;

/// The JSON elements of one service, by resource and element id, and how they are rendered for a request.
/// Locks itself; JSON goes in and out as text only, so that no object is ever shared between threads.
class ResourceTree {
public:
    /// Levels of "$expand" that are followed at most: links may go round in circles.
    static constexpr unsigned MAX_EXPANSION = 5;

    explicit ResourceTree(const std::string& service);

    void addResource(const std::string& resource);

    /// Sets the whole of an element. @throws Poco::Exception when `json` is no JSON object.
    void set(const std::string& resource, const std::string& element, const std::string& json);
    /// Sets those members of an existing element that `json` names. @return false when there is none.
    bool merge(const std::string& resource, const std::string& element, const std::string& json);
    /// Adds an element, under its member "name" when that is free, else under a new number.
    /// @return its id; nothing when there is no such resource.
    std::optional<std::string> add(const std::string& resource, const std::string& json);
    bool remove(const std::string& resource, const std::string& element);

    bool has(const std::string& resource, const std::string& element) const;

    /// JSON text of the target: the service's resources, a resource's elements (those that match the target's
    /// search criteria), or one element; with the target's fields and expansion. Nothing when unknown.
    std::optional<std::string> render(const Target_t& target) const;

private:
    using Object = Poco::JSON::Object::Ptr;
    using Elements = std::map<std::string, Object>;

    std::string uriOf(const std::string& resource, const std::string& element) const;

    // All of these need _mutex held.
    std::optional<std::string> renderListLocked(const Target_t& target) const;
    Poco::Dynamic::Var resourcesLocked() const;
    Object findLocked(const std::string& resource, const std::string& element) const;
    Object linkedLocked(const Poco::JSON::Object& link) const;
    Object completeLocked(Object object, const std::string& resource, const std::string& element) const;
    Object viewLocked(const Object& element, const Target_t& target) const;
    Poco::Dynamic::Var expandLocked(const Poco::Dynamic::Var& value, unsigned levels) const;
    Object expandMembersLocked(const Object& object, unsigned levels) const;

    // Fixed after construction.
    const std::string _service;

    mutable std::mutex _mutex;  // leaf
    // Guarded by _mutex. An element's object is replaced, never changed.
    std::map<std::string, Elements> _resources;
    unsigned _lastNumber = 0;
};

}  // namespace Nubo::Simulator

#endif
