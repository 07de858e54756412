#ifndef CLIENTLIB_SRC_PARSEJSON_H
#define CLIENTLIB_SRC_PARSEJSON_H

#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <string>

namespace Nubo::Client {

/// Parses a text as JSON. Every call has a parser of its own: one that has failed before would go on from
/// there.
/// @throws Poco::Exception on a syntax error, and for a top level that is neither an object nor an array
inline Poco::Dynamic::Var parseJson(const std::string& text) {
    return Poco::JSON::Parser().parse(text);
}

/// Parses a text whose top level is an object; never null.
/// @throws Poco::Exception on a syntax error and for any other top level
inline Poco::JSON::Object::Ptr parseJsonObject(const std::string& text) {
    return parseJson(text).extract<Poco::JSON::Object::Ptr>();
}

}  // namespace Nubo::Client

#endif
