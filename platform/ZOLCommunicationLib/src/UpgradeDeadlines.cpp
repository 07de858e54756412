#include "UpgradeDeadlines.h"

#include <Nubo/Net/TransportLimits.h>
#include <fcntl.h>
#include <sys/socket.h>

namespace Nubo::Net {

UpgradeDeadlines::Upgrade::Upgrade(int socket)
    : descriptor("dup", ::fcntl(socket, F_DUPFD_CLOEXEC, 0)),
      due(MonotonicClock::now() + TransportLimits::UPGRADE) {}

UpgradeDeadlines::Handle UpgradeDeadlines::add(int socket) {
    const Nubo::Util::MutexLock lock(_mutex);
    const Handle added = _pending.emplace(_pending.end(), socket);
    if (_pending.size() == 1) _mailbox->wake();
    return added;
}

void UpgradeDeadlines::remove(Handle upgrade) {
    const Nubo::Util::MutexLock lock(_mutex);
    (upgrade->expired ? _expired : _pending).erase(upgrade);
}

bool UpgradeDeadlines::expired(Handle upgrade) {
    const Nubo::Util::MutexLock lock(_mutex);
    return upgrade->expired;
}

MonotonicClock::TimePoint UpgradeDeadlines::next() {
    const Nubo::Util::MutexLock lock(_mutex);
    return _pending.empty() ? MonotonicClock::TimePoint::max() : _pending.front().due;
}

void UpgradeDeadlines::expire(MonotonicClock::TimePoint now) {
    const Nubo::Util::MutexLock lock(_mutex);
    while (!_pending.empty() && _pending.front().due <= now) {
        ::shutdown(_pending.front().descriptor.get(), SHUT_RDWR);
        _pending.front().expired = true;
        _expired.splice(_expired.end(), _pending, _pending.begin());
    }
}

}  // namespace Nubo::Net
