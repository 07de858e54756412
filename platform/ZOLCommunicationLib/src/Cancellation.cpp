#include <Nubo/Net/Cancellation.h>
#include <Poco/Exception.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "Reasons.h"

namespace Nubo::Net {

Cancellation::Cancellation() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (_event < 0) throw Poco::SystemException("eventfd", Reasons::systemText(errno), errno);
}

Cancellation::~Cancellation() {
    ::close(_event);
}

void Cancellation::cancel() noexcept {
    ::eventfd_write(_event, 1);
}

bool Cancellation::cancelled() const noexcept {
    pollfd event{_event, POLLIN, 0};
    return ::poll(&event, 1, 0) == 1;
}

}  // namespace Nubo::Net
