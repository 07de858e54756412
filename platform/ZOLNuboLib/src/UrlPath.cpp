#include <Nubo/Command/QueryParameter.h>
#include <Nubo/Command/UrlPath.h>

#include <algorithm>
#include <vector>

namespace Nubo::Command {
namespace {

/// What a path of so many segments points at, and what its "$" words ask for.
struct Level {
    UrlPath::Characteristic plain;
    UrlPath::Characteristic id;
    UrlPath::Characteristic spec;
    UrlPath::Characteristic rights;
};

constexpr Level LEVELS[] = {
    {UrlPath::ROOT, UrlPath::ROOT_ID, UrlPath::INVALID, UrlPath::INVALID},
    {UrlPath::SERVICE, UrlPath::SERVICE_ID, UrlPath::SERVICE_SPEC, UrlPath::SERVICE_RIGHTS},
    {UrlPath::SERVICE_RESOURCE, UrlPath::SERVICE_RESOURCE_ID, UrlPath::SERVICE_RESOURCE_SPEC,
     UrlPath::INVALID},
    {UrlPath::SERVICE_RESOURCE_ELEMENT, UrlPath::INVALID, UrlPath::INVALID, UrlPath::INVALID},
};
constexpr std::size_t ELEMENT_LEVEL = 3;

std::vector<std::string> segmentsOf(const std::string& path) {
    std::vector<std::string> segments;
    std::string::size_type begin = 0;
    while (begin < path.size()) {
        const auto end = std::min(path.find('/', begin), path.size());
        if (begin != end) segments.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return segments;
}

/// Takes a "$" word off the end of `segments` and returns which member of their level answers it; without
/// such a word the plain one.
UrlPath::Characteristic Level::*takeWord(std::vector<std::string>& segments) {
    static const struct {
        const char* text;  // cppcheck-suppress unusedStructMember ; it is, in the loop below
        UrlPath::Characteristic Level::*member;
    } WORDS[] = {{"$id", &Level::id}, {"$spec", &Level::spec}, {"$rights", &Level::rights}};

    for (const auto& word : WORDS) {
        if (segments.empty() || segments.back() != word.text) continue;
        segments.pop_back();
        return word.member;
    }
    return &Level::plain;
}

std::string joined(std::vector<std::string>::const_iterator begin,
                   std::vector<std::string>::const_iterator end) {
    std::string text;
    for (auto segment = begin; segment != end; ++segment) text += (segment == begin ? "" : "/") + *segment;
    return text;
}

}  // namespace

UrlPath::UrlPath(const Poco::URI& requestUri) : uri(requestUri) {
    parsePath();
    for (const QueryParameter& parameter : QueryParameter::parse(uri)) {
        if (parameter.isValid()) queryParameter.emplace(parameter.getName(), parameter.getValue());
    }
}

void UrlPath::parsePath() {
    const std::string& path = uri.getPath();
    if (path.empty() || path.front() != '/') return;
    std::vector<std::string> segments = segmentsOf(path);
    const auto member = takeWord(segments);
    const std::size_t level = std::min(segments.size(), ELEMENT_LEVEL);
    characteristic = LEVELS[level].*member;
    if (level > 0) service = segments[0];
    if (level > 1) resource = segments[1];
    if (level > 2) element = joined(segments.begin() + 2, segments.end());
}

}  // namespace Nubo::Command
