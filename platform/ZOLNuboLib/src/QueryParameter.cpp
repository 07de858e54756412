#include <Nubo/Command/QueryParameter.h>
#include <Poco/Exception.h>

#include <algorithm>

namespace Nubo::Command {
namespace {

/// Decodes `text` in place and returns true, or leaves it alone and returns false when its encoding is
/// broken.
bool decode(std::string& text) {
    std::string encoded = text;
    std::replace(encoded.begin(), encoded.end(), '+', ' ');
    std::string decoded;
    try {
        Poco::URI::decode(encoded, decoded);
    } catch (const Poco::Exception&) {
        return false;
    }
    text.swap(decoded);
    return true;
}

}  // namespace

std::vector<QueryParameter> QueryParameter::parse(const Poco::URI& uri) {
    std::vector<QueryParameter> parameters;
    const std::string& query = uri.getRawQuery();
    std::string::size_type begin = 0;
    while (begin < query.size()) {
        const auto end = std::min(query.find('&', begin), query.size());
        const auto equals = std::min(query.find('=', begin), end);
        const auto value = std::min(equals + 1, end);
        if (begin != end) {
            parameters.emplace_back(query.substr(begin, equals - begin), query.substr(value, end - value));
        }
        begin = end + 1;
    }
    return parameters;
}

QueryParameter::QueryParameter(const std::string& name, const std::string& value)
    : _name(name), _value(value) {
    const bool nameDecoded = decode(_name);
    const bool valueDecoded = decode(_value);
    _isValid = nameDecoded && valueDecoded && !_name.empty();
}

}  // namespace Nubo::Command
