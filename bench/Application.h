#ifndef BENCH_APPLICATION_H
#define BENCH_APPLICATION_H

#include <Logging/Log.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>

#include <chrono>
#include <cstdint>

/// Waits for a message and runs it; false when none comes in time.
inline bool runNext(Nubo::Client::MessageQueue& queue, long milliseconds) {
    return queue.wait(std::chrono::milliseconds(milliseconds)) && queue.dispatch(1) == 1;
}

/// Runs messages as they come until done() is true; false when none comes in time.
template <typename Done>
bool runUntil(Nubo::Client::MessageQueue& queue, const Done& done, long milliseconds) {
    while (!done()) {
        if (!runNext(queue, milliseconds)) return done();
    }
    return true;
}

constexpr std::uint32_t PING_AFTER_MS = 60000;

/// What an application of usual size configures. Info logging is off (POCO starts with it on).
inline Nubo::Client::ClientLib::ClientLibParameters usualParameters() {
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_WARNING);
    return {"bench", PING_AFTER_MS, true, 3, 10, 5, 3, 60, 10, 4, 50};
}

#endif
