#include <Logging/LogLine.h>
#include <Nubo/Net/TransportLimits.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>

#include <cstring>
#include <optional>

#include "Reasons.h"
#include "RefusedMessage.h"

namespace Nubo::Net {
namespace {

/// The first `wanted` in [at, end), null when there is none.
const char* find(const char* at, const char* end, char wanted) {
    return static_cast<const char*>(std::memchr(at, wanted, static_cast<std::size_t>(end - at)));
}

/// Whether the character at `at` is escaped: an odd number of backslashes stands between `begin` and it.
bool isEscaped(const char* begin, const char* at) {
    const char* first = at;
    while (first != begin && first[-1] == '\\') --first;
    return (at - first) % 2 != 0;
}

/// Behind the closing quote of the string whose text begins at `text`; `end` when it never closes.
const char* behindString(const char* text, const char* end) {
    const char* quote = find(text, end, '"');
    while (quote != nullptr && isEscaped(text, quote)) quote = find(quote + 1, end, '"');
    return quote != nullptr ? quote + 1 : end;
}

/// Behind the object that opens at `at`; null when it never closes.
const char* behindObject(const char* at, const char* end) {
    std::size_t depth = 0;
    while (at != end) {
        switch (*at++) {
            case '{':
                ++depth;
                break;
            case '}':
                if (--depth == 0) return at;
                break;
            case '"':
                at = behindString(at, end);
                break;
            default:
                break;
        }
    }
    return nullptr;
}

/// Calls found(position, length) for each object in `text`, as long as that returns true.
/// @return how many bytes at the end belong to an object that never closes
template <typename Found>
std::size_t forEachObject(const std::string& text, const Found& found) {
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    const char* open = find(begin, end, '{');
    while (open != nullptr) {
        const char* const behind = behindObject(open, end);
        if (behind == nullptr) return static_cast<std::size_t>(end - open);
        if (!found(static_cast<std::size_t>(open - begin), static_cast<std::size_t>(behind - open))) return 0;
        open = find(behind, end, '{');
    }
    return 0;
}

std::string incomplete(std::size_t dropped, std::size_t all) {
    return "incomplete JSON object dropped, " + std::to_string(dropped) + " of " + std::to_string(all) +
           " bytes";
}

}  // namespace

WebsocketDataObjectSplitter::WebsocketDataObjectSplitter() = default;

WebsocketDataObjectSplitter::~WebsocketDataObjectSplitter() = default;

void WebsocketDataObjectSplitter::onDataBlockAvailable(const WebsocketDataEventPayload& block) {
    std::optional<WebsocketDataEventPayload> part;
    std::size_t count = 0;
    const std::size_t dropped = forEachObject(block.data, [&](std::size_t position, std::size_t length) {
        if (++count > TransportLimits::MAX_OBJECTS) throw RefusedMessage(Reasons::tooManyObjects());
        if (length == block.data.size()) {
            ObjectAvailable.notify(this, block);
            return true;
        }
        if (!part) part.emplace(block);
        part->data.assign(block.data, position, length);
        ObjectAvailable.notify(this, *part);
        return true;
    });
    if (dropped != 0)
        IncompleteDropped.notify(this,
                                 WebsocketDataEventPayload(block, incomplete(dropped, block.data.size())));
}

void WebsocketDataObjectSplitter::splitJsonDataObjectString(const std::string& text,
                                                            std::vector<std::string>& objects) const {
    const std::size_t dropped = forEachObject(text, [&](std::size_t position, std::size_t length) {
        objects.emplace_back(text, position, length);
        return true;
    });
    if (dropped != 0) ZOL_LOG_WARNING("WebsocketDataObjectSplitter: " << incomplete(dropped, text.size()));
}

}  // namespace Nubo::Net
