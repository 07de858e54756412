#ifndef NUBO_SIMULATOR_TARGET_H
#define NUBO_SIMULATOR_TARGET_H

#include <Poco/JSON/Object.h>
#include <Poco/URI.h>

#include <string>
#include <vector>

namespace Nubo::Simulator {

/// What a request's URI asks for: path segments and query, decoded; a fragment is ignored.
struct Target_t {
    /// @throws Poco::SyntaxException when `uri` is none.
    static Target_t parse(const std::string& uri);

    /// @param id may have several segments.
    static Target_t ofElement(const std::string& service, const std::string& resource, const std::string& id);

    std::string path() const;
    /// All segments behind service and resource: an element's id; "" when there are none.
    std::string element() const;
    /// Whether a record or element meets all search criteria.
    bool accepts(const Poco::JSON::Object& object) const;
    /// False when a search criterion asks for another value of `member`.
    bool allows(const std::string& member, const std::string& value) const;
    /// Whether this is the resource that `element` is an element of.
    bool isListOf(const Target_t& element) const;
    bool sameQuery(const Target_t& other) const;

    std::vector<std::string> segments;
    Poco::URI::QueryParameters search;  ///< parameters whose names do not begin with '$'
    std::vector<std::string> fields;    ///< "$fields"; empty: all
    unsigned expand = 0;                ///< "$expand"
};

/// A subscription of one WebSocket.
struct Subscription_t {
    std::string event;  ///< as it was subscribed, byte for byte
    Target_t target;
};

/// What a change touched.
struct Change_t {
    enum class Kind {
        None,     ///< nothing: there was nothing to change
        Element,  ///< an element, and with it the list that it is in
        Record    ///< a record of the registry, and with it the list of records
    };

    /// Whether the subscription is of what was touched.
    bool concerns(const Target_t& subscribed) const;

    Kind kind = Kind::None;
    Target_t element = {};  ///< Element: its path
    std::string name = {};  ///< Record: its name
};

}  // namespace Nubo::Simulator

#endif
