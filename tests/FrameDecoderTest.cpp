// What the transport makes of a server's byte stream: one row a case, grouped as the public conformance
// suites are. Each stream is fed whole, byte by byte, and in two parts cut at every byte.

#include "FrameDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Frames.h"

using frames::closing;
using frames::frame;
using frames::header;
using frames::number;
using frames::ping;
using frames::pong;
using frames::text;
using Nubo::Net::FrameDecoder;

namespace {

struct Case {
    const char* name;
    std::string stream;
    std::string outcome;           // each event as describe() tells it, in order
    std::size_t decidedAfter = 0;  // bytes after which the outcome must be there; 0: all of them
};

constexpr std::size_t LIMIT = 70000;  // of a message, here

std::string describe(FrameDecoder& decoder, FrameDecoder::Event event) {
    switch (event) {
        case FrameDecoder::Event::Message: {
            const std::string message = decoder.takeMessage();
            const std::string shown =
                message.size() > 40 ? std::to_string(message.size()) + " bytes" : message;
            return (decoder.messageFlags() == 0x81 ? "text(" : "binary(") + shown + ") ";
        }
        case FrameDecoder::Event::Ping:
            return "ping(" + std::string(decoder.control()) + ") ";
        case FrameDecoder::Event::Pong:
            return "pong(" + std::string(decoder.control()) + ") ";
        case FrameDecoder::Event::Close:
            return "close(" + std::to_string(decoder.closeCode()) + ") ";
        case FrameDecoder::Event::Error:
            return "error(" + std::to_string(decoder.errorCode()) + " " + decoder.errorText() + ") ";
        case FrameDecoder::Event::NeedMore:
            break;
    }
    return "";
}

std::string feed(FrameDecoder& decoder, const std::string& bytes) {
    std::string log;
    const char* data = bytes.data();
    const char* const end = data + bytes.size();
    for (auto event = decoder.next(data, end); event != FrameDecoder::Event::NeedMore;
         event = decoder.next(data, end))
        log += describe(decoder, event);
    EXPECT_EQ(data, end);
    return log;
}

class Decoding : public testing::TestWithParam<Case> {};

TEST_P(Decoding, Whole) {
    FrameDecoder decoder(LIMIT);
    EXPECT_EQ(feed(decoder, GetParam().stream), GetParam().outcome);
}

TEST_P(Decoding, ByteByByte) {
    const Case& row = GetParam();
    FrameDecoder decoder(LIMIT);
    std::string log;
    for (std::size_t i = 0; i < row.stream.size(); ++i) {
        log += feed(decoder, row.stream.substr(i, 1));
        if (row.decidedAfter != 0) {
            EXPECT_EQ(log == row.outcome, i + 1 >= row.decidedAfter) << "at byte " << i;
        }
    }
    EXPECT_EQ(log, row.outcome);
}

TEST_P(Decoding, CutAtEveryByte) {
    const Case& row = GetParam();
    const std::size_t step = row.stream.size() < 2000 ? 1 : row.stream.size() / 500;
    for (std::size_t cut = 0; cut <= row.stream.size(); cut += step) {
        FrameDecoder decoder(LIMIT);
        const std::string first = feed(decoder, row.stream.substr(0, cut));
        EXPECT_EQ(first + feed(decoder, row.stream.substr(cut)), row.outcome) << "cut at " << cut;
    }
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

const std::string UMLAUT = "\xC3\xA4";
const std::string KOSME = "\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5";
const std::string NOT_UTF8 = "error(1007 text is not UTF-8) ";
const std::string CUT_CHARACTER = "error(1007 text ends within a character) ";
const std::string RESERVED = "error(1002 reserved bit set) ";
const std::string OPCODE = "error(1002 unknown opcode) ";
const std::string LENGTH = "error(1002 length not in its shortest form) ";
const std::string TOO_BIG = "error(1009 message too big) ";
const std::string BAD_CODE = "error(1002 close code not allowed) ";

INSTANTIATE_TEST_SUITE_P(
    Framing, Decoding,
    testing::Values(Case{"EmptyText", text(""), "text() "}, Case{"Text", text("Hello"), "text(Hello) "},
                    Case{"Binary", frame(0x82, "\xFF\xFE"), "binary(\xFF\xFE) "},
                    Case{"Text125", text(std::string(125, '*')), "text(125 bytes) "},
                    Case{"Text126", text(std::string(126, '*')), "text(126 bytes) "},
                    Case{"Text65535", text(std::string(65535, '*')), "text(65535 bytes) "},
                    Case{"Text65536", text(std::string(65536, '*')), "text(65536 bytes) "},
                    Case{"TwoInOneRead", text("a") + text("b"), "text(a) text(b) "},
                    Case{"Length125InTwoBytes", "\x81\x7E" + number(125, 2), LENGTH, 4},
                    Case{"Length65535InEightBytes", "\x81\x7F" + number(65535, 8), LENGTH, 10},
                    Case{"LengthWithHighestBit", "\x81\x7F\xFF" + number(0, 7),
                         "error(1002 length out of range) ", 10},
                    Case{"Masked", "\x81\x85", "error(1002 masked frame from a server) ", 2},
                    Case{"NothingAfterAnError", "\xF1" + text("late"), RESERVED, 1}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    PingsAndPongs, Decoding,
    testing::Values(Case{"EmptyPing", ping(), "ping() "}, Case{"Ping", ping("Hello"), "ping(Hello) "},
                    Case{"BinaryPing", ping("\xFE\xFF"), "ping(\xFE\xFF) "},
                    Case{"Ping125", ping(std::string(125, 'p')), "ping(" + std::string(125, 'p') + ") "},
                    Case{"Ping126", "\x89\x7E", "error(1002 control frame longer than 125 bytes) ", 2},
                    Case{"UnsolicitedPong", pong("x") + ping("y"), "pong(x) ping(y) "},
                    Case{"SeveralPings", ping("1") + ping("2") + ping("3"), "ping(1) ping(2) ping(3) "}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    ReservedBits, Decoding,
    testing::Values(Case{"Rsv1Text", "\xC1", RESERVED, 1}, Case{"Rsv2Text", "\xA1", RESERVED, 1},
                    Case{"Rsv3Binary", "\x92", RESERVED, 1}, Case{"AllBitsPing", "\xF9", RESERVED, 1},
                    Case{"Rsv1Close", "\xC8", RESERVED, 1},
                    Case{"AfterAGoodOne", text("ok") + "\xB1", "text(ok) " + RESERVED, 5}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(Opcodes, Decoding,
                         testing::Values(Case{"Data3", "\x83", OPCODE, 1}, Case{"Data7", "\x87", OPCODE, 1},
                                         Case{"Control11", "\x8B", OPCODE, 1},
                                         Case{"Control15", "\x8F", OPCODE, 1},
                                         Case{"WithinAMessage", frame(0x01, "a") + "\x84", OPCODE, 4}),
                         nameOf);

INSTANTIATE_TEST_SUITE_P(
    Fragmentation, Decoding,
    testing::Values(
        Case{"TwoFragments", frame(0x01, "ab") + frame(0x80, "cd"), "text(abcd) "},
        Case{"EmptyFragments", frame(0x01) + frame(0x00) + frame(0x80), "text() "},
        Case{"EmptyLast", frame(0x02, "ab") + frame(0x80), "binary(ab) "},
        Case{"PingBetween", frame(0x01, "ab") + ping("!") + frame(0x80, "cd"), "ping(!) text(abcd) "},
        Case{"CloseBetween", frame(0x01, "ab") + closing(1000), "close(1000) "},
        Case{"ThenAnother", frame(0x01, "a") + frame(0x80, "b") + frame(0x82, "c"), "text(ab) binary(c) "},
        Case{"PingFragmented", "\x09", "error(1002 control frame fragmented) ", 1},
        Case{"NothingToContinue", "\x80", "error(1002 nothing to continue) ", 1},
        Case{"ContinuedAfterTheEnd", text("a") + std::string(1, '\0'),
             "text(a) error(1002 nothing to continue) ", 4},
        Case{"TextWithinText", frame(0x01, "a") + "\x81", "error(1002 message begun within a message) ", 4}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Utf8, Decoding,
    testing::Values(
        Case{"Greek", text(KOSME), "text(" + KOSME + ") "},
        Case{"Bounds", text("\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"),
             "text(\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF) "},
        Case{"AfterMuchAscii", text("0123456789" + UMLAUT + "0123456789"),
             "text(0123456789" + UMLAUT + "0123456789) "},
        Case{"CutBetweenFragments", frame(0x01, UMLAUT.substr(0, 1)) + frame(0x80, UMLAUT.substr(1)),
             "text(" + UMLAUT + ") "},
        Case{"EndsWithin", text("a" + UMLAUT.substr(0, 1)), CUT_CHARACTER, 4},
        Case{"EndsWithinLastFragment", frame(0x01, UMLAUT.substr(0, 1)) + frame(0x80), CUT_CHARACTER, 5},
        Case{"FailsAtTheBadByte", header(0x81, 1000) + "abcdefghijkl\xFF", NOT_UTF8, 17},
        Case{"FailsWithinAFragment", header(0x01, 3) + "ab\x80" + frame(0x80, "never"), NOT_UTF8, 5},
        Case{"Overlong2", header(0x81, 2) + "\xC0", NOT_UTF8, 3},
        Case{"Overlong3", header(0x81, 3) + "\xE0\x9F", NOT_UTF8, 4},
        Case{"Overlong4", header(0x81, 4) + "\xF0\x8F", NOT_UTF8, 4},
        Case{"Surrogate", header(0x81, 3) + "\xED\xA0", NOT_UTF8, 4},
        Case{"TooHigh", header(0x81, 4) + "\xF4\x90", NOT_UTF8, 4},
        Case{"FiveBytes", header(0x81, 5) + "\xF8", NOT_UTF8, 3},
        Case{"MissingContinuation", header(0x81, 3) + "\xE1\x80" + "a", NOT_UTF8, 5}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Closing, Decoding,
    testing::Values(
        Case{"NoCode", frame(0x88), "close(1005) "},
        Case{"HalfACode", frame(0x88, "\x03"), "error(1002 close frame with half a code) "},
        Case{"Normal", closing(1000), "close(1000) "},
        Case{"WithReason", closing(1001, UMLAUT), "close(1001) "},
        Case{"LongestReason", closing(1000, std::string(123, 'r')), "close(1000) "},
        Case{"DataAfterwards", closing(1000) + text("late") + ping() + closing(1001), "close(1000) "},
        Case{"ReasonNotUtf8", closing(1000, "\xC3("), "error(1007 close reason is not UTF-8) "},
        Case{"ReasonCut", closing(1000, "\xC3"), "error(1007 close reason is not UTF-8) "},
        Case{"Code1003", closing(1003), "close(1003) "}, Case{"Code1007", closing(1007), "close(1007) "},
        Case{"Code1011", closing(1011), "close(1011) "}, Case{"Code1012", closing(1012), "close(1012) "},
        Case{"Code3000", closing(3000), "close(3000) "}, Case{"Code4999", closing(4999), "close(4999) "},
        Case{"Code0", closing(0), BAD_CODE}, Case{"Code999", closing(999), BAD_CODE},
        Case{"Code1004", closing(1004), BAD_CODE}, Case{"Code1005", closing(1005), BAD_CODE},
        Case{"Code1006", closing(1006), BAD_CODE}, Case{"Code1015", closing(1015), BAD_CODE},
        Case{"Code1016", closing(1016), BAD_CODE}, Case{"Code2999", closing(2999), BAD_CODE},
        Case{"Code5000", closing(5000), BAD_CODE}, Case{"Code65535", closing(65535), BAD_CODE}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    Limits, Decoding,
    testing::Values(Case{"AtTheLimit", text(std::string(LIMIT, 'x')), "text(70000 bytes) "},
                    Case{"OneAbove", header(0x81, LIMIT + 1), TOO_BIG, 10},
                    Case{"Exabytes", "\x82\x7F" + number(0x7FFFFFFFFFFFFFFF, 8), TOO_BIG, 10},
                    Case{"FragmentsTogether", frame(0x01, std::string(LIMIT, 'x')) + frame(0x80, "y"),
                         TOO_BIG, LIMIT + 12},
                    Case{"LimitIsPerMessage", text(std::string(LIMIT - 1, 'x')) + text("ab"),
                         "text(69999 bytes) text(ab) "}),
    nameOf);

TEST(DecoderMemory, NothingIsSpentOnAnAnnouncedLength) {
    FrameDecoder decoder;
    EXPECT_EQ(feed(decoder, header(0x82, Nubo::Net::TransportLimits::MAX_MESSAGE_BYTES) + "abc"), "");
    EXPECT_TRUE(decoder.inFrame());
    EXPECT_LT(decoder.takeMessage().capacity(), 100U);
}

TEST(DecoderState, InFrameTellsWhetherAFrameHasBegun) {
    FrameDecoder decoder;
    EXPECT_FALSE(decoder.inFrame());
    feed(decoder, "\x01");
    EXPECT_TRUE(decoder.inFrame());
    feed(decoder,
         "\x01"
         "a");
    EXPECT_FALSE(decoder.inFrame()) << "between fragments there is no frame";
}

}  // namespace
