#ifndef TESTS_FRAMES_H
#define TESTS_FRAMES_H

#include <cstddef>
#include <string>

/// Frames as a server writes them, byte by byte, independent of the library's own encoder.
namespace frames {

inline std::string number(std::size_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text.push_back(static_cast<char>(value >> (8 * i)));
    return text;
}

/// A header: the first byte, then the length in its shortest form.
inline std::string header(unsigned first, std::size_t length) {
    const std::string start = number(first, 1);
    if (length < 126) return start + number(length, 1);
    return length <= 0xFFFF ? start + "\x7E" + number(length, 2) : start + "\x7F" + number(length, 8);
}

inline std::string frame(unsigned first, const std::string& payload = "") {
    return header(first, payload.size()) + payload;
}

inline std::string text(const std::string& payload) {
    return frame(0x81, payload);
}
inline std::string ping(const std::string& payload = "") {
    return frame(0x89, payload);
}
inline std::string pong(const std::string& payload = "") {
    return frame(0x8A, payload);
}
inline std::string closing(unsigned code, const std::string& reason = "") {
    return frame(0x88, number(code, 2) + reason);
}

}  // namespace frames

#endif
