#ifndef NUBO_NET_UTF8VALIDATOR_H
#define NUBO_NET_UTF8VALIDATOR_H

#include <cstddef>

namespace Nubo::Net {

/// Checks UTF-8 (RFC 3629) in pieces as they come, and fails at the first byte that no valid text can have.
class Utf8Validator {
public:
    /// Whether the text is still valid with these bytes. Not called again after a false.
    bool feed(const char* data, std::size_t size);

    /// Whether the text so far does not end within a character.
    bool complete() const { return _missing == 0; }

private:
    bool begin(unsigned char first);

    // The continuation bytes that the current character still needs, and the bounds of the next one.
    unsigned char _missing = 0;
    unsigned char _lowest = 0x80;
    unsigned char _highest = 0xBF;
};

}  // namespace Nubo::Net

#endif
