#ifndef ZOLPLATFORM_KEYS_H
#define ZOLPLATFORM_KEYS_H

#include <Nubo/Simulator/Platform.h>
#include <termios.h>

#include "Actions.h"

namespace ZolPlatform {

/// Single keys on the terminal that the program runs in the foreground of: one for each action, and one for
/// what it is done to. Elsewhere it does nothing. The terminal is as before at the end.
class Keys {
public:
    /// @param platform outlives it
    explicit Keys(Nubo::Simulator::Platform& platform);
    ~Keys();
    Keys(const Keys&) = delete;
    Keys& operator=(const Keys&) = delete;

    /// The descriptor to wait for, -1 when there are no keys.
    int descriptor() const;
    /// Reads one key and does what it says. @return false for the key that quits
    bool handleOne();

private:
    bool inForeground() const;
    void choose(char key);
    void help() const;

    Nubo::Simulator::Platform& _platform;
    bool _active = false;
    termios _before = {};
    Endpoints _chosen;
};

}  // namespace ZolPlatform

#endif
