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

std::atomic<Poco::Logger*> Log::_logger{nullptr};

Poco::Logger& Log::Logger() {
    static Poco::Logger* const logger = _logger = keptLogger();
    return *logger;
}

}  // namespace Logging
