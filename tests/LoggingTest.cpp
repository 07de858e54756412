#include <Logging/LogLine.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <locale>
#include <set>
#include <thread>

#include "LogCapture.h"

namespace {

using Lines = std::vector<std::string>;
using Poco::Message;

TEST(LogLine, WritesWordItemsPriorityAndPosition) {
    const LogCapture log;
    const int line = __LINE__ + 1;
    ZOL_LOG_ERROR("f: " << 1);
    ZOL_LOG_WARNING("" << std::string());
    ZOL_LOG_INFO(std::string("x") << true);
    ZOL_LOG_DEBUG("y" << std::pair<int, int>(7, 8).second);

    EXPECT_EQ(log.lines(), (Lines{"Error: f: 1", "Warning: ", "Info: x1", "Debug: y8"}));
    const std::vector<Message> messages = log.messages();
    const Message::Priority priorities[] = {Message::PRIO_ERROR, Message::PRIO_WARNING,
                                            Message::PRIO_INFORMATION, Message::PRIO_DEBUG};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(messages[i].getPriority(), priorities[i]);
        EXPECT_STREQ(messages[i].getSourceFile(), __FILE__);
        EXPECT_EQ(messages[i].getSourceLine(), line + i);
        EXPECT_EQ(messages[i].getSource(), "ZOL");
    }
}

TEST(LogLine, InactiveLevelEvaluatesNothing) {
    int evaluated = 0;
    const auto item = [&] { return ++evaluated; };
    const auto logAll = [&] {
        ZOL_LOG_ERROR(item());
        ZOL_LOG_WARNING(item());
        ZOL_LOG_INFO(item());
        ZOL_LOG_DEBUG(item());
    };
    const std::pair<Message::Priority, int> active[] = {
        {Message::PRIO_CRITICAL, 0}, {Message::PRIO_ERROR, 1},       {Message::PRIO_WARNING, 2},
        {Message::PRIO_NOTICE, 2},   {Message::PRIO_INFORMATION, 3}, {Message::PRIO_DEBUG, 4}};
    for (const auto& [level, count] : active) {
        const LogCapture log(level);
        evaluated = 0;
        logAll();
        EXPECT_EQ(evaluated, count) << "level " << level;
        EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(count)) << "level " << level;
    }
}

TEST(LogLine, IsOneStatement) {
    const LogCapture log;
    for (const bool first : {true, false}) {
        if (first)
            ZOL_LOG_INFO("then");
        else
            ZOL_LOG_INFO("else");
    }
    EXPECT_EQ(log.lines(), (Lines{"Info: then", "Info: else"}));
}

TEST(LogLine, OneEndlIsOneMessage) {
    const LogCapture log;
    const std::string forged = "200 OK\r\nError: forged\n";
    ZOL_LOG_INFO("a -> " << forged);
    ZOL_LOG_ERROR("first" << std::endl << ", second: " << std::endl << "third\n");
    ZOL_LOG_DEBUG("" << std::endl << std::endl << "flushed" << std::flush << " late");
    EXPECT_EQ(log.lines(), (Lines{"Info: a -> 200 OK\\r\\nError: forged\\n", "Error: first",
                                  ", second: ", "third\\n", "Debug: ", "", "flushed late"}));
}

TEST(LogStream, DropsTextWithoutEndl) {
    const LogCapture log;
    Logging::LogStream(Logging::Log::Logger(), Message::PRIO_ERROR) << "never" << std::flush;
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(LogStream, CopyIsANewStreamOnTheSameLogger) {
    const LogCapture log;
    Logging::LogStream original("ZOL", Message::PRIO_WARNING);
    original << "original";
    Logging::LogStream copy(original);
    Logging::LogStream moved(std::move(copy));
    moved << "moved" << std::endl;
    original.error() << "!" << std::endl;  // the operations of the base class still count
    ASSERT_EQ(log.lines(), (Lines{"moved", "original!"}));
    EXPECT_EQ(log.messages()[0].getPriority(), Message::PRIO_WARNING);
    EXPECT_EQ(log.messages()[1].getPriority(), Message::PRIO_ERROR);
}

TEST(LogStream, IgnoresTheGlobalLocale) {
    struct Grouping : std::numpunct<char> {
        std::string do_grouping() const override { return "\3"; }
    };
    const LogCapture log;
    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    ZOL_LOG_INFO(65535);
    std::locale::global(previous);
    EXPECT_EQ(log.lines(), Lines{"Info: 65535"});
}

TEST(LogStream, ThreadsDoNotMixTheirLines) {
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    const LogCapture log;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < LINES; ++i) ZOL_LOG_INFO("thread " << t << " line " << i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const Lines lines = log.lines();
    std::set<std::string> expected;
    for (int i = 0; i < THREADS * LINES; ++i) {
        expected.insert("Info: thread " + std::to_string(i / LINES) + " line " + std::to_string(i % LINES));
    }
    EXPECT_EQ(lines.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()), expected);
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
