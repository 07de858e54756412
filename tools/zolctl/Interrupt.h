#ifndef ZOLCTL_INTERRUPT_H
#define ZOLCTL_INTERRUPT_H

namespace ZolCtl::Interrupt {

/// What SIGINT (Ctrl-C) and SIGTERM do from now on: end the process at once, with 128 and the signal's
/// number.
void install();

/// As long as one lives, the first such signal is only noted; a second one ends the process at once.
class Deferred {
public:
    Deferred();
    ~Deferred();
    Deferred(const Deferred&) = delete;
    Deferred& operator=(const Deferred&) = delete;
};

/// Thrown where a noted signal is acted upon.
struct Interrupted {
    int exitCode;
};

/// @throws Interrupted when a signal was noted
void check();

}  // namespace ZolCtl::Interrupt

#endif
