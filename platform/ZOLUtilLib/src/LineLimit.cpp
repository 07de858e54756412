#include <Logging/LineLimit.h>

#include <algorithm>
#include <utility>

namespace Logging {
namespace {

void writeSummary(unsigned long lines, Poco::Message::Priority priority) {
    if (lines == 0) return;
    if (priority == Poco::Message::PRIO_WARNING)
        ZOL_LOG_WARNING(lines << " further lines about bad data from this peer were left out");
    else
        ZOL_LOG_ERROR(lines << " further lines about bad data from this peer were left out");
}

}  // namespace

bool LineLimit::admit(Poco::Message::Priority priority, Clock::time_point now) {
    if (!Log::IsLogLevelActive(priority)) return false;
    LeftOut before;
    bool admitted = true;
    {
        const std::lock_guard lock(_mutex);
        if (now >= _end) {
            _end = now + std::chrono::seconds(1);
            _written = 0;
            before = std::exchange(_leftOut, LeftOut());
        }
        admitted = _written < LINES;
        if (admitted) {
            ++_written;
        } else {
            ++_leftOut.lines;
            _leftOut.priority = std::min(_leftOut.priority, priority);  // the lower value is the more severe
        }
    }
    writeSummary(before.lines, before.priority);
    return admitted;
}

void LineLimit::writeLeftOut() {
    LeftOut leftOut;
    {
        const std::lock_guard lock(_mutex);
        leftOut = std::exchange(_leftOut, LeftOut());
    }
    writeSummary(leftOut.lines, leftOut.priority);
}

}  // namespace Logging
