#ifndef BENCH_APPLICATION_H
#define BENCH_APPLICATION_H

#include <Logging/Log.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/IMessageSyncInterface.h>
#include <Nubo/Util/DataMessageBase.h>
#include <Poco/NotificationQueue.h>

#include <cstdint>

/// A message sink like the one in README.md.
class Inbox : public Nubo::Client::IMessageSyncInterface {
public:
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        _queue.enqueueNotification(Poco::Notification::Ptr(message));  // takes over the one reference
        return true;
    }

    /// Waits for a message and runs it; false when none comes in time.
    bool runNext(long milliseconds) {
        Poco::AutoPtr<Poco::Notification> next(_queue.waitDequeueNotification(milliseconds));
        if (next) static_cast<Nubo::Util::DataMessageBase&>(*next).processData();
        return !next.isNull();
    }

    /// Runs messages as they come until done() is true; false when none comes in time.
    template <typename Done>
    bool runUntil(const Done& done, long milliseconds) {
        while (!done()) {
            if (!runNext(milliseconds)) return done();
        }
        return true;
    }

private:
    Poco::NotificationQueue _queue;
};

constexpr std::uint32_t PING_AFTER_MS = 60000;

/// What an application of usual size configures. Info logging is off (POCO starts with it on).
inline Nubo::Client::ClientLib::ClientLibParameters usualParameters() {
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
    return {"bench", PING_AFTER_MS, true, 3, 10, 5, 3, 60, 10, 4, 50};
}

#endif
