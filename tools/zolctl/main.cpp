// zolctl: the client library at a prompt.
#include <Poco/Logger.h>
#include <Poco/Util/Application.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/RegExpValidator.h>

#include <functional>
#include <iostream>

#include "Command.h"
#include "Interrupt.h"
#include "LibraryLog.h"
#include "Output.h"

namespace ZolCtl {

using Poco::Util::Option;
using Poco::Util::OptionCallback;

namespace {

const char* const LEVELS = "error|warning|info|debug";

int priority(const std::string& level) {
    if (level.empty()) return 0;
    return Poco::Logger::parseLevel(level == "info" ? "information" : level);
}

/// Runs `action`. @return the exit code that the way in which it ends stands for
int exitCodeOf(const std::function<void()>& action) {
    try {
        action();
        return DONE;
    } catch (const Interrupt::Interrupted& interrupted) {
        return interrupted.exitCode;
    } catch (const UsageError& error) {
        Output::notice(std::string(error.what()) + " (zolctl --help)");
        return WRONG_USAGE;
    } catch (const Poco::Exception& exception) {
        Output::notice(exception.displayText());
    } catch (const std::exception& exception) {
        Output::notice(exception.what());
    }
    return FAILED;
}

class Program : public Poco::Util::Application {
public:
    /// @param command null when none was named
    explicit Program(const Command_t* command) : _command(command) {}

protected:
    void defineOptions(Poco::Util::OptionSet& options) override {
        options.addOption(Option("help", "h", "show this text").callback(on(&Program::showHelp)));
        options.addOption(Option("version", "", "show the version").callback(on(&Program::showVersion)));
        options.addOption(
            Option("log-level", "", "show the library's own lines, those of that level and above")
                .argument(LEVELS)
                .validator(new Poco::Util::RegExpValidator(LEVELS))
                .binding("log-level"));
        if (_command) ZolCtl::defineOptions(*_command, options);
    }

    int main(const ArgVec& words) override {
        return exitCodeOf([&] { execute(words); });
    }

private:
    void execute(const ArgVec& words) {
        if (_shown) return;
        if (!_command)
            throw UsageError(words.empty() ? "a command is missing" : "no command \"" + words[0] + "\"");
        const Call_t call{words.at(0), {words.begin() + 1, words.end()}, config()};
        if (call.command != _command->name) throw UsageError("the command stands before its arguments");
        if (call.arguments.size() < _command->leastArguments ||
            call.arguments.size() > _command->mostArguments)
            throw UsageError("usage: zolctl " + _command->name + " " + _command->arguments);
        LibraryLog::install(priority(config().getString("log-level", "")));
        _command->run(call);
        Output::checkReader();
    }

    OptionCallback<Program> on(OptionCallback<Program>::Callback callback) { return {this, callback}; }

    void showHelp(const std::string&, const std::string&) {
        Poco::Util::HelpFormatter help(options());
        help.setCommand("zolctl");
        help.setUsage(_command ? _command->name + " " + _command->arguments + " [OPTION...]"
                               : std::string("COMMAND [ARGUMENT...] [OPTION...]"));
        help.setHeader(_command ? _command->summary : summaries());
        help.setFooter("Exit code: 0 done, 1 failed, 2 wrong usage, 130 or 143 interrupted.");
        help.setAutoIndent();
        help.format(std::cout);
        _shown = true;
        stopOptionsProcessing();
    }

    void showVersion(const std::string&, const std::string&) {
        std::cout << "zolctl " ZOL_VERSION << std::endl;
        _shown = true;
        stopOptionsProcessing();
    }

    static std::string summaries() {
        std::string text = "The services of a unit at a prompt. Commands:\n";
        for (const auto& command : commands())
            text += "\n  " + command.name + (command.arguments.empty() ? "" : " ") + command.arguments +
                    "\n      " + command.summary;
        return text;
    }

    const Command_t* const _command;
    bool _shown = false;  // the help or the version, and that is all
};

const Command_t* namedCommand(int argc, char** argv) {
    for (int index = 1; index < argc; ++index)
        if (const auto* command = findCommand(argv[index])) return command;
    return nullptr;
}

int run(int argc, char** argv) {
    Program program(namedCommand(argc, argv));
    const int wrongOptions = exitCodeOf([&] {
        try {
            program.init(argc, argv);
        } catch (const Poco::Exception& exception) {
            throw UsageError(exception.displayText());
        }
    });
    return wrongOptions != DONE ? wrongOptions : program.run();
}

}  // namespace

}  // namespace ZolCtl

int main(int argc, char** argv) {
    ZolCtl::Interrupt::install();
    return ZolCtl::run(argc, argv);
}
