#ifndef TESTS_PROCESS_H
#define TESTS_PROCESS_H

#include <Poco/Environment.h>
#include <Poco/Pipe.h>
#include <Poco/Process.h>
#include <Poco/String.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

/// A command line for bash, which finds the programs of this build first: what it prints as it comes, and how
/// it ends. A single command is the process itself. One thread uses it.
class Process {
public:
    static constexpr std::chrono::seconds DEADLINE{60};

    explicit Process(const std::string& commandLine)
        : _handle(Poco::Process::launch("bash", {"-c", commandLine}, &_input, &_out.pipe, &_err.pipe,
                                        {{"PATH", folder() + ":" + Poco::Environment::get("PATH")}})) {}
    /// A program that still runs is killed.
    ~Process() {
        if (_exitCode != RUNNING) return;
        Poco::Process::kill(_handle);
        _handle.wait();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// The same command with a terminal of its own, by script(1).
    static std::string inTerminal(const std::string& command) {
        return "script -qefc '" + Poco::replace(command, std::string("'"), std::string("'\\''")) +
               "' /dev/null";
    }

    void write(const std::string& text) { _input.writeBytes(text.data(), static_cast<int>(text.size())); }
    void closeInput() { _input.close(); }
    void signal(int number) { ::kill(_handle.id(), number); }

    const std::string& out() const { return _out.text; }
    const std::string& err() const { return _err.text; }

    /// Reads until `text` stands in what came behind the last match.
    testing::AssertionResult prints(const std::string& text) { return comes(_out, text); }
    testing::AssertionResult complains(const std::string& text) { return comes(_err, text); }
    /// Reads until condition(), which looks at out() and err(), is true.
    bool readUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + DEADLINE;
        bool met = condition();
        while (!met && std::chrono::steady_clock::now() < end && readSome()) met = condition();
        return met || condition();
    }

    /// Reads to the end. @return the exit code, -1 when the program does not end
    int exitCode() {
        if (readUntil([this] { return !_out.isOpen && !_err.isOpen; })) _exitCode = _handle.wait();
        return _exitCode;
    }

private:
    static constexpr int RUNNING = -1;
    struct Stream_t {
        pollfd awaited() const { return {isOpen ? pipe.readHandle() : -1, POLLIN, 0}; }
        void read() {
            std::array<char, 4096> bytes;
            const int count = pipe.readBytes(bytes.data(), bytes.size());
            text.append(bytes.data(), static_cast<std::size_t>(count));
            isOpen = count > 0;
        }

        Poco::Pipe pipe = {};
        std::string text = {};
        std::size_t seen = 0;
        bool isOpen = true;
    };

    static std::string folder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

    /// @return false at the end of both streams
    bool readSome() {
        std::array<pollfd, 2> ends = {_out.awaited(), _err.awaited()};
        ::poll(ends.data(), ends.size(), 100);
        if (ends[0].revents != 0) _out.read();
        if (ends[1].revents != 0) _err.read();
        return _out.isOpen || _err.isOpen;
    }

    testing::AssertionResult comes(Stream_t& stream, const std::string& text) {
        const auto found = [&] { return stream.text.find(text, stream.seen) != std::string::npos; };
        if (!readUntil(found))
            return testing::AssertionFailure() << "\"" << text << "\" did not come\n" << out() << err();
        stream.seen = stream.text.find(text, stream.seen) + text.size();
        return testing::AssertionSuccess();
    }

    Poco::Pipe _input;
    Stream_t _out, _err;
    int _exitCode = RUNNING;
    Poco::ProcessHandle _handle;  // last: started with all of the above
};

#endif
