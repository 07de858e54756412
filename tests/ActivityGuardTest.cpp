#include <Nubo/Client/DataMessages/WebSocketClosedMessage.h>
#include <Nubo/Client/DataMessages/WebSocketDataAvailableMessage.h>
#include <Nubo/Client/DataMessages/WebSocketOpenedMessage.h>
#include <Nubo/Client/UserStory.h>
#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <future>

#include "LogCapture.h"

using namespace Nubo::Client;
using Guard = MultiThreadingObject::MultiThreadingObjectLockGuard;
using namespace std::chrono_literals;

namespace {

using Calls = std::vector<std::string>;
using Messages = std::vector<Poco::AutoPtr<Nubo::Util::DataMessageBase>>;

/// Notes what its messages call, in a list that outlives it.
class Handler : public IWebSocketOpenedHandlerImpl,
                public IWebSocketClosedHandlerImpl,
                public IWebSocketDataAvailableImpl {
public:
    explicit Handler(Calls& calls) : _calls(calls) {}
    virtual ~Handler() = default;

    void WebSocketOpenedHandlerSync() override { _calls.push_back("opened"); }
    void WebSocketClosedHandlerSync(const Nubo::Net::WebsocketEventPayload& payload) override {
        _calls.push_back("closed " + payload.Reason);
    }
    void WebSocketDataAvailableHandlerSync(const Poco::JSON::Object::Ptr& data) override {
        _calls.push_back("data " + data->getValue<std::string>("k"));
    }

private:
    Calls& _calls;
};

/// One that tells its messages when it is gone.
struct GuardedHandler : MultiThreadingObject, Handler {
    using Handler::Handler;
};

Nubo::Net::WebSocketProxy noConnection(nullptr, nullptr);

/// One message of each kind; what they were made of is gone afterwards.
Messages messagesFor(Handler& handler) {
    Poco::JSON::Object::Ptr data(new Poco::JSON::Object);
    data->set("k", "v");
    return {new WebSocketOpenedMessage(&handler),
            new WebSocketClosedMessage(&handler, {noConnection, "end of stream"}),
            new WebSocketDataAvailableMessage(&handler, data)};
}

bool entered(MultiThreadingObject& object) {
    Guard guard(&object);
    return guard.tryEnter();
}

}  // namespace

TEST(ActivityGuardTest, EntersWhileOpenAndIsRefusedWhileDisposing) {
    MultiThreadingObject object;
    for (int cycle = 0; cycle < 2; ++cycle) {
        EXPECT_FALSE(object.Disposing());
        EXPECT_TRUE(entered(object));
        object.shutdown();
        EXPECT_TRUE(object.Disposing());
        EXPECT_FALSE(entered(object));
        { Guard neverAsked(&object); }
        EXPECT_FALSE(object.hasActivities());  // guards that did not enter leave nothing
        object.startup();
    }
}

TEST(ActivityGuardTest, ShutdownWaitsForNestedActivitiesAndLetsNewOnesInMeanwhile) {
    MultiThreadingObject object;
    auto outer = std::make_unique<Guard>(&object);
    auto inner = std::make_unique<Guard>(&object);
    ASSERT_TRUE(outer->tryEnter());
    ASSERT_TRUE(inner->tryEnter());
    auto drained = std::async(std::launch::async, [&] { object.shutdown(); });
    inner.reset();
    EXPECT_EQ(std::future_status::timeout, drained.wait_for(100ms));
    EXPECT_FALSE(object.Disposing());
    EXPECT_TRUE(entered(object));
    outer.reset();
    ASSERT_EQ(std::future_status::ready, drained.wait_for(30s));
    EXPECT_FALSE(entered(object));
}

