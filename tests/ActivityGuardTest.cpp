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

bool entered(MultiThreadingObject& object) {
    Guard guard(&object);
    return guard.tryEnter();
}

/// Notes what its messages call.
struct Handler : IWebSocketOpenedHandlerImpl, IWebSocketClosedHandlerImpl, IWebSocketDataAvailableImpl {
    virtual ~Handler() = default;
    void WebSocketOpenedHandlerSync() override { calls += "opened, "; }
    void WebSocketClosedHandlerSync(const Nubo::Net::WebsocketEventPayload& payload) override {
        calls += payload.Reason + ", ";
    }
    void WebSocketDataAvailableHandlerSync(const Poco::JSON::Object::Ptr& data) override {
        calls += data->getValue<std::string>("k");
    }
    std::string calls;
};

}  // namespace

TEST(ActivityGuardTest, ShutdownWaitsForNestedActivitiesAndLetsNewOnesInMeanwhile) {
    MultiThreadingObject object;
    auto outer = std::make_unique<Guard>(&object), inner = std::make_unique<Guard>(&object);
    ASSERT_TRUE(outer->tryEnter() && inner->tryEnter());
    auto drained = std::async(std::launch::async, [&] { object.shutdown(); });
    inner.reset();
    EXPECT_EQ(std::future_status::timeout, drained.wait_for(100ms));
    EXPECT_FALSE(object.Disposing());
    EXPECT_TRUE(entered(object));
    outer.reset();
    ASSERT_EQ(std::future_status::ready, drained.wait_for(30s));
    EXPECT_TRUE(object.Disposing());
    EXPECT_FALSE(entered(object));
    EXPECT_FALSE(object.isInOwnActivity());  // a guard that did not enter leaves nothing
    object.startup();
    EXPECT_TRUE(entered(object));
}

TEST(ActivityGuardTest, NobodyIsInsideOnceShutdownHasReturned) {
    MultiThreadingObject object;
    std::atomic<bool> inside{false}, stop{false};
    std::atomic<int> entries{0};
    const auto worker = std::async(std::launch::async, [&] {
        for (; !stop; std::this_thread::yield()) {
            Guard guard(&object);
            if (!guard.tryEnter()) continue;
            inside = true;
            ++entries;
            std::this_thread::yield();
            inside = false;
        }
    });
    for (int cycle = 0; cycle < 20; ++cycle) {
        object.shutdown();
        EXPECT_FALSE(inside);
        const int before = entries;
        object.startup();
        while (entries == before) std::this_thread::yield();
    }
    stop = true;
}

TEST(ActivityGuardTest, ShutdownFromInsideAnOwnActivityIsReported) {
    const LogCapture log;
    MultiThreadingObject object;
    std::unique_ptr<Guard> activity;
    const auto mistaken = std::async(std::launch::async, [&] {
        activity = std::make_unique<Guard>(&object);
        activity->tryEnter();
        object.shutdown();
    });
    EXPECT_TRUE(log.waitFor("Error: MultiThreadingObject::shutdown: called from inside an activity"));
    activity.reset();  // the activity ends from outside, so that the thread comes back
    mistaken.wait();
    object.shutdown();  // from outside an activity nothing is reported
    EXPECT_EQ(1U, log.lines().size());
}

TEST(DataMessagesTest, CallTheirHandlerAndHoldNothingAfterwards) {
    struct : MultiThreadingObject, Handler {
    } guarded;  // one that tells its messages when it is gone
    Handler bare;
    Nubo::Net::WebSocketProxy noConnection(nullptr, nullptr);
    Poco::JSON::Object::Ptr data(new Poco::JSON::Object);
    data->set("k", "v");
    for (Handler* handler : {&bare, static_cast<Handler*>(&guarded)}) {
        const Poco::AutoPtr<Nubo::Util::DataMessageBase> messages[] = {
            new WebSocketOpenedMessage(handler),
            new WebSocketClosedMessage(handler, {noConnection, "end of stream"}),
            new WebSocketDataAvailableMessage(handler, data)};
        for (auto message : messages) {
            message->processData();
            message->destroyData();
            EXPECT_EQ(2, message->referenceCount());  // here and in the table
        }
        EXPECT_EQ("opened, end of stream, v", handler->calls);
    }
    EXPECT_EQ(1, data.referenceCount());
    EXPECT_THROW(new WebSocketOpenedMessage(nullptr), Poco::NullPointerException);
    EXPECT_THROW(new WebSocketClosedMessage(nullptr, {noConnection, ""}), Poco::NullPointerException);
    EXPECT_THROW(new WebSocketDataAvailableMessage(nullptr, data), Poco::NullPointerException);
}

TEST(UserStoryTest, IdsCountDownFromTheTop) {
    UserStory first, second;
    EXPECT_EQ(65534, first.getStoryId());
    EXPECT_EQ(65533, second.getStoryId());
    EXPECT_EQ(65532, second.getNextStoryId());
}
