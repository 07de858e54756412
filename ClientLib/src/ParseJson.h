#ifndef CLIENTLIB_SRC_PARSEJSON_H
#define CLIENTLIB_SRC_PARSEJSON_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <cstddef>
#include <string>

#include "Limits.h"

namespace Nubo::Client {

/// The values in a JSON text as far as this can be told without parsing it: 1, one more for each comma, and
/// one more for each container that is not empty. Exact for valid JSON.
inline std::size_t countJsonValues(const std::string& text) {
    std::size_t values = 1;
    bool opened = false, quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (c == '\\') ++i;
            quoted = c != '"';
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
        if ((opened && c != ']' && c != '}') || c == ',') ++values;
        opened = c == '[' || c == '{';
        quoted = c == '"';
    }
    return values;
}

/// Parses a text as JSON. Every call has a parser of its own: one that has failed before would continue from
/// there. A text of more than Limits::MAX_JSON_VALUES is refused before it is built: a value takes up to a
/// hundred times the memory of its text.
/// @throws Poco::Exception on a syntax error, for a top level that is neither an object nor an array, and for
///         too many values
inline Poco::Dynamic::Var parseJson(const std::string& text) {
    // A value takes two bytes of text at least, so that a shorter text has no more.
    if (text.size() > 2 * Limits::MAX_JSON_VALUES && countJsonValues(text) > Limits::MAX_JSON_VALUES)
        throw Poco::JSON::JSONException("more than " + std::to_string(Limits::MAX_JSON_VALUES) + " values");
    return Poco::JSON::Parser().parse(text);
}

/// Parses a text whose top level is an object; never null.
/// @throws Poco::Exception on a syntax error and for any other top level
inline Poco::JSON::Object::Ptr parseJsonObject(const std::string& text) {
    return parseJson(text).extract<Poco::JSON::Object::Ptr>();
}

}  // namespace Nubo::Client

#endif
