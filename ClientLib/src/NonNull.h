#ifndef CLIENTLIB_SRC_NONNULL_H
#define CLIENTLIB_SRC_NONNULL_H

#include <Poco/Exception.h>

namespace Nubo::Client {

/// The object behind a plain pointer. @throws Poco::NullPointerException, as a Poco::SharedPtr does.
template <class T>
T& nonNull(T* pointer) {
    if (!pointer) throw Poco::NullPointerException();
    return *pointer;
}

}  // namespace Nubo::Client

#endif
