#ifndef TESTS_TESTCLIENT_H
#define TESTS_TESTCLIENT_H

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Simulator/Platform.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "LogCapture.h"
#include "RefusingQueue.h"

/// A listener whose callbacks a test writes where it needs them.
struct ScriptedListener : Nubo::Client::ServiceListener {
    using Data = Nubo::Client::ServiceHandler::ServiceHandlerNotificationData_t;
    using ServiceListener::ServiceListener;
    void HandleMicroServicesAvailable(bool up) override { onState(up); }
    void HandleServiceHandlerNotification(const Data& data) override { onData(data); }

    std::function<void(bool)> onState = [](bool) {};
    std::function<void(const Data&)> onData = [](const Data&) {};
};

/// A simulated platform with the service "Media", and a client whose caller's thread is the test's.
class ClientTest : public testing::Test {
protected:
    static constexpr std::chrono::seconds DEADLINE{30};

    /// @param ping milliseconds of silence before a connection is pinged
    explicit ClientTest(uint32_t ping = 5000) : pingMs(ping) {
        media.setElement("tracks", "1", R"({"title":"none"})");
    }

    Nubo::Client::ServiceHandler::Ptr add(const std::string& name = "Media", bool autoReconnect = true) {
        return lib.addService(new Nubo::Client::ServiceHandler(name, &lib, &sink, pingMs, autoReconnect));
    }
    /// Starts the client and waits until "Media" is available.
    Nubo::Client::ServiceHandler::Ptr connect() {
        lib.startup();
        const auto handler = add();
        EXPECT_TRUE(eventually([&] { return handler->isAvailable(); }));
        return handler;
    }
    /// Runs messages until `condition` holds.
    testing::AssertionResult eventually(const std::function<bool()>& condition) {
        if (sink.dispatchUntil(condition, DEADLINE)) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not within the deadline";
    }

    const uint32_t pingMs;
    LogCapture log;
    Nubo::Simulator::Platform platform;
    Nubo::Simulator::Service& media = platform.addService("Media");
    RefusingQueue sink;
    // With short delays, so that the reconnect threads need no patience.
    Nubo::Client::ClientLib lib{&sink, {"test", pingMs, false, 3, 10, 5, 3, 60, 10, 4, 1}};
};

#endif
