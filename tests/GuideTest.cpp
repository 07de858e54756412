// The first steps in docs/guide.md are true: played in terminals, as they stand there.
#include <fstream>
#include <map>
#include <memory>
#include <regex>

#include "Process.h"

namespace {

/// What differs from run to run: times and free ports. Blanks, since columns follow the ports.
std::string normalised(const std::string& line) {
    const std::regex time(R"((\d{4}-\d\d-\d\dT)?\d\d:\d\d:\d\d\.\d{3})"), cr("\r"), blanks(" +");
    const std::regex address(R"(127\.0\.0\.1:(?!448[01]\b)\d+)");
    const auto text = std::regex_replace(std::regex_replace(line, time, "TIME"), address, "127.0.0.1:PORT");
    return std::regex_replace(std::regex_replace(text, cr, ""), blanks, " ");
}

/// What is shown in a terminal, line by line.
class Terminal {
public:
    explicit Terminal(const std::string& command) : _process("NO_COLOR=1 " + Process::inTerminal(command)) {}

    /// Reads until the line has come, behind those found before.
    testing::AssertionResult shows(const std::string& line) {
        const std::string wanted = "\n" + normalised(line + "\n");
        std::size_t found = std::string::npos;
        const auto look = [&] {
            found = normalised("\n" + _process.out()).find(wanted, _seen);
            return found != std::string::npos;
        };
        if (!_process.readUntil(look))
            return testing::AssertionFailure() << line << "\nis not in\n" << _process.out();
        _seen = found + wanted.size() - 1;
        return testing::AssertionSuccess();
    }
    void type(const std::string& keys) { _process.write(keys == "^C" ? "\x03" : keys); }
    int exitCode() { return _process.exitCode(); }

private:
    Process _process;
    std::size_t _seen = 0;
};

// A fenced block "console N" shows terminal N, one "keys N" is typed into it.
TEST(GuideTest, FirstStepsAreTrue) {
    std::ifstream file(ZOL_SOURCE_DIR "/docs/guide.md");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::regex block("```(console|keys) ([0-9])\n([^`]*)```");
    std::map<std::string, std::unique_ptr<Terminal>> terminals;
    for (std::sregex_iterator found(text.begin(), text.end(), block), end; found != end; ++found) {
        auto& terminal = terminals[(*found)[2]];
        std::istringstream lines((*found)[3]);
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, 2, "$ ") == 0) {
                ASSERT_TRUE(!terminal || terminal->exitCode() == 0) << "before " << line;
                terminal = std::make_unique<Terminal>(line.substr(2));
            } else if ((*found)[1] == "keys") {
                terminal->type(line);
            } else {
                ASSERT_TRUE(terminal->shows(line));
            }
        }
    }
    ASSERT_EQ(terminals.size(), 3U);
    EXPECT_EQ(terminals["1"]->exitCode(), 0);
    EXPECT_EQ(terminals["2"]->exitCode(), 130);
    EXPECT_EQ(terminals["3"]->exitCode(), 0);
}

}  // namespace
