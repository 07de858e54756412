#ifndef NUBO_UTIL_CVALUETOOLS_H
#define NUBO_UTIL_CVALUETOOLS_H

#include <cstdint>

namespace Nubo::Util {

/// Helpers on plain values; no state, any thread.
class cValueTools {
public:
    cValueTools() = delete;

    /// Sets (`value` true) or clears bit number `bit` of `target`. Positions above 31 are ignored. The value
    /// of the single bit is cut to 16 bits, so that positions 16 to 31 change nothing either; the upper half
    /// of a wider target stays as it is. Does not throw.
    template <typename T>
    static void setBit(std::uint8_t bit, bool value, T& target);
};

template <typename T>
void cValueTools::setBit(std::uint8_t bit, bool value, T& target) {
    if (bit > 31) return;
    // Widened before it is complemented: a complement of 16 bits would clear the target's upper half.
    const T single = static_cast<T>(static_cast<std::uint16_t>(std::uint32_t{1} << bit));
    target = static_cast<T>(value ? (target | single) : (target & ~single));
}

}  // namespace Nubo::Util

#endif
