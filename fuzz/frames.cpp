// The frame decoder: in whatever pieces a stream comes, the same events come out, within the limits.
// Input: four lengths of pieces, which take turns; a quarter of the longest message accepted; the stream.

#include "FrameDecoder.h"

#include <Poco/UTF8Encoding.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "CloseCode.h"
#include "Frames.h"
#include "Fuzz.h"

using Nubo::Net::CloseCode;
using Nubo::Net::FrameDecoder;

namespace {

/// First byte and payload of the simplest frame that is the same event; 0 and its text for an error.
using Event = std::pair<unsigned, std::string>;
using Events = std::vector<Event>;

bool isUtf8(const std::string& text) {
    Poco::UTF8Encoding utf8;
    const auto* at = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = at + text.size();
    while (at != end) {
        const int character = utf8.queryConvert(at, static_cast<int>(end - at));
        if (character < 0) return false;
        at += utf8.convert(character, nullptr, 0);
    }
    return true;
}

Event message(FrameDecoder& decoder, std::size_t limit) {
    const auto first = static_cast<unsigned>(decoder.messageFlags());
    std::string text = decoder.takeMessage();
    require(text.size() <= limit, "a message is no longer than the limit");
    require(first == 0x81 || first == 0x82, "a message is text or binary");
    require(first == 0x82 || isUtf8(text), "text is UTF-8");
    return {first, std::move(text)};
}

Event close(const FrameDecoder& decoder) {
    const std::uint16_t code = decoder.closeCode();
    if (code == CloseCode::NO_STATUS) return {0x88, ""};
    require(Nubo::Net::isCloseCodeAllowed(code), "a close code is one that a peer may send");
    return {0x88, frames::number(code, 2)};
}

Event error(const FrameDecoder& decoder) {
    const std::uint16_t code = decoder.errorCode();
    require(
        code == CloseCode::PROTOCOL_ERROR || code == CloseCode::INVALID_PAYLOAD || code == CloseCode::TOO_BIG,
        "an error has one of three codes");
    return {0, std::to_string(code) + decoder.errorText()};
}

void feed(FrameDecoder& decoder, const char* data, const char* end, std::size_t limit, Events& events) {
    for (;;) {
        const FrameDecoder::Event event = decoder.next(data, end);
        if (event == FrameDecoder::Event::NeedMore) break;
        require(events.empty() || (events.back().first != 0 && events.back().first != 0x88),
                "nothing comes after a close or an error");
        if (event == FrameDecoder::Event::Message) events.push_back(message(decoder, limit));
        if (event == FrameDecoder::Event::Ping) events.emplace_back(0x89, decoder.control());
        if (event == FrameDecoder::Event::Pong) events.emplace_back(0x8A, decoder.control());
        if (event == FrameDecoder::Event::Close) events.push_back(close(decoder));
        if (event == FrameDecoder::Event::Error) events.push_back(error(decoder));
    }
    require(data == end, "everything given is taken");
}

Events decoded(const std::string& stream, std::size_t limit) {
    FrameDecoder decoder(limit);
    Events events;
    feed(decoder, stream.data(), stream.data() + stream.size(), limit, events);
    require(decoder.takeMessage().capacity() <= 2 * stream.size() + 64,
            "memory is spent on what has come only");
    return events;
}

Events decodedInPieces(const std::string& stream, std::size_t limit, const std::uint8_t* lengths) {
    FrameDecoder decoder(limit);
    Events events;
    std::size_t at = 0;
    for (std::size_t i = 0; at < stream.size(); i = (i + 1) % 4) {
        const std::size_t wanted = i == 0 ? lengths[0] + 1U : lengths[i];  // not all of them empty
        const std::size_t length = std::min(wanted, stream.size() - at);
        feed(decoder, stream.data() + at, stream.data() + at + length, limit, events);
        at += length;
    }
    return events;
}

std::string framed(const Events& events) {
    std::string stream;
    for (const auto& [first, payload] : events)
        if (first != 0) stream += frames::frame(first, payload);
    return stream;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 5) return 0;
    const std::size_t limit = 4U * data[4];
    const std::string stream(reinterpret_cast<const char*>(data) + 5, size - 5);
    Events events = decoded(stream, limit);
    require(events == decodedInPieces(stream, limit, data), "pieces give the same events as the whole");
    if (!events.empty() && events.back().first == 0) events.pop_back();
    require(events == decoded(framed(events), limit), "events written as frames give the same events");
    return 0;
}
