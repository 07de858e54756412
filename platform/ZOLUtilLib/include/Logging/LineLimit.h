#ifndef LOGGING_LINELIMIT_H
#define LOGGING_LINELIMIT_H

#include <Logging/LogLine.h>
#include <Nubo/Export.h>
#include <Poco/Message.h>

#include <chrono>
#include <mutex>

namespace Logging {

/// Bounds the lines about bad data that one peer sends: LINES of them in a second, the rest are counted. The
/// first line of a later second is preceded by one that says how many were left out before it. A second
/// begins with the first line behind the end of the last one.
///
/// One for each connection, used by the macros below. Any thread; the lock inside is never held while a line
/// is written. Nothing throws.
class ZOL_EXPORT LineLimit {
public:
    using Clock = std::chrono::steady_clock;  ///< what a second is measured by

    static constexpr unsigned LINES = 20;  ///< in a second

    /// Whether the caller may write a line of that level now. Lines of an inactive level are not counted.
    /// Writes the line about those left out, when it is due.
    bool admit(Poco::Message::Priority priority, Clock::time_point now = Clock::now());

    /// Writes the line about those left out since the last such line, if there are any. For the owner, when
    /// the connection has ended; holding no lock.
    void writeLeftOut();

private:
    // What a line says about those that were left out: their number and the most severe level among them.
    struct LeftOut {
        unsigned long lines = 0;
        Poco::Message::Priority priority = Poco::Message::PRIO_WARNING;
    };

    std::mutex _mutex;
    // Guarded by _mutex.
    Clock::time_point _end{};  // of the present second
    unsigned _written = 0;     // in the present second
    LeftOut _leftOut;
};

}  // namespace Logging

/// As ZOL_LOG_ERROR(items) and ZOL_LOG_WARNING(items), within `limit`, a LineLimit. The items of a line that
/// is left out are not evaluated.
#define ZOL_LOG_ERROR_LIMITED(limit, ...) \
    ZOL_LOG_LINE_LIMITED(limit, ::Poco::Message::PRIO_ERROR, ZOL_LOG_ERROR, __VA_ARGS__)
#define ZOL_LOG_WARNING_LIMITED(limit, ...) \
    ZOL_LOG_LINE_LIMITED(limit, ::Poco::Message::PRIO_WARNING, ZOL_LOG_WARNING, __VA_ARGS__)

/// What the two above have in common; not for use elsewhere.
#define ZOL_LOG_LINE_LIMITED(limit, logPriority, writeLine, ...) \
    do {                                                         \
        if ((limit).admit(logPriority)) writeLine(__VA_ARGS__);  \
    } while (false)

#endif
