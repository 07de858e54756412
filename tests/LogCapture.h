#ifndef TESTS_LOGCAPTURE_H
#define TESTS_LOGCAPTURE_H

#include <Logging/Log.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <vector>

/// Records what goes to Logging::Log::Logger() while it lives, at `level`; afterwards the level is as before.
/// Of nested captures the innermost records. Other threads may log at any time, also while a capture comes or
/// goes: they all meet one channel, which stays on the logger (POCO does not guard a change).
class LogCapture {
    using Guard = std::lock_guard<std::mutex>;

public:
    explicit LogCapture(Poco::Message::Priority level = Poco::Message::PRIO_DEBUG) {
        Poco::Logger& logger = Logging::Log::Logger();
        if (logger.getChannel().get() != &recorder()) logger.setChannel({&recorder(), true});
        const Guard guard(recorder().mutex);
        recorder().captures.push_back(this);
        _previousLevel = logger.getLevel();
        logger.setLevel(level);
    }
    ~LogCapture() {
        Logging::Log::Logger().setLevel(_previousLevel);
        const Guard guard(recorder().mutex);
        recorder().captures.remove(this);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// All messages so far, in their order.
    std::vector<Poco::Message> messages() const {
        const Guard guard(recorder().mutex);
        return _messages;
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> texts;
        for (const auto& message : messages()) texts.push_back(message.getText());
        return texts;
    }
    /// How many messages have exactly this text.
    std::size_t count(const std::string& text) const {
        const auto all = lines();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
    }
    /// Whether a message has this text in it.
    bool contains(const std::string& part) const { return waitFor(part, std::chrono::seconds(0)); }

    /// Waits until a message has this text in it; false when none has within `deadline`.
    bool waitFor(const std::string& part, std::chrono::seconds deadline = std::chrono::seconds(20)) const {
        std::unique_lock<std::mutex> lock(recorder().mutex);
        return recorder().changed.wait_for(lock, deadline, [&] {
            return std::any_of(_messages.begin(), _messages.end(), [&](const Poco::Message& message) {
                return message.getText().find(part) != std::string::npos;
            });
        });
    }
    void clear() {
        const Guard guard(recorder().mutex);
        _messages.clear();
    }

private:
    struct Recorder : public Poco::Channel {
        void log(const Poco::Message& message) override {
            const Guard guard(mutex);
            if (!captures.empty()) captures.back()->_messages.push_back(message);
            changed.notify_all();
        }
        std::mutex mutex;
        std::condition_variable changed;
        std::list<LogCapture*> captures;  // guarded by mutex, the innermost last
    };

    /// Never released, since lines may still come while static objects are destroyed.
    static Recorder& recorder() {
        static Recorder* const instance = new Recorder;
        return *instance;
    }

    int _previousLevel;
    std::vector<Poco::Message> _messages;  // guarded by the recorder's mutex
};

#endif
