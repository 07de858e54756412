// The first steps in docs/guide.md are true: played in terminals, as they stand there.
#include <fstream>
#include <memory>
#include <regex>

#include "Process.h"

namespace {

/// A fenced block: "console N" shows terminal N, "keys N" is typed into it.
struct Block_t {
    std::string kind;
    int terminal;
    std::vector<std::string> lines;
};

std::vector<Block_t> blocksOf(const std::string& file) {
    std::vector<Block_t> blocks;
    std::ifstream text(file);
    bool inside = false;
    for (std::string line; std::getline(text, line);) {
        std::smatch fence;
        if (std::regex_match(line, fence, std::regex("```(console|keys) ([0-9])"))) {
            blocks.push_back({fence[1], std::stoi(fence[2]), {}});
            inside = true;
        } else if (line == "```") {
            inside = false;
        } else if (inside) {
            blocks.back().lines.push_back(line);
        }
    }
    return blocks;
}

/// What differs from run to run: times and free ports. Blanks, since columns follow the ports.
std::string normalised(const std::string& line) {
    std::string text = std::regex_replace(line, std::regex(R"(\d\d:\d\d:\d\d\.\d\d\d)"), "TIME");
    text = std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT)"), "");
    text = std::regex_replace(text, std::regex(R"(127\.0\.0\.1:(?!448[01]\b)\d+)"), "127.0.0.1:PORT");
    return std::regex_replace(std::regex_replace(text, std::regex("\r"), ""), std::regex(" +"), " ");
}

/// A terminal of its own, by script(1): what is shown there, line by line.
class Terminal {
public:
    explicit Terminal(const std::string& command)
        : _process({"script", "-qefc", "PATH=" + Process::folder() + ":$PATH NO_COLOR=1 " + command,
                    "/dev/null"}) {}

    /// Reads until the line has come, behind those found before.
    testing::AssertionResult shows(const std::string& line) {
        const std::string wanted = "\n" + normalised(line + "\n");
        std::size_t found = std::string::npos;
        _process.readUntil([&] {
            found = normalised("\n" + _process.out()).find(wanted, _seen);
            return found != std::string::npos;
        });
        if (found == std::string::npos)
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

TEST(GuideTest, FirstStepsAreTrue) {
    const auto blocks = blocksOf(ZOL_SOURCE_DIR "/docs/guide.md");
    ASSERT_GE(blocks.size(), 10U);
    std::map<int, std::unique_ptr<Terminal>> terminals;
    for (const auto& block : blocks) {
        auto& terminal = terminals[block.terminal];
        for (const auto& line : block.lines) {
            if (line.compare(0, 2, "$ ") == 0) {
                if (terminal) {
                    ASSERT_EQ(terminal->exitCode(), 0) << "before " << line;
                }
                terminal = std::make_unique<Terminal>(line.substr(2));
            } else if (block.kind == "keys") {
                terminal->type(line);
            } else {
                ASSERT_TRUE(terminal->shows(line));
            }
        }
    }
    EXPECT_EQ(terminals[1]->exitCode(), 0);
    EXPECT_EQ(terminals[2]->exitCode(), 130);
    EXPECT_EQ(terminals[3]->exitCode(), 0);
}

}  // namespace
