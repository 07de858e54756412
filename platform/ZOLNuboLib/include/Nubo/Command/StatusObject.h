#ifndef NUBO_COMMAND_STATUSOBJECT_H
#define NUBO_COMMAND_STATUSOBJECT_H

#include <Nubo/Export.h>

#include <string>

namespace Nubo::Command {

/// Words of an error message. Constants are set when the library is loaded and never change.
class ZOL_EXPORT StatusObject {
public:
    StatusObject() = delete;

    static const std::string FIELD_ERROR_CODE;  ///< key of the numeric error code, an HTTP status such as 410
};

}  // namespace Nubo::Command

#endif
