#include <Logging/Escaped.h>
#include <Logging/LineLimit.h>
#include <Logging/LogLine.h>
#include <Logging/Shortened.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <locale>
#include <sstream>

#include "LogCapture.h"

namespace {

using Lines = std::vector<std::string>;
using Poco::Message;

TEST(LogLine, WritesWordItemsPriorityAndPositionInAnyGlobalLocale) {
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    const LogCapture log;
    const int line = __LINE__ + 1;
    ZOL_LOG_ERROR("f: " << 65535);
    ZOL_LOG_WARNING("" << std::string());
    ZOL_LOG_INFO(std::string("x") << true);
    ZOL_LOG_DEBUG("y" << std::pair<int, int>(7, 8).second);
    std::locale::global(previous);
    std::string priorities;
    for (const Message& message : log.messages()) {
        EXPECT_STREQ(message.getSourceFile(), __FILE__);
        EXPECT_EQ(message.getSourceLine(), line + static_cast<int>(priorities.size()));
        EXPECT_EQ(message.getSource(), "ZOL");
        priorities += " FCEWNIDT"[message.getPriority()];
    }
    EXPECT_EQ(priorities, "EWID");
    EXPECT_EQ(log.lines(), (Lines{"Error: f: 65535", "Warning: ", "Info: x1", "Debug: y8"}));
}

TEST(LogLine, InactiveLevelEvaluatesNothing) {
    std::size_t active = 0;
    for (const auto level : {Message::PRIO_CRITICAL, Message::PRIO_ERROR, Message::PRIO_WARNING,
                             Message::PRIO_INFORMATION, Message::PRIO_DEBUG}) {
        const LogCapture log(level);
        std::size_t evaluated = 0;
        ZOL_LOG_ERROR(++evaluated);
        ZOL_LOG_WARNING(++evaluated);
        ZOL_LOG_INFO(++evaluated);
        ZOL_LOG_DEBUG(++evaluated);
        EXPECT_EQ(log.lines().size(), active) << "level " << level;
        EXPECT_EQ(evaluated, active++) << "level " << level;
    }
}

TEST(LogLine, NothingIsEvaluatedWithoutAChannelWhoeverSetsIt) {
    const LogCapture log;
    Poco::Logger& logger = Logging::Log::Logger();
    const auto channel = logger.getChannel();
    int evaluated = 0;
    const auto setters = {
        std::function<void(const Poco::Channel::Ptr&)>([&](const auto& to) { logger.setChannel(to); }),
        {[](const auto& to) { Poco::Logger::setChannel("", to); }}};  // root and below
    for (const auto& set : setters) {
        const int before = evaluated;
        set(nullptr);
        ZOL_LOG_ERROR(++evaluated);
        EXPECT_FALSE(Logging::Log::IsLogLevelActive(Message::PRIO_FATAL));
        set(channel);
        ZOL_LOG_DEBUG(++evaluated);
        EXPECT_EQ(evaluated, before + 1);
    }
    Poco::Logger::root().setChannel(nullptr);
    EXPECT_EQ(log.lines(), (Lines{"Debug: 1", "Debug: 2"}));
}

TEST(LogStream, OneEndlIsOneMessageAndACopyBeginsAnew) {
    const LogCapture log;
    const std::string forged = "200 OK\r\nError: forged\n";
    if (forged.empty())
        ZOL_LOG_INFO("a call is one statement");
    else
        ZOL_LOG_INFO("a -> " << forged);
    ZOL_LOG_ERROR("first" << std::endl << ", second: " << std::endl << "third\n");
    ZOL_LOG_DEBUG("" << std::endl << std::endl << "flushed" << std::flush << " late");
    Logging::LogStream original("ZOL", Message::PRIO_WARNING);
    original << "original" << std::flush;
    Logging::LogStream(original) << "copy" << std::endl << "dropped" << std::flush;
    EXPECT_EQ(log.messages().back().getPriority(), Message::PRIO_WARNING);
    original.error() << "!" << std::endl;  // the operations of the base class still count
    EXPECT_EQ(log.messages().back().getPriority(), Message::PRIO_ERROR);
    EXPECT_EQ(log.lines(), (Lines{"Info: a -> 200 OK\\r\\nError: forged\\n", "Error: first", ", second: ",
                                  "third\\n", "Debug: ", "", "flushed late", "copy", "original!"}));
}

TEST(LogStream, EscapesWhatCouldDriveATerminal) {
    using Row = std::array<std::string, 3>;  // a text; as in a line; as in a JSON text
    const std::vector<Row> table{
        {"plain ~ \\ \"", "plain ~ \\ \"", "plain ~ \\ \""},
        {"\tk\u00e4se \u20ac \U0001F600 \u00a0", "\tk\u00e4se \u20ac \U0001F600 \u00a0",
         "\tk\u00e4se \u20ac \U0001F600 \u00a0"},
        {"a\r\nb", "a\\r\\nb", "a\r\nb"},
        {std::string("\0\a\x1B[2J\x1F\x7F", 8), "\\x00\\x07\\x1B[2J\\x1F\\x7F",
         "\\u0000\\u0007\\u001B[2J\\u001F\\u007F"},
        {"\u0080x\u009B", "\\xC2\\x80x\\xC2\\x9B", "\\u0080x\\u009B"},
        {"\x9B\xFFz", "\\x9B\\xFFz", "\\\\x9B\\\\xFFz"},
        {"\xC0\xAF", "\\xC0\\xAF", "\\\\xC0\\\\xAF"},                  // overlong
        {"\xED\xA0\x80", "\\xED\\xA0\\x80", "\\\\xED\\\\xA0\\\\x80"},  // a surrogate
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80", "\\\\xF4\\\\x90\\\\x80\\\\x80"},
        {"\xE2\x82", "\\xE2\\x82", "\\\\xE2\\\\x82"},                    // cut by the end
        {"\xE2\x82\u20ac", "\\xE2\\x82\u20ac", "\\\\xE2\\\\x82\u20ac"},  // and by the next one
    };
    const LogCapture log;
    for (const auto& [text, line, json] : table) {
        ZOL_LOG_INFO(text);
        EXPECT_EQ(log.lines().back(), "Info: " + line);
        EXPECT_EQ(Logging::escapedJson(text), json);
    }
}

TEST(LogStream, EscapesInOnePass) {
    for (const char* const value : {"\n", "\x1B", "\xFF", "\xC2\x9B"}) {
        std::string text;
        while (text.size() < (1 << 24)) text += value;
        const auto start = std::chrono::steady_clock::now();
        const auto escaped = Logging::escaped(text);
        EXPECT_GE(escaped.size(), 2 * text.size());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

TEST(LineLimit, LeavesOutWhatIsMoreThanTwentyInASecondAndSaysHowMany) {
    using std::chrono::milliseconds;
    const LogCapture log;
    Logging::LineLimit limit;
    const auto start = Logging::LineLimit::Clock::now();
    const auto admitted = [&](Message::Priority priority, int attempts, milliseconds at) {
        int count = 0;
        for (int i = 0; i < attempts; ++i) count += limit.admit(priority, start + at);
        return count;
    };
    EXPECT_EQ(admitted(Message::PRIO_WARNING, 50, milliseconds(0)), 20);
    EXPECT_EQ(admitted(Message::PRIO_ERROR, 1, milliseconds(999)), 0);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(admitted(Message::PRIO_WARNING, 23, milliseconds(1000)), 20);
    limit.writeLeftOut();
    limit.writeLeftOut();
    EXPECT_EQ(admitted(Message::PRIO_DEBUG, 1, milliseconds(2000)), 1);
    EXPECT_EQ(log.lines(), (Lines{"Error: 31 further lines about bad data from this peer were left out",
                                  "Warning: 3 further lines about bad data from this peer were left out"}));
}

TEST(LineLimit, CountsAndEvaluatesOnlyLinesThatAreWritten) {
    const LogCapture log(Message::PRIO_ERROR);
    Logging::LineLimit limit;
    int evaluated = 0;
    for (int i = 0; i < 100; ++i) {
        if (i % 2 == 0)
            ZOL_LOG_WARNING_LIMITED(limit, ++evaluated);
        else
            ZOL_LOG_ERROR_LIMITED(limit, "value " << ++evaluated);
    }
    EXPECT_GE(evaluated, 20);
    EXPECT_LT(evaluated, 50);  // the loop takes far less than two seconds
    EXPECT_EQ(log.lines().at(19), "Error: value 20");
}

TEST(Shortened, CutsLongTextsBetweenCharacters) {
    const std::size_t limit = 16384;
    const auto head = [](std::size_t length) { return std::string(length, 'a'); };
    const std::string threeBytes = "\xE2\x82\xAC";  // the euro sign
    const std::vector<std::tuple<std::string, std::string>> texts{
        {"", ""},
        {head(limit), head(limit)},
        {head(limit + 1), head(limit) + " ... (cut, 16385 bytes in all)"},
        {head(limit - 1) + threeBytes, head(limit - 1) + " ... (cut, 16386 bytes in all)"},
        {head(limit - 3) + threeBytes + "b", head(limit - 3) + threeBytes + " ... (cut, 16385 bytes in all)"},
        {std::string(1 << 24, '\x80'), std::string(limit - 3, '\x80') + " ... (cut, 16777216 bytes in all)"}};
    for (const auto& [text, expected] : texts) {
        std::ostringstream out;
        out << Logging::shortened(text);
        EXPECT_EQ(out.str(), expected) << text.size();
    }
}

TEST(LogDeathTest, LogsDuringStaticDestruction) {
    struct ErrorOutput : Poco::Channel {
        void log(const Message& message) override { std::cerr << message.getText() << std::endl; }
    };
    const auto logAtTheEnd = [] {
        std::atexit([] { ZOL_LOG_ERROR("the end"); });  // runs behind all that is registered later
        Logging::Log::Logger().setChannel(new ErrorOutput);
        Poco::Logger::shutdown();
        std::exit(0);
    };
    EXPECT_EXIT(logAtTheEnd(), testing::ExitedWithCode(0), "Error: the end");
}

}  // namespace
