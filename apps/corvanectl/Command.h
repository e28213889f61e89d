#pragma once

#include <nlohmann/json.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvanectl {

struct Command;
class Session;

using Json = nlohmann::ordered_json;

/// How a command, and with it the process, ends. Scripts rely on the numbers: add new ones, never
/// reuse one.
enum class ExitStatus : int {
    success,
    unexpected,
    usage,
    noBus,
    badSetting,
    noIdentity,
    refused,
    noDevice,
    incomplete,
    busy,
    request,  // plus the request's answer
    requestCancelled = 12,
    requestFailed = 14,
    notLogged = 16,
    boardUnfit,
    interrupted = 130,  // as shells report an end by Ctrl-C
};

/// The field "outcome" of --json, by exit status from 0 on; the last one belongs to interrupted.
constexpr char outcomes[] =
    "success|unexpected|usage|no-bus|bad-setting|no-identity|refused|no-device|incomplete|busy||"
    "request-timeout|request-cancelled|request-connect-failed|request-failed|"
    "request-device-not-found|not-logged|board-unfit|interrupted";

/// What a command reports.
struct Result {
    ExitStatus status = ExitStatus::success;
    std::string text;                       ///< for people: lines, the last one without a line end
    std::string problem;                    ///< what is wrong and the remedy; empty on success
    Json data = Json(Json::value_t::null);  ///< the field "result" of --json
};

/// Ends a command.
class Failure : public std::runtime_error {
public:
    /// @param problem  names the input concerned and the remedy
    Failure(ExitStatus failureStatus, const std::string& problem)
        : std::runtime_error(problem), status(failureStatus) {}

    Result result() const { return {status, "", what(), nullptr}; }

    const ExitStatus status;
};

/// A command with checked arguments, ready to run.
struct Invocation {
    const Command* command = nullptr;
    std::vector<std::string> arguments;
    std::shared_ptr<const Invocation> inner;  ///< the command that watch-log runs
};

using Run = Result(Session&, const Invocation&);
Run switchOn, switchOff, showStatus, airplane, watchLog;  // RadioCommands.cpp
Run scan, listDevices, findDevice, pairDevice, waitForPairing, trustDevice, connectDevice,
    disconnectDevice, forgetDevice;  // DeviceCommands.cpp
Run examineBoard, writeReport;       // Doctor.cpp

/// One row of the table of commands.
struct Command {
    const char* name;
    const char* takes;  ///< as help shows it: words in capitals, choices "a|b", optional "[a|b]"
    Run* run;
    const char* help;     ///< one line
    const char* details;  ///< what help adds for this command alone; may be empty
};

/// The table, in the order of help.
const std::vector<Command>& commands();

/// @return null when there is no such command
const Command* findCommand(const std::string& name);

/// Whether this, of what a command takes, is a list of choices.
bool isChoice(const std::string& taken);

/// The texts in a list like "[all|paired]"; some may be empty.
std::vector<std::string> choicesOf(std::string list);

/// The commands and what they take, one per line.
std::string commandList();

/// Reads one command from a line. Throws Failure (usage) that names the offending word.
/// @return without a command for a blank line and for a comment (first character '#')
Invocation parseLine(const std::string& line);

/// Reads the commands from the words of a command line. Where a command is expected, a word with a
/// blank is a whole line; any other word is a command's name. The words after a name are its
/// arguments, unchanged: as many as it needs, and an optional one unless it is a command or a whole
/// line. Throws like parseLine().
std::vector<Invocation> parseArguments(const std::vector<std::string>& arguments);

}  // namespace corvanectl
