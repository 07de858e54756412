#ifndef LOGGING_SHORTENED_H
#define LOGGING_SHORTENED_H

#include <cstddef>
#include <ostream>
#include <string_view>

namespace Logging {

/// A text of a peer as a line shows it: whole up to LIMIT bytes, else its beginning, not cut within a UTF-8
/// character, and its whole size: "abc ... (cut, 16777216 bytes in all)".
///
///     ZOL_LOG_WARNING("Parser::run: " << Logging::shortened(text));
///
/// Refers to the text, which must live until it is written.
class Shortened {
public:
    static constexpr std::size_t LIMIT = 16384;  ///< bytes

    /// Refers to `text`.
    explicit Shortened(std::string_view text) : _text(text) {}

    /// Writes it.
    friend std::ostream& operator<<(std::ostream& out, const Shortened& shortened) {
        const std::string_view text = shortened._text;
        if (text.size() <= LIMIT) return out << text;
        return out << text.substr(0, beginning(text)) << " ... (cut, " << text.size() << " bytes in all)";
    }

private:
    /// LIMIT, or up to three bytes less where the character that contains that byte begins.
    static std::size_t beginning(std::string_view text) {
        std::size_t length = LIMIT;
        while (length > LIMIT - 3 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) --length;
        return length;
    }

    const std::string_view _text;
};

inline Shortened shortened(std::string_view text) {
    return Shortened(text);
}

}  // namespace Logging

#endif
