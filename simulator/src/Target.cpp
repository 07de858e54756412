#include "Target.h"

#include <Nubo/Data/XObjectBase.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>

namespace Nubo::Simulator {

namespace {

using Nubo::Data::XObjectBase;

constexpr std::size_t LIST_SEGMENTS = 2;  // service and resource
constexpr auto DROP_EMPTY = Poco::StringTokenizer::TOK_IGNORE_EMPTY;

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    const Poco::StringTokenizer tokens(text, separator, DROP_EMPTY);
    return {tokens.begin(), tokens.end()};
}

}  // namespace

Target_t Target_t::parse(const std::string& uri) {
    const Poco::URI parsed(uri);
    Target_t target;
    target.segments = split(parsed.getPath(), "/");
    for (const auto& parameter : parsed.getQueryParameters()) {
        if (parameter.first == "$fields")
            target.fields = split(parameter.second, ",");
        else if (parameter.first == "$expand")
            Poco::NumberParser::tryParseUnsigned(parameter.second, target.expand);
        else if (!parameter.first.empty() && parameter.first.front() != '$')
            target.search.push_back(parameter);
    }
    return target;
}

Target_t Target_t::ofElement(const std::string& service, const std::string& resource, const std::string& id) {
    Target_t target;
    target.segments = {service, resource};
    for (const auto& segment : split(id, "/")) target.segments.push_back(segment);
    return target;
}

std::string Target_t::path() const {
    return "/" + Poco::cat(std::string("/"), segments.begin(), segments.end());
}

bool Target_t::accepts(const Poco::JSON::Object& object) const {
    return std::all_of(search.begin(), search.end(), [&](const auto& criterion) {
        return object.has(criterion.first) && object.get(criterion.first).toString() == criterion.second;
    });
}

std::string Target_t::element() const {
    if (segments.size() <= LIST_SEGMENTS) return "";
    return Poco::cat(std::string("/"), segments.begin() + LIST_SEGMENTS, segments.end());
}

bool Target_t::allows(const std::string& member, const std::string& value) const {
    return std::all_of(search.begin(), search.end(), [&](const auto& criterion) {
        return criterion.first != member || criterion.second == value;
    });
}

bool Target_t::isListOf(const Target_t& element) const {
    return segments.size() == LIST_SEGMENTS && element.segments.size() > LIST_SEGMENTS &&
           std::equal(segments.begin(), segments.end(), element.segments.begin());
}

bool Target_t::sameQuery(const Target_t& other) const {
    return search == other.search && fields == other.fields && expand == other.expand;
}

bool Change_t::concerns(const Target_t& subscribed) const {
    if (kind == Kind::Record)
        return subscribed.segments.empty() && subscribed.allows(XObjectBase::KEY_NAME, name);
    if (kind == Kind::None) return false;
    return subscribed.segments == element.segments || subscribed.isListOf(element);
}

}  // namespace Nubo::Simulator
