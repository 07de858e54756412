#ifndef LOGGING_LOGLINE_H
#define LOGGING_LOGLINE_H

#include <Logging/Log.h>
#include <Logging/LogStream.h>

#include <ostream>

/// ZOL_LOG_ERROR(items), ZOL_LOG_WARNING(items), ZOL_LOG_INFO(items), ZOL_LOG_DEBUG(items): write one line of
/// that level to Logging::Log::Logger(): the level word, then the items, with the source position of the
/// call.
///
///     ZOL_LOG_WARNING("Parser::run" << ": " << text);      // "Warning: Parser::run: ..."
///
/// `items` are joined by << as behind a std::ostream. While the level is inactive none of them is evaluated.
/// `<< std::endl <<` among them ends one message and begins the next, which carries no level word. A call is
/// one statement, also in an if without braces before an else. Any thread; never throws: a line for which
/// there is no memory, or whose item throws, is lost.
#define ZOL_LOG_ERROR(...) ZOL_LOG_LINE(::Poco::Message::PRIO_ERROR, "Error: ", __VA_ARGS__)
#define ZOL_LOG_WARNING(...) ZOL_LOG_LINE(::Poco::Message::PRIO_WARNING, "Warning: ", __VA_ARGS__)
#define ZOL_LOG_INFO(...) ZOL_LOG_LINE(::Poco::Message::PRIO_INFORMATION, "Info: ", __VA_ARGS__)
#define ZOL_LOG_DEBUG(...) ZOL_LOG_LINE(::Poco::Message::PRIO_DEBUG, "Debug: ", __VA_ARGS__)

/// What the four above have in common; not for use elsewhere, since word and priority must match.
#define ZOL_LOG_LINE(logPriority, levelWord, ...)                               \
    do {                                                                        \
        if (::Logging::Log::IsLogLevelActive(logPriority)) {                    \
            try {                                                               \
                ::Logging::LogStream(::Logging::Log::Logger(), logPriority)     \
                        .addDefaultOutput(__FILE__, __LINE__)                   \
                    << levelWord << __VA_ARGS__ << std::endl;                   \
            } catch (...) {                                                     \
                static_cast<void>(0); /* the line is lost, its caller is not */ \
            }                                                                   \
        }                                                                       \
    } while (false)

#endif
