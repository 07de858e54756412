#ifndef CLIENTLIB_SRC_RETRYTICKET_H
#define CLIENTLIB_SRC_RETRYTICKET_H

#include <Nubo/Util/Mutex.h>

namespace Nubo::Client {

class ServiceHandler;

/// What a timer keeps of a handler, which may be gone when it fires. Whoever holds the mutex may use the
/// handler; taking it waits for a timer that has fired.
struct RetryTicket {
    Nubo::Util::Mutex mutex;
    ServiceHandler* handler ZOL_GUARDED_BY(mutex);  // null: gone
};

}  // namespace Nubo::Client

#endif
