#ifndef ZOLPLATFORM_SIGNALS_H
#define ZOLPLATFORM_SIGNALS_H

#include <Nubo/Simulator/Platform.h>

namespace ZolPlatform {

/// The signals that the program acts upon, read from a descriptor: SIGINT and SIGTERM end it, SIGHUP restarts
/// all services, SIGUSR1 drops their sockets, SIGUSR2 moves them to other ports.
class Signals {
public:
    /// Made before the first thread, since threads inherit which signals are blocked.
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int descriptor() const { return _descriptor; }
    /// Takes one signal and does what it says. @return false for one that ends the program
    bool handleOne(Nubo::Simulator::Platform& platform);

private:
    int _descriptor;
};

}  // namespace ZolPlatform

#endif
