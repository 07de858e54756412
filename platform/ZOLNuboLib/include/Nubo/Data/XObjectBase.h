#ifndef NUBO_DATA_XOBJECTBASE_H
#define NUBO_DATA_XOBJECTBASE_H

#include <Nubo/Export.h>

#include <string>

namespace Nubo::Data {

/// Keys that every element and every service record has. Constants are set when the library is loaded and
/// never change.
class ZOL_EXPORT XObjectBase {
public:
    XObjectBase() = delete;

    static const std::string KEY_NAME;  ///< key of the name
    static const std::string KEY_URI;   ///< key of the URI
};

}  // namespace Nubo::Data

#endif
