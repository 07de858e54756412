#include "Utf8Validator.h"

#include <cstdint>
#include <cstring>

namespace Nubo::Net {

namespace {

// Where the run of ASCII that begins at `data` ends, looked for in steps of eight bytes.
const char* skipAscii(const char* data, const char* end) {
    for (std::uint64_t word = 0; end - data >= 8; data += 8) {
        std::memcpy(&word, data, 8);
        if ((word & 0x8080808080808080U) != 0) break;
    }
    while (data != end && static_cast<unsigned char>(*data) < 0x80) ++data;
    return data;
}

}  // namespace

bool Utf8Validator::feed(const char* data, std::size_t size) {
    const char* const end = data + size;
    while (data != end) {
        if (_missing == 0) {
            data = skipAscii(data, end);
            if (data == end) return true;
            if (!begin(static_cast<unsigned char>(*data++))) return false;
            continue;
        }
        const auto byte = static_cast<unsigned char>(*data++);
        if (byte < _lowest || byte > _highest) return false;
        _lowest = 0x80;
        _highest = 0xBF;
        --_missing;
    }
    return true;
}

// RFC 3629, section 4: the second byte's bounds keep out overlong forms, surrogates and what is past
// U+10FFFF.
bool Utf8Validator::begin(unsigned char first) {
    if (first < 0xC2 || first > 0xF4) return false;
    _missing = first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
    if (first == 0xE0) _lowest = 0xA0;
    if (first == 0xED) _highest = 0x9F;
    if (first == 0xF0) _lowest = 0x90;
    if (first == 0xF4) _highest = 0x8F;
    return true;
}

}  // namespace Nubo::Net
