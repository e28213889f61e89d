#pragma once

#include "Command.h"
#include "Host.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace corvanectl {

/// Shows on a terminal what a command waits for, with the time left or the time gone. A thread of
/// its own draws it; destruction removes it.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    explicit Progress(const std::string& command);
    ~Progress();

    /// Shows what is waited for.
    /// @param limit  how long at most; 0 when unknown
    /// @param delay  before it is shown
    void show(const std::string& newLabel, std::chrono::milliseconds limit,
              std::chrono::milliseconds delay);

    /// Prints a line of its own.
    void step(const std::string& line);

private:
    void clear();
    void draw();

    std::mutex mutex;
    std::condition_variable change;
    std::string label;
    std::chrono::milliseconds length{0};
    Clock::time_point begin;
    Clock::time_point visibleFrom;
    bool done = false;
    std::thread artist;
};

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

    /// Runs a command and prints its result.
    ExitStatus run(const Invocation& invocation);

    /// Runs a command without printing anything.
    Result runQuietly(const Invocation& invocation);

    /// Prints why a command could not be read.
    ExitStatus report(const Failure& failure);

    /// Prints a result. The invocation is empty when there was no command.
    void print(const Invocation& invocation, const Result& result,
               std::chrono::milliseconds duration = {});

    /// Shows what the command waits for.
    void waitFor(const std::string& what, std::chrono::milliseconds limit);

    /// Shows the library's records as the command's steps.
    void showSteps();

    /// Whether the sequence goes on after a command with this status.
    bool goesOn(ExitStatus last) const;

    /// Leaves the process without destroying the manager, see BluetoothManager.
    [[noreturn]] void leave();

    /// Columns of the terminal on standard output, 80 when there is none.
    static std::size_t widthOrUsual();

    const Options& options;
    LogRecords& records;
    Host host;
    ExitStatus status = ExitStatus::success;  ///< of the first failure; the process ends with it
    bool stopping = false;                    ///< ends the sequence after this command

private:
    void printJson(const Invocation& invocation, const Result& result,
                   std::chrono::milliseconds duration);
    void remember(ExitStatus ended) {
        if (status == ExitStatus::success) status = ended;
    }

    std::unique_ptr<Progress> progress;
};

/// The interactive shell: runs commands from the terminal on standard input until its user leaves.
/// The prompt shows the radio's state, Tab completes commands and device names, and
/// ~/.corvanectl_history keeps the history.
void runShell(Session& session, LineSource& input);

}  // namespace corvanectl
