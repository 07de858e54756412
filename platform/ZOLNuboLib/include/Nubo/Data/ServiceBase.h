#ifndef NUBO_DATA_SERVICEBASE_H
#define NUBO_DATA_SERVICEBASE_H

#include <Nubo/Data/XObjectBase.h>
#include <Nubo/Export.h>

#include <string>

namespace Nubo::Data {

/// Keys of a service record of the registry, beside those of every element. Constants are set when the
/// library is loaded and never change.
class ZOL_EXPORT ServiceBase : public XObjectBase {
public:
    ServiceBase() = delete;

    static const std::string KEY_PORT;  ///< key of the service's port, a number or a string of digits
};

}  // namespace Nubo::Data

#endif
