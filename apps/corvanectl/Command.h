#pragma once

#include "ExitStatus.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvanectl {

struct Command;
class Session;

using Json = nlohmann::ordered_json;

/// What a command has to tell.
struct Result {
    ExitStatus status = ExitStatus::success;
    std::string text;     ///< for people: lines, without a line end after the last
    std::string problem;  ///< what is wrong and the remedy; empty on success
    Json data = Json(Json::value_t::null);  ///< the field "result" of --json; null for nothing
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

/// One row of the table of commands.
struct Command {
    const char* name;
    const char* takes;  ///< as help shows it: words in capitals, choices "a|b", optional "[a|b]"
    Result (*run)(Session&, const Invocation&);
    const char* help;     ///< one line
    const char* details;  ///< what help adds for this command alone; "" for nothing
};

/// The table, in the order in which help shows it.
const std::vector<Command>& commands();

/// @return null when there is no such command
const Command* findCommand(const std::string& name);

/// The choices of what a command takes, or its words in capitals, one by one.
std::vector<std::string> choicesOf(const Command& command);

/// The commands with what they take, a line each.
std::string commandList();

/// Reads one command from a line. Throws Failure (usage) that names the word it is about.
/// @return without a command for a line that is blank or a comment (first character '#')
Invocation parseLine(const std::string& line);

/// Reads the commands from the words of a command line. A word with a blank, where a command is
/// expected, is a whole line. Any other word there is a command's name, and the following words are
/// its arguments as they are: as many as it takes, and an optional one unless it is a command or a
/// whole line itself. Throws like parseLine().
std::vector<Invocation> parseArguments(const std::vector<std::string>& arguments);

// The functions of the table's rows, by the file that holds them.

// RadioCommands.cpp
Result switchOn(Session& session, const Invocation& invocation);
Result switchOff(Session& session, const Invocation& invocation);
Result showStatus(Session& session, const Invocation& invocation);
Result airplane(Session& session, const Invocation& invocation);
Result watchLog(Session& session, const Invocation& invocation);

// DeviceCommands.cpp
Result scan(Session& session, const Invocation& invocation);
Result listDevices(Session& session, const Invocation& invocation);
Result findDevice(Session& session, const Invocation& invocation);
Result pairDevice(Session& session, const Invocation& invocation);
Result waitForPairing(Session& session, const Invocation& invocation);
Result trustDevice(Session& session, const Invocation& invocation);
Result connectDevice(Session& session, const Invocation& invocation);
Result disconnectDevice(Session& session, const Invocation& invocation);
Result forgetDevice(Session& session, const Invocation& invocation);

// Doctor.cpp
Result examineBoard(Session& session, const Invocation& invocation);

// BoardReport.cpp
Result writeReport(Session& session, const Invocation& invocation);

}  // namespace corvanectl
