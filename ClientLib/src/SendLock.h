#ifndef CLIENTLIB_SRC_SENDLOCK_H
#define CLIENTLIB_SRC_SENDLOCK_H

#include <Poco/Mutex.h>

namespace Nubo::Client {

/// How long anybody waits, in milliseconds, for a worker's socket mutex while its thread sends.
constexpr long SEND_PATIENCE_MS = 100;

/// A worker's socket mutex, for a change of its delegates. A send that lasts is not waited for, since the
/// peer decides how long: the change is then made without the mutex, and still whole, since a POCO event
/// locks itself.
class SendLock {
public:
    explicit SendLock(Poco::Mutex& mutex) : _mutex(mutex), _held(mutex.tryLock(SEND_PATIENCE_MS)) {}
    ~SendLock() {
        if (_held) _mutex.unlock();
    }
    SendLock(const SendLock&) = delete;
    SendLock& operator=(const SendLock&) = delete;

private:
    Poco::Mutex& _mutex;
    const bool _held;
};

}  // namespace Nubo::Client

#endif
