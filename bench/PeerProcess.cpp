#include "PeerProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    return ends;
}

std::string argument(const std::string& name) {
    return name.empty() ? "-" : name;
}

}  // namespace

PeerProcess::PeerProcess(unsigned port) {
    const auto commands = makePipe();
    const auto answers = makePipe();
    const std::string portText = std::to_string(port);
    _process = ::fork();
    if (_process == 0) {
        ::dup2(commands[0], STDIN_FILENO);
        ::dup2(answers[1], STDOUT_FILENO);
        ::execl(BENCH_PEER, BENCH_PEER, portText.c_str(), nullptr);
        ::_exit(127);
    }
    ::close(commands[0]);
    ::close(answers[1]);
    _commands = commands[1];
    char ready = 0;
    const bool started = _process > 0 && ::read(answers[0], &ready, 1) == 1;
    ::close(answers[0]);
    if (started) return;
    ::close(_commands);
    ::waitpid(_process, nullptr, 0);
    throw std::runtime_error("the peer does not start on port " + portText);
}

PeerProcess::~PeerProcess() {
    ::close(_commands);
    ::waitpid(_process, nullptr, 0);
}

void PeerProcess::flood(const std::string& name, std::size_t count) {
    command("flood " + argument(name) + " " + std::to_string(count));
}

void PeerProcess::pace(const std::string& name, std::size_t hz, std::size_t count) {
    command("pace " + argument(name) + " " + std::to_string(hz) + " " + std::to_string(count));
}

void PeerProcess::command(const std::string& line) {
    const std::string text = line + "\n";
    if (::write(_commands, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the peer is gone");
}
