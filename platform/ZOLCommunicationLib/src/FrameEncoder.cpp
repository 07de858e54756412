#include "FrameEncoder.h"

#include <array>
#include <cstring>
#include <random>

#include "CloseCode.h"
#include "FrameDecoder.h"

namespace Nubo::Net {

namespace {

using Mask = std::array<char, 4>;

Mask newMask() {
    static thread_local std::mt19937 generator{std::random_device{}()};
    const auto bits = static_cast<std::uint32_t>(generator());
    Mask mask;
    std::memcpy(mask.data(), &bits, mask.size());
    return mask;
}

void appendNumber(std::string& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
}

void appendLength(std::string& out, std::size_t size) {
    if (size < 126) {
        appendNumber(out, FrameBits::MASKED | size, 1);
    } else if (size <= 0xFFFF) {
        appendNumber(out, FrameBits::MASKED | 126, 1);
        appendNumber(out, size, 2);
    } else {
        appendNumber(out, FrameBits::MASKED | 127, 1);
        appendNumber(out, size, 8);
    }
}

}  // namespace

void appendFrame(std::string& out, unsigned firstByte, std::string_view payload) {
    const Mask mask = newMask();
    constexpr std::size_t LONGEST_HEADER = 14;
    out.reserve(out.size() + LONGEST_HEADER + payload.size());  // the last thing that may throw
    appendNumber(out, firstByte, 1);
    appendLength(out, payload.size());
    out.append(mask.data(), mask.size());
    const std::size_t begin = out.size();
    out.append(payload);
    for (std::size_t i = 0; i < payload.size(); ++i)
        out[begin + i] = static_cast<char>(out[begin + i] ^ mask[i % 4]);
}

std::string closePayload(std::uint16_t code) {
    std::string payload;
    if (code != CloseCode::NO_STATUS) appendNumber(payload, code, 2);
    return payload;
}

}  // namespace Nubo::Net
