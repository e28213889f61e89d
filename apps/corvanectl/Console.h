#pragma once

#include "Command.h"
#include "LogRecords.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace corvanectl {

/// What a command waits for, on a terminal: a bar with the time left, or the time gone. A thread of
/// its own draws it; gone when destroyed.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// Shows after two seconds that `command` takes its time.
    explicit Progress(const std::string& command);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows at once what is waited for.
    /// @param limit  how long it takes at most; 0 when nobody knows
    void waitFor(const std::string& what, std::chrono::milliseconds limit);

    /// Prints a line of its own.
    void step(const std::string& line);

private:
    void drawUntilDone();
    void draw();
    void clear();

    std::mutex mutex;
    std::condition_variable change;
    std::string label;
    std::chrono::milliseconds length{0};
    Clock::time_point start = Clock::now();
    Clock::time_point visibleFrom;
    bool drawn = false;
    bool done = false;
    std::thread artist;
};

/// Talks to the user: text on standard output and problems on standard error, or a line of JSON
/// for each command on standard output.
class Console {
public:
    Console(bool asJson, LogRecords& logRecords) : json(asJson), records(logRecords) {}

    /// A command begins: shows its progress on a terminal.
    void begin(const Command& command);

    /// Shows what the command waits for.
    void waitFor(const std::string& what, std::chrono::milliseconds limit);

    /// Shows the library's records as the command's steps.
    void showSteps();

    /// The command has ended: tells its result.
    void end(const Invocation& invocation, const Result& result,
             std::chrono::milliseconds duration);

    /// Tells of a command that could not be read.
    void report(const Failure& failure);

    /// Prints text as it is, or as the "result" of an object with --json.
    void print(const std::string& text, const Json& data);

    /// Columns of the terminal on standard output; 0 when there is none.
    static std::size_t width();
    static std::size_t widthOrUsual() { return width() > 0 ? width() : 80; }

    bool json;
    LogRecords& records;

private:
    void printJson(const Invocation& invocation, const Result& result,
                   std::chrono::milliseconds duration);

    std::unique_ptr<Progress> progress;
};

}  // namespace corvanectl
