#include <Logging/Escaped.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace Logging {
namespace {

using Byte = unsigned char;

constexpr Byte DELETE = 0x7F;

Byte byteAt(const char* at) {
    return static_cast<Byte>(*at);
}

/// Printable ASCII.
bool isPlain(char c) {
    return c >= ' ' && c < DELETE;
}

bool isBetween(Byte least, Byte byte, Byte most) {
    return least <= byte && byte <= most;
}

/// How many bytes the character that begins at `at`, with a byte that is not ASCII, has; 0 when there is no
/// valid one. RFC 3629, section 4: the second byte's bounds keep out overlong forms, surrogates and what is
/// past U+10FFFF.
std::size_t lengthOfCharacter(const char* at, const char* end) {
    const Byte first = byteAt(at);
    if (!isBetween(0xC2, first, 0xF4)) return 0;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (static_cast<std::size_t>(end - at) < length) return 0;
    const Byte least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const Byte most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    const bool valid = isBetween(least, byteAt(at + 1), most) &&
                       std::all_of(at + 2, at + length, [](char c) { return (c & 0xC0) == 0x80; });
    return valid ? length : 0;
}

/// U+0080 to U+009F: this byte, then the code.
bool isC1(const char* character) {
    return byteAt(character) == 0xC2 && byteAt(character + 1) < 0xA0;
}

template <std::size_t SIZE>
char* put(char* to, const char (&literal)[SIZE]) {
    return std::copy_n(literal, SIZE - 1, to);
}

char* putHexadecimal(char* to, Byte byte) {
    static const char* const DIGITS = "0123456789ABCDEF";
    *to++ = DIGITS[byte >> 4U];
    *to++ = DIGITS[byte & 0xFU];
    return to;
}

// The two forms. Each operation writes at most LONGEST bytes to `to`, and returns where they end.
constexpr std::size_t LONGEST = 8;

struct LineForm {
    static char* putControl(char* to, char control) {
        if (control == '\n') return put(to, "\\n");
        if (control == '\r') return put(to, "\\r");
        if (control == '\t') return put(to, "\t");
        return putInvalid(to, static_cast<Byte>(control));
    }
    static char* putC1(char* to, Byte code) { return putInvalid(putInvalid(to, 0xC2), code); }
    static char* putInvalid(char* to, Byte byte) { return putHexadecimal(put(to, "\\x"), byte); }
};

struct JsonForm {
    static char* putControl(char* to, char control) {
        if (control != '\n' && control != '\r' && control != '\t')
            return putC1(to, static_cast<Byte>(control));
        *to++ = control;
        return to;
    }
    static char* putC1(char* to, Byte code) { return putHexadecimal(put(to, "\\u00"), code); }
    static char* putInvalid(char* to, Byte byte) { return putHexadecimal(put(to, "\\\\x"), byte); }
};

/// Writes the character at `at`, and moves on behind it.
template <typename Form>
char* putNext(char* to, const char*& at, const char* end) {
    if (isPlain(*at)) {
        *to++ = *at++;
        return to;
    }
    if (byteAt(at) < 0x80) return Form::putControl(to, *at++);
    const std::size_t length = lengthOfCharacter(at, end);
    const char* const character = at;
    at += std::max<std::size_t>(length, 1);
    if (length == 0) return Form::putInvalid(to, byteAt(character));
    if (isC1(character)) return Form::putC1(to, byteAt(character + 1));
    return std::copy_n(character, length, to);
}

/// By way of a block on the stack: to append a few bytes to a string costs far more than to write them.
template <typename Form>
std::string inForm(std::string text) {
    constexpr std::size_t BLOCK = 1024;
    if (std::all_of(text.begin(), text.end(), isPlain)) return text;
    std::string result;
    result.reserve(2 * text.size());
    std::array<char, BLOCK + LONGEST> block;
    const char* at = text.data();
    for (const char* const end = at + text.size(); at != end;) {
        char* to = block.data();
        while (at != end && to < block.data() + BLOCK) to = putNext<Form>(to, at, end);
        result.append(block.data(), to);
    }
    return result;
}

}  // namespace

std::string escaped(std::string text) {
    return inForm<LineForm>(std::move(text));
}

std::string escapedJson(std::string json) {
    return inForm<JsonForm>(std::move(json));
}

}  // namespace Logging
