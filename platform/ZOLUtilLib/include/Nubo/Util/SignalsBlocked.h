#ifndef NUBO_UTIL_SIGNALSBLOCKED_H
#define NUBO_UTIL_SIGNALSBLOCKED_H

#include <csignal>

namespace Nubo::Util {

/// Blocks every signal for the calling thread while it lives, so that a thread started meanwhile inherits
/// that mask: signals are the application's, and none may interrupt a thread of the library.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t _before;
};

}  // namespace Nubo::Util

#endif
