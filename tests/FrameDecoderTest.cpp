// What the transport makes of a server's byte stream, grouped as the public conformance suites are. Each
// stream is fed byte by byte, and in two parts cut at every byte.

#include "FrameDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Frames.h"

using namespace frames;
using Nubo::Net::FrameDecoder;
using Event = FrameDecoder::Event;

namespace {

constexpr std::size_t LIMIT = 70000;  // of a message, here

std::string describe(FrameDecoder& decoder, Event event) {
    if (event == Event::Message) {
        const std::string message = decoder.takeMessage();
        return (decoder.messageFlags() == 0x81 ? "text(" : "binary(") +
               (message.size() > 40 ? std::to_string(message.size()) + " bytes" : message) + ") ";
    }
    if (event == Event::Close) return "close(" + std::to_string(decoder.closeCode()) + ") ";
    if (event == Event::Error)
        return "error(" + std::to_string(decoder.errorCode()) + " " + decoder.errorText() + ") ";
    return (event == Event::Ping ? "ping(" : "pong(") + std::string(decoder.control()) + ") ";
}

std::string feed(FrameDecoder& decoder, const std::string& bytes) {
    std::string log;
    const char* data = bytes.data();
    const char* const end = data + bytes.size();
    for (auto event = decoder.next(data, end); event != Event::NeedMore; event = decoder.next(data, end))
        log += describe(decoder, event);
    EXPECT_EQ(data, end);
    return log;
}

/// @param outcome each event as describe() tells it, the last one with the last byte
void expectEvents(const std::string& stream, const std::string& outcome) {
    SCOPED_TRACE(outcome + testing::PrintToString(stream.substr(0, 40)));
    FrameDecoder slow(LIMIT);
    std::string log;
    for (const char byte : stream) {
        EXPECT_NE(log, outcome) << "too early";
        log += feed(slow, std::string(1, byte));
    }
    EXPECT_EQ(log, outcome);
    const std::size_t step = stream.size() < 2000 ? 1 : stream.size() / 500;
    for (std::size_t cut = 0; cut <= stream.size(); cut += step) {
        FrameDecoder decoder(LIMIT);
        const std::string first = feed(decoder, stream.substr(0, cut));
        EXPECT_EQ(first + feed(decoder, stream.substr(cut)), outcome) << "cut at " << cut;
    }
}

const std::string UMLAUT = "\xC3\xA4";
const std::string NOT_UTF8 = "error(1007 text is not UTF-8) ";
const std::string RESERVED = "error(1002 reserved bit set) ";
const std::string LENGTH = "error(1002 length not in its shortest form) ";
const std::string TOO_BIG = "error(1009 message too big) ";

TEST(FrameDecoder, LengthsAndHeaders) {
    for (const unsigned size : {125, 126, 65535, 65536})
        expectEvents(text(std::string(size, '*')), "text(" + std::to_string(size) + " bytes) ");
    expectEvents(text(""), "text() ");
    expectEvents(frame(0x82, "\xFF\xFE") + text("b"), "binary(\xFF\xFE) text(b) ");
    expectEvents("\x81\x7E" + number(125, 2), LENGTH);
    expectEvents("\x81\x7F" + number(65535, 8), LENGTH);
    expectEvents("\x81\x7F\xFF" + number(0, 7), "error(1002 length out of range) ");
    expectEvents("\x81\x85", "error(1002 masked frame from a server) ");
    expectEvents(text("ok") + "\xB1", "text(ok) " + RESERVED);
    for (const char* first : {"\xC1", "\xA1", "\x92", "\xF9", "\xC8"}) expectEvents(first, RESERVED);
    for (const char* first : {"\x83", "\x87", "\x8B", "\x8F"})
        expectEvents(first, "error(1002 unknown opcode) ");
}

TEST(FrameDecoder, PingsAndPongs) {
    expectEvents(ping(), "ping() ");
    expectEvents(ping("1") + frames::pong("x") + ping("\xFE\xFF"), "ping(1) pong(x) ping(\xFE\xFF) ");
    expectEvents(ping(std::string(125, 'p')), "ping(" + std::string(125, 'p') + ") ");
    expectEvents("\x89\x7E", "error(1002 control frame longer than 125 bytes) ");
    expectEvents("\x09", "error(1002 control frame fragmented) ");
}

TEST(FrameDecoder, Fragments) {
    expectEvents(frame(0x01, "a") + frame(0x80, "b") + frame(0x82, "c"), "text(ab) binary(c) ");
    expectEvents(frame(0x01) + frame(0x00) + frame(0x80), "text() ");
    expectEvents(frame(0x02, "ab") + frame(0x80), "binary(ab) ");
    expectEvents(frame(0x01, "ab") + ping("!") + frame(0x80, "cd"), "ping(!) text(abcd) ");
    expectEvents(frame(0x01, "ab") + closing(1000), "close(1000) ");
    expectEvents("\x80", "error(1002 nothing to continue) ");
    expectEvents(text("a") + std::string(1, '\0'), "text(a) error(1002 nothing to continue) ");
    expectEvents(frame(0x01, "a") + "\x81", "error(1002 message begun within a message) ");
    expectEvents(frame(0x01, "a") + "\x84", "error(1002 unknown opcode) ");
}

TEST(FrameDecoder, TextIsUtf8) {
    for (const std::string& good :
         {std::string("\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5"), "0123456789" + UMLAUT + "0123456789",
          std::string("\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF")})
        expectEvents(text(good), "text(" + good + ") ");
    for (const char* bad : {"abcdefghijkl\xFF", "\xC0", "\xE0\x9F", "\xF0\x8F", "\xED\xA0", "\xF4\x90",
                            "\xF8", "\xE1\x80\x61", "ab\x80"})
        for (const unsigned first : {0x81U, 0x01U}) expectEvents(header(first, 1000) + bad, NOT_UTF8);
    expectEvents(frame(0x01, UMLAUT.substr(0, 1)) + frame(0x80, UMLAUT.substr(1)), "text(" + UMLAUT + ") ");
    expectEvents(text("a" + UMLAUT.substr(0, 1)), "error(1007 text ends within a character) ");
    expectEvents(frame(0x01, UMLAUT.substr(0, 1)) + frame(0x80), "error(1007 text ends within a character) ");
}

TEST(FrameDecoder, CloseCodes) {
    expectEvents(frame(0x88), "close(1005) ");
    expectEvents(frame(0x88, "\x03"), "error(1002 close frame with half a code) ");
    expectEvents(closing(1001, UMLAUT), "close(1001) ");
    expectEvents(closing(1000, std::string(123, 'r')), "close(1000) ");
    expectEvents(closing(1000, "\xC3("), "error(1007 close reason is not UTF-8) ");
    expectEvents(closing(1000, "\xC3"), "error(1007 close reason is not UTF-8) ");
    for (const unsigned code : {1000, 1003, 1007, 1011, 1014, 3000, 4999})
        expectEvents(closing(code), "close(" + std::to_string(code) + ") ");
    for (const unsigned code : {0, 999, 1004, 1005, 1006, 1015, 2999, 5000, 65535})
        expectEvents(closing(code), "error(1002 close code not allowed) ");
}

TEST(FrameDecoder, Limits) {
    expectEvents(text(std::string(LIMIT, 'x')) + text("ab"), "text(70000 bytes) text(ab) ");
    expectEvents(header(0x81, LIMIT + 1), TOO_BIG);
    expectEvents("\x82\x7F" + number(0x7FFFFFFFFFFFFFFF, 8), TOO_BIG);
    expectEvents(frame(0x01, std::string(LIMIT, 'x')) + header(0x80, 1), TOO_BIG);
    FrameDecoder decoder;
    feed(decoder, header(0x82, Nubo::Net::TransportLimits::MAX_MESSAGE_BYTES) + "abc");
    EXPECT_LT(decoder.takeMessage().capacity(), 100U) << "nothing is spent on an announced length";
}

TEST(FrameDecoder, NothingComesAfterTheEnd) {
    for (const std::string& last : {std::string("\xF1"), closing(1000)}) {
        FrameDecoder decoder, alone;
        EXPECT_EQ(feed(decoder, last + text("late") + ping()), feed(alone, last));
        EXPECT_EQ(feed(decoder, closing(1001)), "");
    }
}

TEST(FrameDecoder, BetweenFragmentsThereIsNoFrameButAMessage) {
    FrameDecoder decoder;
    const auto after = [&](const std::string& bytes) {
        feed(decoder, bytes);
        return std::pair(decoder.inFrame(), decoder.inMessage());
    };
    EXPECT_EQ(after("\x89"), std::pair(true, false));  // a ping
    EXPECT_EQ(after(std::string(1, '\0') + "\x01"), std::pair(true, true));
    EXPECT_EQ(after(number(1, 1) + "a"), std::pair(false, true));
    EXPECT_EQ(after(ping()), std::pair(false, true));
    EXPECT_EQ(after(frame(0x80)), std::pair(false, false));
}

}  // namespace
