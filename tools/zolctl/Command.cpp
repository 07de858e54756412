#include "Command.h"

#include <Poco/Util/IntValidator.h>
#include <Poco/Util/RegExpValidator.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace ZolCtl {

using Poco::Util::IntValidator;
using Poco::Util::Option;

namespace {

constexpr std::size_t MANY = std::numeric_limits<std::size_t>::max();
constexpr int MAX_EXPANSION = 255;

Option option(const std::string& name, const std::string& description, const std::string& argument = "") {
    Option made(name, "", description);
    if (!argument.empty()) made.argument(argument);
    return made.binding(name);
}

/// Every option of every command.
std::vector<Option> allOptions() {
    return {
        option("fields", "only these members (and the URI)", "a,b"),
        option("expand", "linked elements in place, N levels deep", "N")
            .validator(new IntValidator(0, MAX_EXPANSION)),
        option("filter", "only elements whose member k is v", "k=v"),
        option("count", "how many notifications, or changes", "N")
            .validator(new IntValidator(1, std::numeric_limits<int>::max())),
        option("timeout", "give up after S seconds", "S")
            .validator(new Poco::Util::RegExpValidator("[0-9]{1,6}(\\.[0-9]{1,3})?")),
        option("watch", "go on and show every change, until interrupted"),
    };
}

}  // namespace

const std::vector<Command_t>& commands() {
    static const std::vector<Command_t> COMMANDS = {
        {"services", "", "what is registered, and where", 0, 0, {"watch"}, runServices},
        {"get", "PATH", "read a resource or an element", 1, 1, {"fields", "expand", "filter"}, runGet},
        {"find", "RESOURCE NAME", "the element of that name in a resource", 2, 2, {}, runFind},
        {"put", "PATH [JSON|-]", "change an element", 1, 2, {}, runModify},
        {"post", "PATH [JSON|-]", "add an element to a resource, or change one", 1, 2, {}, runModify},
        {"delete", "PATH [JSON|-]", "remove an element", 1, 2, {}, runModify},
        {"watch",
         "PATH...",
         "subscribe, and print each notification",
         1,
         MANY,
         {"count", "timeout"},
         runWatch},
        {"wait", "SERVICE...", "until all of them are available", 1, MANY, {"timeout"}, runWait},
        {"bench",
         "PATH [JSON|-]",
         "change an element again and again; time its notifications",
         1,
         2,
         {"count"},
         runBench},
    };
    return COMMANDS;
}

const Command_t* findCommand(const std::string& name) {
    const auto& all = commands();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Command_t& command) { return command.name == name; });
    return found == all.end() ? nullptr : &*found;
}

void defineOptions(const Command_t& command, Poco::Util::OptionSet& options) {
    for (const auto& candidate : allOptions())
        if (std::count(command.options.begin(), command.options.end(), candidate.fullName()) != 0)
            options.addOption(candidate);
}

std::optional<std::chrono::milliseconds> Call_t::seconds(const std::string& option) const {
    if (!has(option)) return std::nullopt;
    constexpr double MS_PER_SECOND = 1000;
    return std::chrono::milliseconds(std::llround(options.getDouble(option) * MS_PER_SECOND));
}

}  // namespace ZolCtl
