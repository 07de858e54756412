#include <Nubo/Client/Query.h>
#include <Poco/URI.h>

namespace Nubo::Client {

namespace {

void append(std::string& text, char separator, const std::string& part) {
    if (!text.empty()) text += separator;
    text += part;
}

}  // namespace

Query::Query(const std::string& path) : _path(path.compare(0, 1, "/") == 0 ? path : '/' + path) {}

Query& Query::fields(const std::vector<std::string>& names) {
    for (const std::string& name : names) append(_fields, ',', encode(name));
    return *this;
}

Query& Query::expand(unsigned int levels) {
    _expand = levels;
    return *this;
}

Query& Query::filter(const std::string& member, const std::string& value) {
    append(_filters, '&', encode(member) + '=' + encode(value));
    return *this;
}

std::string Query::string() const {
    std::string query;
    if (!_fields.empty()) append(query, '&', "$fields=" + _fields);
    if (_expand != 0) append(query, '&', "$expand=" + std::to_string(_expand));
    if (!_filters.empty()) append(query, '&', _filters);
    if (query.empty()) return _path;
    return _path + (_path.find('?') == std::string::npos ? '?' : '&') + query;
}

std::string Query::encode(const std::string& raw) {
    // POCO encodes of itself what no part of a URI may hold; these are those that separate its parts.
    std::string encoded;
    Poco::URI::encode(raw, ":/?#[]@!$&'()*+,;=", encoded);
    return encoded;
}

}  // namespace Nubo::Client
