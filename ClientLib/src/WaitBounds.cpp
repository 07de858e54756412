#include "WaitBounds.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <system_error>

namespace Nubo::Client {

namespace {

constexpr std::chrono::milliseconds DAY = std::chrono::hours{24};  // any more might not fit the clock
constexpr int STEP_MS = 1000;  // a clock that is put forward is noticed behind such a step

WaitBounds::Cancellations withoutNull(const WaitBounds::Cancellations& all) {
    WaitBounds::Cancellations there;
    std::copy_if(all.begin(), all.end(), std::back_inserter(there),
                 [](const auto& cancellation) { return cancellation != nullptr; });
    return there;
}

}  // namespace

WaitBounds::WaitBounds(std::chrono::milliseconds total, const Cancellations& cancellations)
    : _cancellations(withoutNull(cancellations)),
      _due(Clock::now() + std::min(total, DAY)),
      _phaseDue(_due) {}

void WaitBounds::beginPhase(std::chrono::milliseconds atMost) {
    _phaseDue = std::min(_due, Clock::now() + atMost);
}

void WaitBounds::await(int descriptor, short events) const {
    check();
    while (!polled(descriptor, events, std::min(millisecondsLeft(), STEP_MS))) check();
}

void WaitBounds::check() const {
    polled(-1, 0, 0);
    if (millisecondsLeft() == 0) throw Poco::TimeoutException(_aim);
}

// @return false when the time is over or a signal came first
bool WaitBounds::polled(int descriptor, short events, int milliseconds) const {
    std::vector<pollfd> awaited{{descriptor, events, 0}};
    for (const auto& cancellation : _cancellations)
        awaited.push_back({cancellation->descriptor(), POLLIN, 0});
    const int count = ::poll(awaited.data(), awaited.size(), milliseconds);
    if (count < 0 && errno != EINTR)
        throw Poco::SystemException("poll", std::generic_category().message(errno), errno);
    if (count <= 0) return false;
    const bool cancelled =
        std::any_of(awaited.begin() + 1, awaited.end(), [](const pollfd& each) { return each.revents != 0; });
    if (cancelled) throw Poco::Net::ConnectionAbortedException("ended by this side");
    return true;
}

// Rounded up, so that the time is over when that has passed.
int WaitBounds::millisecondsLeft() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_phaseDue - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

}  // namespace Nubo::Client
