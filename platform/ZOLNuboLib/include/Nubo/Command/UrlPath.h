#ifndef NUBO_COMMAND_URLPATH_H
#define NUBO_COMMAND_URLPATH_H

#include <Nubo/Export.h>
#include <Poco/URI.h>

#include <cstdint>
#include <map>
#include <string>

namespace Nubo::Command {

/// What the path of a URI points at: `/service/resource/element`. The decoded path is cut at "/", empty
/// segments are dropped; the first segment is the service, the second the resource, all further ones joined
/// by "/" the element. A last segment "$id", "$spec" or "$rights" is none of these: it asks for something
/// about the level before it. A value; any thread; no operation throws.
class ZOL_EXPORT UrlPath {
public:
    /// What a path names, by its level and its "$" word.
    enum Characteristic : std::uint32_t {
        INVALID = 0,  ///< no absolute path, or a "$" word that its level does not have
        ROOT = 1,
        ROOT_ID = 2,
        SERVICE = 3,
        SERVICE_ID = 4,
        SERVICE_SPEC = 5,
        SERVICE_RIGHTS = 6,
        SERVICE_RESOURCE = 7,
        SERVICE_RESOURCE_ID = 8,
        SERVICE_RESOURCE_SPEC = 9,
        SERVICE_RESOURCE_OBJECT = 268435455,
        SERVICE_RESOURCE_ELEMENT = 268435455,  ///< the same value under its other name
    };

    /// Takes the URI apart. Scheme, host and fragment are kept in getUri() but have no part in it. Since POCO
    /// decodes a path before it hands it out, an encoded "/" (%2F) separates like a plain one.
    explicit UrlPath(const Poco::URI& requestUri);

    /// The URI as it was given.
    const Poco::URI& getUri() const { return uri; }

    /// The parts of the path, decoded; empty where the path has none (all of them when it is not absolute).
    const std::string& getService() const { return service; }
    const std::string& getResource() const { return resource; }  ///< second part
    const std::string& getElement() const { return element; }    ///< all further parts

    Characteristic getCharacteristic() const { return characteristic; }  ///< what the path names

    /// The valid query parameters by name, decoded; of several with one name the first.
    const std::map<std::string, std::string>& getQueryParameter() const { return queryParameter; }

private:
    void parsePath();

    // Fixed after construction.
    Poco::URI uri;
    std::string service;
    std::string resource;
    std::string element;
    Characteristic characteristic = INVALID;
    std::map<std::string, std::string> queryParameter;
};

}  // namespace Nubo::Command

#endif
