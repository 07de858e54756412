#include "Signals.h"

#include <Poco/Exception.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <map>

#include "Actions.h"

namespace ZolPlatform {

namespace {

const std::map<unsigned, std::string> ACTIONS_BY_SIGNAL = {
    {SIGHUP, "restart"}, {SIGUSR1, "drop"}, {SIGUSR2, "move"}};

}  // namespace

Signals::Signals() {
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, SIGINT);
    ::sigaddset(&handled, SIGTERM);
    for (const auto& entry : ACTIONS_BY_SIGNAL) ::sigaddset(&handled, static_cast<int>(entry.first));
    ::pthread_sigmask(SIG_BLOCK, &handled, nullptr);
    _descriptor = ::signalfd(-1, &handled, SFD_CLOEXEC);
    if (_descriptor < 0) throw Poco::SystemException("cannot read signals");
}

Signals::~Signals() {
    ::close(_descriptor);
}

bool Signals::handleOne(Nubo::Simulator::Platform& platform) {
    signalfd_siginfo signal = {};
    if (::read(_descriptor, &signal, sizeof signal) != sizeof signal) return true;
    const auto found = ACTIONS_BY_SIGNAL.find(signal.ssi_signo);
    if (found == ACTIONS_BY_SIGNAL.end()) return false;
    perform(*findAction(found->second), allServices(platform));
    return true;
}

}  // namespace ZolPlatform
