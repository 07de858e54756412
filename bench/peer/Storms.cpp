#include "Storms.h"

#include "Frames.h"

namespace storms {

namespace {

constexpr std::size_t LARGE = 16U << 20U;
constexpr std::size_t BLOCK = 1U << 20U;

std::string repeated(const std::string& part, std::size_t size) {
    std::string text;
    text.reserve(size);
    while (text.size() + part.size() <= size) text += part;
    return text;
}

}  // namespace

std::string frames(const std::string& name) {
    using ::frames::frame;
    using ::frames::TEXT;
    constexpr std::size_t PING_BYTES = 125;
    if (name == TINY_FRAMES) return repeated(frame(TEXT, "{}"), BLOCK);
    if (name == MANY_OBJECTS) return frame(TEXT, repeated("{}", LARGE));
    if (name == WIDE_JSON) return frame(TEXT, "{\"data\":[0" + repeated(",0", LARGE - 16) + "]}");
    if (name == BAD_TEXTS) return repeated(frame(TEXT, "{\"type\":nothing}"), BLOCK);
    if (name == PINGS) return repeated(frame(::frames::PING, std::string(PING_BYTES, 'p')), BLOCK);
    return "";
}

std::string lineEndsAnswer() {
    return "HTTP/1.1 404 Not Found\r\nContent-Length: " + std::to_string(LARGE) + "\r\n\r\n" +
           std::string(LARGE, '\n');
}

}  // namespace storms
