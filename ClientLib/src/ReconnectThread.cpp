#include "ReconnectThread.h"

#include <Nubo/Util/SignalsBlocked.h>

#include <optional>

namespace Nubo::Client {

using Lock = Nubo::Util::MutexLock;

void ReconnectThread::start(Poco::Runnable& body, const Retries_t& retries) {
    const Lock lock(_mutex);
    if (_stopped) return;
    _nextRetries = retries;
    if (_state != State::Idle) {
        _state = State::RunAgain;
        return;
    }
    joinEndedLocked();
    _retries = retries;
    _wait.reset();
    _ended.reset();
    const Nubo::Util::SignalsBlocked blocked;
    _thread.start(body);
    _joined = false;
    _state = State::Running;
}

// It has taken its last decision: it ends at once.
void ReconnectThread::joinEndedLocked() {
    if (!_joined) _thread.join();
    _joined = true;
}

void ReconnectThread::wake() {
    const Lock lock(_mutex);
    wakeLocked();
}

void ReconnectThread::wakeLocked() {
    if (_state == State::RunAgain) _state = State::Running;
    _wait.set();
    cancelAttemptLocked();
}

void ReconnectThread::cancelAttemptLocked() {
    if (_attempt) _attempt->cancel();
}

bool ReconnectThread::join(long milliseconds) {
    {
        const Lock lock(_mutex);
        wakeLocked();
        if (_joined) return true;
    }
    if (!_ended.tryWait(milliseconds)) return false;
    const Lock lock(_mutex);
    joinEndedLocked();
    return true;
}

void ReconnectThread::stopForGood() {
    const Lock lock(_mutex);
    _stopped = true;
    wakeLocked();
}

bool ReconnectThread::decideLocked(bool again) {
    _state = again ? State::Running : State::Idle;
    if (again) _retries = _nextRetries;
    return again;
}

ReconnectThread::Run::~Run() {
    if (!_left) {
        const Lock lock(_owner._mutex);
        _owner._state = State::Idle;
    }
    _owner._ended.set();  // the last touch: whoever waits for it may destroy the owner
}

ReconnectThread::Retries_t ReconnectThread::Run::retries() const {
    const Lock lock(_owner._mutex);
    return _owner._retries;
}

ReconnectThread::Attempt::Attempt(ReconnectThread& owner) : _owner(owner) {
    const auto own = std::make_shared<Nubo::Net::Cancellation>();
    _cancellation = own;  // cppcheck-suppress useInitializationList ; the owner may cancel, others only look
    const Lock lock(_owner._mutex);
    _owner._attempt = own;
    if (_owner._stopped || _owner._overtaking > 0) _owner.cancelAttemptLocked();
}

ReconnectThread::Attempt::~Attempt() {
    const Lock lock(_owner._mutex);
    _owner._attempt = nullptr;
}

/// While one lives, attempts are ended.
class ReconnectThread::GiveWay {
public:
    explicit GiveWay(ReconnectThread& owner) : _owner(owner) {
        const Lock lock(_owner._mutex);
        ++_owner._overtaking;
        _owner.cancelAttemptLocked();
    }
    ~GiveWay() {
        const Lock lock(_owner._mutex);
        --_owner._overtaking;
    }
    GiveWay(const GiveWay&) = delete;
    GiveWay& operator=(const GiveWay&) = delete;

private:
    ReconnectThread& _owner;
};

ReconnectThread::Overtake::Overtake(ReconnectThread& owner, Poco::Mutex& mutex) : _mutex(mutex) {
    std::optional<GiveWay> way;
    if (Poco::Thread::current() != &owner._thread) way.emplace(owner);
    _mutex.lock();
}

}  // namespace Nubo::Client
