#include <Logging/Log.h>

namespace Logging {
namespace {

const char* const LOGGER_NAME = "ZOL";

/// The named logger with one reference that is never given back: POCO's own table may be emptied before the
/// last line is written.
Poco::Logger* keptLogger() {
    Poco::Logger& logger = Poco::Logger::get(LOGGER_NAME);
    logger.duplicate();
    return &logger;
}

}  // namespace

Poco::Logger& Log::instance() {
    static Poco::Logger* const logger = keptLogger();
    return *logger;
}

Poco::Logger& Log::Logger() {
    return instance();
}

bool Log::IsLogLevelActive(Poco::Message::Priority priority) {
    return instance().is(priority);
}

}  // namespace Logging
