#pragma once

#include "Console.h"
#include "Host.h"

#include <memory>
#include <string>

namespace corvanectl {

struct Options {
    bool json = false;
    bool keepGoing = false;
    bool tearDown = false;
    LogOptions log;
    std::string commandLog;  ///< what commands and daemons print; empty: nowhere
};

/// Runs commands in one process, one after the other.
class Session {
public:
    /// @param input  where a line "cancel" may come from while a request runs; null for nowhere
    Session(const Options& chosen, Console& userConsole, LineSource* input);

    /// Runs a command and tells its result.
    ExitStatus run(const Invocation& invocation);

    /// Runs a command without telling.
    Result runQuietly(const Invocation& invocation);

    /// Tells of a command that could not be read.
    ExitStatus report(const Failure& failure);

    /// Whether the sequence goes on after a command with this status.
    bool goesOn(ExitStatus last) const;

    /// The status that the process ends with: that of the first failure.
    ExitStatus status() const { return firstFailure; }

    /// Leaves the process without destroying the manager, see BluetoothManager.
    [[noreturn]] void leave(ExitStatus status);

    const Options options;
    Console& console;
    Host host;
    bool stopping = false;  ///< ends the sequence after this command

private:
    void remember(ExitStatus status) {
        if (firstFailure == ExitStatus::success) firstFailure = status;
    }

    ExitStatus firstFailure = ExitStatus::success;
};

}  // namespace corvanectl
