#ifndef NUBO_UTIL_MESSAGEPRIO_H
#define NUBO_UTIL_MESSAGEPRIO_H

namespace Nubo::Util {

/// Priorities of the platform's message queues; the smaller number is the more urgent. These libraries post
/// without a priority: which one a message gets is decided by the queue's owner.
enum MESSAGE_PRIO {
    MESSAGE_PRIO_URGENT = 10,
    MESSAGE_PRIO_HIGH = 15,
    MESSAGE_PRIO_NORMAL = 20,
};

}  // namespace Nubo::Util

#endif
