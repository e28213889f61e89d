#pragma once

#include "ExitStatus.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace corvanectl {

class Session;
struct Command;

using Json = nlohmann::ordered_json;

/// What a command has to tell.
struct Result {
    ExitStatus status = ExitStatus::success;
    std::string text;            ///< for people: lines, without a line end after the last
    std::string problem;         ///< what is wrong and the remedy; empty on success
    Json data = Json::object();  ///< the field "result" of --json
};

/// Ends a command.
class Failure : public std::runtime_error {
public:
    /// @param problem  names the input concerned and the remedy
    Failure(ExitStatus failureStatus, const std::string& problem)
        : std::runtime_error(problem), status(failureStatus) {}

    const ExitStatus status;
};

/// A command with its arguments, checked and ready to run.
struct Invocation {
    const Command* command = nullptr;
    std::vector<std::string> arguments;
    std::shared_ptr<const Invocation> inner;  ///< the command that watch-log runs
};

/// What stands behind a command's name. Decides how many words it takes and what the shell
/// completes.
enum class Takes {
    nothing,
    choice,           ///< one of Command::choices
    optionalChoice,   ///< one of Command::choices, or nothing
    knownDevice,      ///< a name; completed from all devices
    pairedDevice,     ///< a name; completed from the paired devices
    connectedDevice,  ///< a name; completed from the connected devices
    optionalCommand,  ///< the name of a command, or nothing
    watch,            ///< PATTERN TIMEOUT -- COMMAND
};

/// One row of the table of commands: parser, help, manual and completions are made from it.
struct Command {
    const char* name;
    Takes takes;
    const char* choices;  ///< separated by '|'; "" where there are none
    Result (*run)(Session&, const Invocation&);
    const char* help;     ///< one line
    const char* details;  ///< what the manual adds; "" for nothing
};

/// The table, in the order in which help shows it.
const std::vector<Command>& commands();

/// @return null when there is no such command
const Command* findCommand(const std::string& name);

/// The arguments as help shows them: "on|off", "[forced]", "NAME".
std::string synopsisOf(const Command& command);

/// The choices, one by one.
std::vector<std::string> choicesOf(const Command& command);

}  // namespace corvanectl
