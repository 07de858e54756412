#ifndef NUBO_UTIL_IUNCOPYABLE_H
#define NUBO_UTIL_IUNCOPYABLE_H

#include <Nubo/Export.h>

namespace Nubo::Util {

/// Base of classes whose objects are neither copied nor assigned.
class ZOL_EXPORT IUncopyable {
public:
    virtual ~IUncopyable();

protected:
    IUncopyable();

private:
    IUncopyable(const IUncopyable&) = delete;
    IUncopyable& operator=(const IUncopyable&) = delete;
};

}  // namespace Nubo::Util

#endif
