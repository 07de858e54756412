#include "Undelivered.h"

#include <Nubo/Net/TransportLimits.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Nubo::Net {

namespace {

constexpr std::uint64_t ONES = 0x0101010101010101U;

/// One in each byte of `word` that is `wanted`.
std::uint64_t marks(std::uint64_t word, unsigned char wanted) {
    constexpr std::uint64_t LOW_BITS = 0x7F * ONES;
    const std::uint64_t different = word ^ (wanted * ONES);  // a byte is zero where they are the same
    return ~(((different & LOW_BITS) + LOW_BITS) | different | LOW_BITS) >> 7;
}

/// About how many JSON values there are: behind each comma and each opening bracket or brace stands one. In
/// steps of eight bytes, as a message may be long.
std::size_t valuesIn(const std::string& text) {
    constexpr std::uint64_t LOWER_CASE = 0x20 * ONES;          // makes "[" a "{", and leaves "," and "{"
    constexpr std::size_t BLOCK = 31 * sizeof(std::uint64_t);  // so that the sum of all counts fits a byte
    std::size_t count = 0;
    for (std::size_t block = 0; block < text.size(); block += BLOCK) {
        const std::size_t end = std::min(text.size(), block + BLOCK);
        std::uint64_t counts = 0;
        for (std::size_t at = block; at < end; at += sizeof counts) {
            std::uint64_t word = 0;
            std::memcpy(&word, text.data() + at, std::min(sizeof word, end - at));
            counts += marks(word, ',') + marks(word | LOWER_CASE, '{');
        }
        count += static_cast<std::size_t>(counts * ONES >> 56);
    }
    return count;
}

}  // namespace

struct Undelivered::Receipt {
    Receipt(std::shared_ptr<Undelivered> all, std::size_t size, std::size_t count)
        : owner(std::move(all)), bytes(size), messages(count) {
        owner->_bytes += bytes;
        owner->_messages += messages;
    }
    ~Receipt() { owner->delivered(bytes, messages); }
    Receipt(const Receipt&) = delete;
    Receipt& operator=(const Receipt&) = delete;

    const std::shared_ptr<Undelivered> owner;
    const std::size_t bytes;
    const std::size_t messages;
};

std::shared_ptr<const void> Undelivered::receipt(const std::string& message) {
    const std::size_t messages = 1 + valuesIn(message) / TransportLimits::VALUES_PER_MESSAGE;
    return std::make_shared<const Receipt>(shared_from_this(), message.size(), messages);
}

void Undelivered::delivered(std::size_t bytes, std::size_t messages) {
    _bytes -= bytes;
    _messages -= messages;
    if (!_managerWaits || !hasRoom() || !_managerWaits.exchange(false)) return;
    if (const auto channel = _channel.lock()) channel->callManager();
}

// The look behind the mark finds what was delivered before it was set, whose receipts have called nobody.
bool Undelivered::tooMuch() {
    if (_bytes < TransportLimits::MAX_UNDELIVERED_BYTES &&
        _messages < TransportLimits::MAX_UNDELIVERED_MESSAGES)
        return false;
    _managerWaits = true;
    return !hasRoom();
}

bool Undelivered::hasRoom() const {
    return _bytes < TransportLimits::MAX_UNDELIVERED_BYTES / 2 &&
           _messages < TransportLimits::MAX_UNDELIVERED_MESSAGES / 2;
}

}  // namespace Nubo::Net
