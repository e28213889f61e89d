#pragma once

#include "Command.h"
#include "Host.h"

#include <chrono>
#include <memory>
#include <string>

namespace corvanectl {

class Progress;

struct Options {
    bool json = false;
    bool keepGoing = false;
    bool tearDown = false;
    std::string logLevel;
    std::string logFile;
    std::string logConfig;
    std::string commandLog;  ///< what commands and daemons print; empty: nowhere
};

/// Runs commands one after the other and talks to the user: text on standard output and problems on
/// standard error, or with --json one line of JSON per command on standard output.
class Session {
public:
    /// @param chosen  read at each command
    Session(const Options& chosen, LogRecords& logRecords);

    /// Runs a command, if there is one, and prints its result.
    /// @return whether the sequence goes on
    bool run(const Invocation& invocation);

    /// Runs the command in a line, likewise.
    bool runLine(const std::string& line);

    /// Runs a command without printing anything.
    Result runQuietly(const Invocation& invocation);

    /// Prints a result. The invocation is empty when there was no command.
    /// @return whether the sequence goes on
    bool report(const Invocation& invocation, const Result& result,
                std::chrono::milliseconds duration = {});

    /// Shows what the command waits for.
    /// @param limit  how long at most; 0 when nobody knows
    void waitFor(const std::string& what, std::chrono::milliseconds limit);

    /// Shows the library's records as the command's steps.
    void showSteps();

    /// Leaves the process without destroying the manager, see BluetoothManager.
    [[noreturn]] void leave();

    const Options& options;
    LogRecords& records;
    Host host;
    ExitStatus status = ExitStatus::success;  ///< of the first failure; the process ends with it
    bool stopping = false;                    ///< ends the sequence after this command

private:
    std::shared_ptr<Progress> progress;
};

/// The interactive shell: runs commands from the terminal on standard input until its user leaves.
/// The prompt shows the radio's state, Tab completes commands and device names, and
/// ~/.corvanectl_history keeps the history.
void runShell(Session& session, LineSource& input);

}  // namespace corvanectl
