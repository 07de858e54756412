#ifndef CLIENTLIB_SRC_ENQUEUESURELY_H
#define CLIENTLIB_SRC_ENQUEUESURELY_H

#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

#include <new>

#include "RetryInterval.h"

namespace Nubo::Client {

/// Puts an entry into a queue that must not miss it: while the system refuses memory, it tries again.
inline void enqueueSurely(Poco::NotificationQueue& queue, const Poco::Notification::Ptr& entry) {
    for (;;) {
        try {
            return queue.enqueueNotification(entry);
        } catch (const std::bad_alloc&) {
            Poco::Thread::sleep(RETRY_INTERVAL_MS);
        }
    }
}

}  // namespace Nubo::Client

#endif
