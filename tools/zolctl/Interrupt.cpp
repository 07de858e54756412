#include "Interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace ZolCtl::Interrupt {

namespace {

constexpr int SIGNAL_BASE = 128;

// Lock-free, since a signal handler uses them.
std::atomic<bool> deferring{false};
std::atomic<int> noted{0};

void handle(int signal) {
    if (!deferring || noted != 0) ::_exit(SIGNAL_BASE + signal);
    noted = signal;
}

}  // namespace

void install() {
    struct sigaction action = {};
    action.sa_handler = handle;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

Deferred::Deferred() {
    deferring = true;
}

Deferred::~Deferred() {
    deferring = false;
}

void check() {
    if (noted != 0) throw Interrupted{SIGNAL_BASE + noted};
}

}  // namespace ZolCtl::Interrupt
