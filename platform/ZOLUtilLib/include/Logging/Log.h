#ifndef LOGGING_LOG_H
#define LOGGING_LOG_H

#include <Nubo/Export.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>

namespace Logging {

/// The one logger of the process that all lines of these libraries go through. It is the POCO logger named
/// "ZOL"; an application configures it with POCO's own means, for example
/// `Logging::Log::Logger().setChannel(channel)` and `.setLevel(Poco::Message::PRIO_INFORMATION)`. It starts
/// with the channel and level that POCO's root logger has at the first use.
///
/// Both operations may be called on any thread at any time, also while static objects are being destroyed:
/// the logger is created at the first use and is never released, whatever Poco::Logger::shutdown() and
/// destroy() do. Neither blocks, but for the first use in the process. POCO does not guard a logger's level
/// and channel: change them while nothing logs.
class ZOL_EXPORT Log {
public:
    Log() = delete;

    /// The logger, valid to the end of the process.
    static Poco::Logger& Logger();

    /// Whether a message of that priority would be written: follows the level and the channel that are set on
    /// Logger(); without a channel nothing is. Meant to stand before everything else that a line costs:
    /// inline, three loads for an inactive level once the logger is there, one call more for an active one.
    static bool IsLogLevelActive(Poco::Message::Priority priority) {
        Poco::Logger* const made = _logger.load(std::memory_order_acquire);
        const Poco::Logger& logger = made != nullptr ? *made : Logger();
        return logger.is(priority) && logger.getChannel();
    }

private:
    // Null before the first use. Initialised at compile time, so that static objects may log.
    static std::atomic<Poco::Logger*> _logger;
};

}  // namespace Logging

#endif
