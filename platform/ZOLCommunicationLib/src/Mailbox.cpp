#include "Mailbox.h"

#include <sys/eventfd.h>

#include <utility>

#include "Connection.h"

namespace Nubo::Net {

namespace {

thread_local const Mailbox* ownMailbox = nullptr;

}  // namespace

Mailbox::Mailbox() : _event("eventfd", ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    MonotonicClock::addWaiter(_event.get());
}

Mailbox::~Mailbox() {
    MonotonicClock::removeWaiter(_event.get());
}

void Mailbox::add(std::unique_ptr<Connection> connection) {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _mail.added.push_back(std::move(connection));
    }
    wake();
}

void Mailbox::attend(Key key) {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        if (!_mail.attention.empty() && _mail.attention.back() == key) return;  // has been told already
        _mail.attention.push_back(key);
    }
    wake();
}

void Mailbox::callAt(MonotonicClock::TimePoint due, std::function<void()> action) {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _mail.later.emplace(due, std::move(action));
    }
    wake();
}

void Mailbox::stop() {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _mail.stop = true;
    }
    wake();
}

void Mailbox::wake() {
    ::eventfd_write(_event.get(), 1);
}

void Mailbox::bindToThisThread() {
    ownMailbox = this;
}

bool Mailbox::onManagerThread() const {
    return ownMailbox == this;
}

Mailbox::Mail Mailbox::collect() {
    eventfd_t count = 0;
    ::eventfd_read(_event.get(), &count);  // before the look, so that later mail wakes again
    const Nubo::Util::MutexLock lock(_mutex);
    return std::exchange(_mail, Mail());
}

}  // namespace Nubo::Net
