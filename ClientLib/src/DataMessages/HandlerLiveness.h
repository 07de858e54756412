#ifndef CLIENTLIB_SRC_DATAMESSAGES_HANDLERLIVENESS_H
#define CLIENTLIB_SRC_DATAMESSAGES_HANDLERLIVENESS_H

#include <Nubo/Client/MultiThreadingObject.h>

#include "NonNull.h"

namespace Nubo::Client {

/// The liveness of the object behind a handler interface. @throws Poco::NullPointerException for null
template <class HandlerInterface>
MultiThreadingObject::Liveness livenessOf(HandlerInterface* handler) {
    const auto* object = dynamic_cast<const MultiThreadingObject*>(&nonNull(handler));
    return object ? MultiThreadingObject::Liveness(*object) : MultiThreadingObject::Liveness();
}

}  // namespace Nubo::Client

#endif
