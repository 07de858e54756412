#include "Mailbox.h"

#include <sys/eventfd.h>

#include <utility>

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

void Mailbox::add(ServedMap::node_type connection) {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _mail.added.insert(std::move(connection));
    }
    wake();
}

void Mailbox::attend(std::shared_ptr<SendChannel> channel) noexcept {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        if (_closed || std::exchange(channel->_inMail, true)) return;
        channel->_nextInMail = std::move(_attention);
        _attention = std::move(channel);
    }
    wake();
}

void Mailbox::callAt(MonotonicClock::TimePoint due, std::function<void()> action) {
    Later later;
    later.emplace(due, std::move(action));
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _mail.later.merge(later);
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
    _collected = std::move(_attention);
    return std::exchange(_mail, Mail());
}

// From here on the connection is told anew.
std::shared_ptr<SendChannel> Mailbox::nextAttention() {
    const Nubo::Util::MutexLock lock(_mutex);
    std::shared_ptr<SendChannel> next = std::move(_collected);
    if (next) {
        _collected = std::move(next->_nextInMail);
        next->_inMail = false;
    }
    return next;
}

void Mailbox::close() {
    {
        const Nubo::Util::MutexLock lock(_mutex);
        _closed = true;
    }
    collect();
    while (nextAttention()) {
    }
}

}  // namespace Nubo::Net
