#ifndef ZOLCTL_COMMAND_H
#define ZOLCTL_COMMAND_H

#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/OptionSet.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ZolCtl {

/// Exit codes; an interrupted program ends with 128 and the signal's number.
constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int WRONG_USAGE = 2;

/// Ends the program with FAILED.
struct Failure : std::runtime_error {
    using runtime_error::runtime_error;
};

/// Ends the program with WRONG_USAGE.
struct UsageError : std::runtime_error {
    using runtime_error::runtime_error;
};

/// What a command was called with.
struct Call_t {
    std::string command;
    std::vector<std::string> arguments;
    const Poco::Util::AbstractConfiguration& options;  ///< values by the option's name

    bool has(const std::string& option) const { return options.has(option); }
    /// An option in seconds as a time, nothing when it was not given.
    std::optional<std::chrono::milliseconds> seconds(const std::string& option) const;
};

/// One word behind "zolctl". Commands throw Failure and UsageError.
struct Command_t {
    std::string name;
    std::string arguments;  ///< as the help shows them
    std::string summary;
    std::size_t leastArguments;
    std::size_t mostArguments;
    std::vector<std::string> options;  ///< names of those it takes
    void (*run)(const Call_t& call);
};

const std::vector<Command_t>& commands();
/// @return null when there is none of that name
const Command_t* findCommand(const std::string& name);
void defineOptions(const Command_t& command, Poco::Util::OptionSet& options);

// One file each.
void runServices(const Call_t& call);
void runGet(const Call_t& call);
void runFind(const Call_t& call);
void runModify(const Call_t& call);
void runWatch(const Call_t& call);
void runWait(const Call_t& call);
void runBench(const Call_t& call);

}  // namespace ZolCtl

#endif
