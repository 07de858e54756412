#ifndef LOGGING_LOGSTREAM_H
#define LOGGING_LOGSTREAM_H

#include <Nubo/Export.h>
#include <Poco/LogStream.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <streambuf>
#include <string>

namespace Logging {

/// A stream whose finished lines become messages of a POCO logger. What std::endl (a line end with a flush)
/// ends is one Poco::Message, an empty line too; its text is exactly what was written before, except that
/// line ends inside it, other control characters and invalid UTF-8 are escaped (see <Logging/Escaped.h>), so
/// that a value can neither forge a line nor drive a terminal. Text that no std::endl follows is never
/// emitted. Numbers are written as in the "C" locale.
///
/// A stream is used on one thread at a time, as a rule as a local object or a temporary. Writing does not
/// throw; a channel that throws costs its message and leaves the stream bad. It blocks as long as the
/// logger's channel does.
class ZOL_EXPORT LogStream : public Poco::LogStream {
public:
    /// A stream whose messages have `priority` and go to `logger`, which must outlive the stream.
    LogStream(Poco::Logger& logger, Poco::Message::Priority priority);

    /// The same for the logger of that name, which POCO creates when there is none yet.
    LogStream(const std::string& loggerName, Poco::Message::Priority priority);

    /// A new, empty stream on the same logger and with the same priority as `other`; neither collected text
    /// nor the source position goes along. Moving does the same. Streams cannot be assigned.
    LogStream(const LogStream& other);
    LogStream& operator=(const LogStream&) = delete;

    /// Drops text that no std::endl ended.
    ~LogStream() override;

    /// Sets the source position of the messages that follow. It goes into Poco::Message::getSourceFile() and
    /// getSourceLine() (a pattern formatter shows them with %U and %u), never into the text. `file` is kept
    /// as a pointer and must live as long as the messages: __FILE__ does. Returns this stream.
    LogStream& addDefaultOutput(const char* file, int line);

private:
    /// Collects characters until a flush finds a line end behind them. Logger and priority are looked up in
    /// the base's buffer, where the operations of Poco::LogStream change the priority.
    class LineBuffer : public std::streambuf {
    public:
        explicit LineBuffer(const Poco::LogStreamBuf& target);
        void setPosition(const char* file, int line);

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize length) override;
        int sync() override;

    private:
        const Poco::LogStreamBuf& _target;
        const char* _file = nullptr;
        int _line = 0;
        std::string _text;
    };

    LineBuffer _lineBuffer;
};

}  // namespace Logging

#endif
