#include <Logging/Escaped.h>
#include <Logging/LogStream.h>

#include <locale>
#include <utility>

namespace Logging {
LogStream::LineBuffer::LineBuffer(const Poco::LogStreamBuf& target) : _target(target) {}

void LogStream::LineBuffer::setPosition(const char* file, int line) {
    _file = file;
    _line = line;
}

LogStream::LineBuffer::int_type LogStream::LineBuffer::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) _text += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
}

std::streamsize LogStream::LineBuffer::xsputn(const char* text, std::streamsize length) {
    _text.append(text, static_cast<std::string::size_type>(length));
    return length;
}

int LogStream::LineBuffer::sync() {
    if (_text.empty() || _text.back() != '\n') return 0;
    _text.pop_back();
    const std::string line = escaped(std::exchange(_text, std::string()));
    Poco::Logger& logger = _target.logger();
    logger.log(Poco::Message(logger.name(), line, _target.getPriority(), _file, _line));
    return 0;
}

// The base's own buffer stays unused but for its logger and priority, hence its capacity of 0.
LogStream::LogStream(Poco::Logger& logger, Poco::Message::Priority priority)
    : Poco::LogStream(logger, priority, 0), _lineBuffer(_buf) {
    std::ios::rdbuf(&_lineBuffer);
    imbue(std::locale::classic());
}

LogStream::LogStream(const std::string& loggerName, Poco::Message::Priority priority)
    : LogStream(Poco::Logger::get(loggerName), priority) {}

LogStream::LogStream(const LogStream& other) : LogStream(other._buf.logger(), other._buf.getPriority()) {}

LogStream::~LogStream() = default;

LogStream& LogStream::addDefaultOutput(const char* file, int line) {
    _lineBuffer.setPosition(file, line);
    return *this;
}

}  // namespace Logging
