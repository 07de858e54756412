#ifndef NUBO_UTIL_JSONTOOLS_H
#define NUBO_UTIL_JSONTOOLS_H

#include <Nubo/Export.h>
#include <Poco/JSON/Object.h>

namespace Nubo::Util {

/// Helpers on JSON objects; no state of their own.
class ZOL_EXPORT JSONTools {
public:
    JSONTools() = delete;

    /// A deep copy of `object`, the same as writing it as text and parsing that text again; null for null.
    /// The copy shares nothing with the original. Throws a Poco::Exception when that text does not parse (a
    /// value that JSON cannot carry such as NaN, or nesting beyond the parser's 128 levels).
    ///
    /// Does not block. No other thread may use `object` meanwhile: POCO's stringify writes into nested
    /// objects.
    static Poco::JSON::Object::Ptr cloneJsonObject(Poco::JSON::Object::Ptr object);
};

}  // namespace Nubo::Util

#endif
