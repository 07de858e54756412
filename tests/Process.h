#ifndef ZOLTESTS_PROCESS_H
#define ZOLTESTS_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

/// A program that a test runs: what it prints as it comes, and how it ends. One thread uses it.
class Process {
public:
    static constexpr std::chrono::seconds DEADLINE{60};

    /// Where the build puts its programs: beside the test.
    static std::string folder() {
        std::array<char, 4096> path = {};
        const auto length = ::readlink("/proc/self/exe", path.data(), path.size());
        const std::string self(path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return self.substr(0, self.rfind('/'));
    }

    /// @param command a program of this build by its name, or any other found by PATH, and its arguments
    explicit Process(std::vector<std::string> command) {
        const std::string ours = folder() + "/" + command[0];
        if (::access(ours.c_str(), X_OK) == 0) command[0] = ours;
        std::vector<char*> arguments;
        for (auto& word : command) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        spawn(arguments.data());
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// A program that still runs is killed.
    ~Process() {
        if (_id > 0 && _exitCode == RUNNING) {
            ::kill(_id, SIGKILL);
            ::waitpid(_id, nullptr, 0);
        }
        for (const int end : {_input, _out.descriptor, _err.descriptor}) ::close(end);
    }

    void write(const std::string& text) {
        EXPECT_EQ(::write(_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void closeInput() {
        ::close(_input);
        _input = -1;
    }
    void signal(int number) { ::kill(_id, number); }

    /// Everything printed so far.
    const std::string& out() const { return _out.text; }
    const std::string& err() const { return _err.text; }

    /// Reads until `text` stands in what came behind the last match.
    testing::AssertionResult prints(const std::string& text) { return comes(_out, text); }
    testing::AssertionResult complains(const std::string& text) { return comes(_err, text); }
    /// Reads until condition(), which looks at out() and err(), is true.
    bool readUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + DEADLINE;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end || !readSome()) return condition();
        }
        return true;
    }

    /// Reads to the end. @return the exit code, 1000 and the signal's number when one ended it, -1 when it
    /// does not end
    int exitCode() {
        readUntil([] { return false; });
        const auto end = std::chrono::steady_clock::now() + DEADLINE;
        while (_exitCode == RUNNING && std::chrono::steady_clock::now() < end) {
            int status = 0;
            if (::waitpid(_id, &status, WNOHANG) == _id)
                _exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return _exitCode;
    }

private:
    static constexpr int RUNNING = -1;
    struct Stream_t {
        int descriptor = -1;
        std::string text;
        std::size_t seen = 0;
    };

    void spawn(char** arguments) {
        std::array<int, 2> in = {}, out = {}, err = {};
        for (auto* ends : {&in, &out, &err}) EXPECT_EQ(::pipe2(ends->data(), O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        EXPECT_EQ(::posix_spawnp(&_id, arguments[0], &actions, nullptr, arguments, environ), 0)
            << arguments[0];
        ::posix_spawn_file_actions_destroy(&actions);
        for (const int end : {in[0], out[1], err[1]}) ::close(end);
        _input = in[1];
        _out.descriptor = out[0];
        _err.descriptor = err[0];
    }

    /// @return false at the end of both streams
    bool readSome() {
        std::array<pollfd, 2> ends = {pollfd{_out.descriptor, POLLIN, 0}, pollfd{_err.descriptor, POLLIN, 0}};
        ::poll(ends.data(), ends.size(), 100);
        for (auto* stream : {&_out, &_err}) {
            if (ends[stream == &_out ? 0 : 1].revents == 0) continue;
            std::array<char, 4096> bytes;
            const auto count = ::read(stream->descriptor, bytes.data(), bytes.size());
            if (count > 0) {
                stream->text.append(bytes.data(), static_cast<std::size_t>(count));
            } else {
                ::close(stream->descriptor);
                stream->descriptor = -1;
            }
        }
        return _out.descriptor >= 0 || _err.descriptor >= 0;
    }

    testing::AssertionResult comes(Stream_t& stream, const std::string& text) {
        const auto found = [&] { return stream.text.find(text, stream.seen) != std::string::npos; };
        if (!readUntil(found))
            return testing::AssertionFailure() << "\"" << text << "\" did not come\n" << out() << err();
        stream.seen = stream.text.find(text, stream.seen) + text.size();
        return testing::AssertionSuccess();
    }

    pid_t _id = -1;
    int _input = -1;
    Stream_t _out;
    Stream_t _err;
    int _exitCode = RUNNING;
};

#endif
