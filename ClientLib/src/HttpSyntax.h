#ifndef CLIENTLIB_SRC_HTTPSYNTAX_H
#define CLIENTLIB_SRC_HTTPSYNTAX_H

#include <algorithm>
#include <cstring>
#include <string>

namespace Nubo::Client::HttpSyntax {

// What may stand in a request: anything else could end its place there and begin a header or a request of
// the sender's choice.

inline bool isAlphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

inline bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

/// Only alphanumeric characters and those in `others`, and at least one of them.
inline bool consistsOf(const std::string& text, const char* others) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return isAlphanumeric(c) || (c != '\0' && std::strchr(others, c) != nullptr);
    });
}

/// A method (RFC 9110, 5.6.2).
inline bool isToken(const std::string& text) {
    return consistsOf(text, "!#$%&'*+-.^_`|~");
}

/// A name or an address, an IPv6 address without brackets.
inline bool isHost(const std::string& text) {
    return consistsOf(text, "-._~:%");
}

/// A path with its query, or a whole URI. Bytes beyond ASCII are let through, unlike in RFC 3986.
inline bool isTarget(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c == ' ' || isControl(c); });
}

/// The value of a header field.
inline bool isFieldValue(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c != '\t' && isControl(c); });
}

}  // namespace Nubo::Client::HttpSyntax

#endif
