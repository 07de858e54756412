#ifndef NUBO_COMMAND_RESPONSEOBJECT_H
#define NUBO_COMMAND_RESPONSEOBJECT_H

#include <Nubo/Export.h>

#include <string>

namespace Nubo::Command {

/// Words of the JSON object in the body of an HTTP response. Constants are set when the library is loaded and
/// never change.
class ZOL_EXPORT ResponseObject {
public:
    ResponseObject() = delete;

    /// Key of the element, or of the array of elements, that was asked for.
    static const std::string FIELD_DATA;
};

}  // namespace Nubo::Command

#endif
