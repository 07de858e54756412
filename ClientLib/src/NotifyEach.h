#ifndef CLIENTLIB_SRC_NOTIFYEACH_H
#define CLIENTLIB_SRC_NOTIFYEACH_H

#include <Poco/BasicEvent.h>

#include <exception>

namespace Nubo::Client {

/// Raises an event so that a delegate that throws does not cost the others their call, which
/// Poco::BasicEvent::notify would (it stops at the first exception).
/// @throws the first exception that a delegate threw, after all of them were called
/// Like notify(), it calls the delegates that were there when it began, less those removed meanwhile.
template <class Args, class Mutex>
void notifyEach(Poco::BasicEvent<Args, Mutex>& event, const void* sender, Args& args) {
    using Delegates = Poco::DefaultStrategy<Args, Poco::AbstractDelegate<Args>>;
    // List and delegates are protected: derived classes, and member pointers taken through them, reach them.
    struct EachOf : Delegates {
        explicit EachOf(const Delegates& delegates) : Delegates(delegates) {}
        auto& list() { return this->_delegates; }
    };
    struct EventAccess : Poco::BasicEvent<Args, Mutex> {
        static EachOf copyOf(Poco::BasicEvent<Args, Mutex>& event) {
            typename Mutex::ScopedLock lock(event.*(&EventAccess::_mutex));
            if (!(event.*(&EventAccess::_enabled))) return EachOf(Delegates());
            return EachOf(event.*(&EventAccess::_strategy));
        }
    };

    std::exception_ptr first;
    EachOf each = EventAccess::copyOf(event);
    for (auto& delegate : each.list()) {
        try {
            delegate->notify(sender, args);
        } catch (...) {
            if (!first) first = std::current_exception();
        }
    }
    if (first) std::rethrow_exception(first);
}

}  // namespace Nubo::Client

#endif