TEST(ActivityGuardTest, NobodyIsInsideOnceShutdownHasReturned) {
    MultiThreadingObject object;
    std::atomic<int> inside{0};
    std::atomic<bool> stop{false};
    const auto work = [&] {
        for (; !stop; std::this_thread::yield()) {
            Guard guard(&object);
            if (!guard.tryEnter()) continue;
            ++inside;
            std::this_thread::yield();
            --inside;
        }
    };
    std::thread workers[] = {std::thread(work), std::thread(work)};
    for (int cycle = 0; cycle < 10; ++cycle) {
        object.shutdown();
        EXPECT_EQ(0, inside);
        object.startup();
        while (!object.hasActivities()) std::this_thread::yield();
    }
    stop = true;
    for (std::thread& worker : workers) worker.join();
}

TEST(ActivityGuardTest, ShutdownFromInsideAnOwnActivityIsReported) {
    LogCapture log;
    MultiThreadingObject object;
    std::unique_ptr<Guard> activity;
    std::thread mistaken([&] {
        activity = std::make_unique<Guard>(&object);
        activity->tryEnter();
        object.shutdown();
    });
    EXPECT_TRUE(log.waitFor("Error: MultiThreadingObject::shutdown: called from inside an activity"));
    activity.reset();  // the activity ends from outside, so that the thread comes back
    mistaken.join();
    object.shutdown();  // from outside an activity nothing is reported
    ASSERT_EQ(1u, log.messages().size());
    EXPECT_EQ(Poco::Message::PRIO_ERROR, log.messages()[0].getPriority());
}

TEST(DataMessagesTest, CallTheirHandler) {
    Calls calls;
    Handler bare(calls);
    GuardedHandler guarded(calls);
    for (Handler* handler : {&bare, static_cast<Handler*>(&guarded)}) {
        calls.clear();
        for (auto& message : messagesFor(*handler)) {
            EXPECT_EQ(1, message->referenceCount());
            message->processData();
            message->destroyData();
        }
        EXPECT_EQ((Calls{"opened", "closed end of stream", "data v"}), calls);
    }
}

TEST(DataMessagesTest, DoNothingOnceTheirHandlerIsGone) {
    Calls calls;
    auto handler = std::make_unique<GuardedHandler>(calls);
    Messages messages = messagesFor(*handler);
    handler.reset();
    for (auto& message : messages) message->processData();
    EXPECT_TRUE(calls.empty());
}

TEST(DataMessagesTest, ShareTheirDataAndReleaseIt) {
    Calls calls;
    Handler handler(calls);
    const Poco::JSON::Object::Ptr data(new Poco::JSON::Object);
    Poco::AutoPtr<WebSocketDataAvailableMessage> message(new WebSocketDataAvailableMessage(&handler, data));
    EXPECT_EQ(2, data.referenceCount());
    message = nullptr;
    EXPECT_EQ(1, data.referenceCount());
}

TEST(DataMessagesTest, RefuseANullHandler) {
    EXPECT_THROW(new WebSocketOpenedMessage(nullptr), Poco::NullPointerException);
    EXPECT_THROW(new WebSocketClosedMessage(nullptr, {noConnection, ""}), Poco::NullPointerException);
    EXPECT_THROW(new WebSocketDataAvailableMessage(nullptr, nullptr), Poco::NullPointerException);
}

TEST(UserStoryTest, IdsCountDownFromTheTopAndWrap) {
    UserStory first;
    UserStory second;
    EXPECT_EQ(65534, first.getStoryId());
    EXPECT_EQ(65533, second.getStoryId());
    EXPECT_EQ(65532, second.getNextStoryId());
    int taken = 1;
    while (first.getNextStoryId() != 0) ++taken;
    EXPECT_EQ(65532, taken);
    EXPECT_EQ(65535, first.getNextStoryId());  // the next story begins at the top again
    EXPECT_EQ(65534, first.getStoryId());
    for (const bool started : {false, true, false}) {
        EXPECT_EQ(started, first.IsStarted());
        for (int i = 0; i < 2; ++i) started ? first.shutdown() : first.startup();
    }
}
