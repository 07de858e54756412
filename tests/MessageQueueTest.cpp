#include <Nubo/Client/MessageQueue.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <memory>
#include <thread>

#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using Nubo::Client::MessageQueue;
using testing::ElementsAre;

constexpr std::chrono::seconds DEADLINE{30};
constexpr const char* FULL = "Warning: MessageQueue::enqueueDataMessage: 2 messages wait, more are refused";
constexpr const char* NESTED = "Error: MessageQueue::dispatch: called while a message runs: runs nothing";

/// Writes its name when it is run, "~" when it is told that it will be dropped, "." when it is gone.
struct NamedMessage : Nubo::Util::DataMessageBase {
    NamedMessage(std::string& itsTrace, char itsName) : trace(itsTrace), name(itsName) {}
    ~NamedMessage() override { trace += '.'; }
    void processData() override { trace += name; }
    void destroyData() override { trace += '~'; }
    std::string& trace;
    const char name;
};

class MessageQueueTest : public testing::Test {
protected:
    bool enqueue(char name) { return queue.enqueueDataMessage(new NamedMessage(trace, name)); }
    void post(char name) {
        EXPECT_TRUE(queue.post([this, name] { trace += name; }));
    }
    /// Whether a loop is told that messages are there.
    bool isReadable() {
        pollfd watched{queue.descriptor(), POLLIN, 0};
        return ::poll(&watched, 1, 0) == 1 && watched.revents == POLLIN;
    }

    std::string trace;
    LogCapture log;
    MessageQueue queue;
};

TEST_F(MessageQueueTest, RunsInOrderOnceAndReleases) {
    for (const char name : {'a', 'b'}) EXPECT_TRUE(enqueue(name));
    post('c');
    EXPECT_TRUE(queue.wait(0ms));
    EXPECT_EQ(3U, queue.dispatch());
    EXPECT_EQ("a~.b~.c", trace);
    EXPECT_FALSE(queue.wait(1ms));
    EXPECT_EQ(0U, queue.dispatch());
    EXPECT_EQ(3U, queue.highest());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MessageQueueTest, RunsTheRestWhenOneThrows) {
    queue.post([] { throw Poco::RuntimeException("first"); });
    queue.post([] { throw std::runtime_error("second"); });
    queue.post([] { throw 3; });
    queue.post(nullptr);
    post('a');
    EXPECT_EQ(5U, queue.dispatch());
    EXPECT_EQ("a", trace);
    const std::string line = "Error: MessageQueue::dispatch - ";
    EXPECT_THAT(log.lines(),
                ElementsAre(line + "exception: Runtime exception: first", line + "exception: second",
                            line + "unknown exception", line + "exception: bad_function_call"));
}

TEST_F(MessageQueueTest, RunsUpToANumberOrATime) {
    for (const char name : {'a', 'b', 'c', 'd', 'e'}) post(name);
    EXPECT_EQ(2U, queue.dispatch(2));
    EXPECT_EQ(1U, queue.dispatch(0ms));  // one at least: a loop that gives it no time gets on as well
    EXPECT_EQ(2U, queue.dispatch(std::chrono::milliseconds::max()));
    EXPECT_EQ("abcde", trace);
}

TEST_F(MessageQueueTest, IsReadableExactlyWhileMessagesAreThere) {
    post('a');
    for (int round = 0; round < 2; ++round) {  // the descriptor is made with a message there, then kept
        EXPECT_TRUE(isReadable());
        post('b');
        EXPECT_EQ(1U, queue.dispatch(1));
        EXPECT_TRUE(isReadable());
        queue.post([this] { EXPECT_FALSE(isReadable()); });  // the last one has been taken out
        queue.dispatch();
        EXPECT_FALSE(isReadable());
        post('c');
    }
    queue.close();
    EXPECT_FALSE(isReadable());
}

TEST_F(MessageQueueTest, AMessageMayPostAndCloseButNotRunOthers) {
    queue.post([this] {
        post('b');
        EXPECT_EQ(0U, queue.dispatch());
        EXPECT_FALSE(queue.dispatchUntil([] { return false; }, DEADLINE));  // at once
        trace += 'a';
    });
    EXPECT_EQ(1U, queue.dispatch());  // what comes meanwhile is left for the next call
    EXPECT_EQ("a", trace);
    EXPECT_THAT(log.lines(), ElementsAre(NESTED));
    queue.post([this] { queue.close(); });
    enqueue('c');
    EXPECT_EQ(2U, queue.dispatch());
    EXPECT_EQ("ab~.", trace);
}

TEST_F(MessageQueueTest, RefusesAfterCloseAndDropsWhatIsLeft) {
    enqueue('a');
    const auto held = std::make_shared<int>();
    queue.post([held] {});
    queue.close();
    queue.close();
    EXPECT_EQ("~.", trace);
    EXPECT_EQ(1, held.use_count());
    EXPECT_FALSE(enqueue('b'));
    EXPECT_FALSE(queue.post([] {}));
    EXPECT_EQ("~.~.", trace);
    EXPECT_EQ(2U, queue.refused());
    EXPECT_TRUE(queue.isClosed());
    EXPECT_FALSE(queue.wait(DEADLINE));  // at once, as is the next
    EXPECT_FALSE(queue.dispatchUntil([] { return false; }, DEADLINE));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MessageQueueTest, RefusesAtItsBoundAndSaysSoOnce) {
    MessageQueue bounded(2);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(i < 2, bounded.post([] {})) << i;
        EXPECT_EQ(1U, bounded.dispatch(1));
        EXPECT_TRUE(bounded.post([] {}));
        EXPECT_FALSE(bounded.post([] {}));  // full again, but never empty: no line
        EXPECT_EQ(2U, bounded.dispatch());
    }
    EXPECT_THAT(log.lines(), ElementsAre(FULL, FULL));
    EXPECT_EQ(8U, bounded.refused());
    EXPECT_EQ(2U, bounded.highest());
}

TEST_F(MessageQueueTest, WaitingEndsByAMessageAndByClosing) {
    constexpr auto EVER = std::chrono::milliseconds::max();
    std::thread poster([this] { post('a'); });
    EXPECT_TRUE(queue.wait(EVER));
    poster.join();
    post('b');
    EXPECT_TRUE(queue.dispatchUntil([this] { return trace == "a"; }, EVER));
    EXPECT_FALSE(queue.dispatchUntil([this] { return trace == "c"; }, 1ms));
    EXPECT_EQ("ab", trace);
    std::thread closer([this] { queue.close(); });
    EXPECT_FALSE(queue.wait(EVER));
    closer.join();
}

// Each way of waiting; nothing is lost, run twice or run in another order than one thread posted it.
TEST_F(MessageQueueTest, RunsWhatManyThreadsPost) {
    constexpr int THREADS = 4, EACH = 5000;
    std::vector<int> next(THREADS);
    int done = 0;
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < EACH; ++i) {
                queue.post([&, t, i] {
                    EXPECT_EQ(i, next[t]++);
                    ++done;
                });
            }
        });
    }
    pollfd watched{queue.descriptor(), POLLIN, 0};
    while (done < THREADS * EACH) {
        ASSERT_EQ(1, ::poll(&watched, 1, std::chrono::milliseconds(DEADLINE).count()));
        ASSERT_GT(queue.dispatch(100), 0U);  // readable: there is something
        ASSERT_TRUE(done == THREADS * EACH || queue.wait(DEADLINE));
    }
    for (auto& thread : threads) thread.join();
    EXPECT_FALSE(isReadable());
    EXPECT_EQ(0U, queue.pending());
}

}  // namespace
