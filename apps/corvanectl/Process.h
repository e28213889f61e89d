#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace corvanectl {

/// The descriptors that corvanectl was started with, out of reach of what it starts: daemons live
/// on, and a reader of our output would wait for their end.
struct Streams {
    /// Opens those of descriptors 0 to 2 that are closed, takes all three over, and leaves
    /// /dev/null in their place for commands and daemons.
    static void claim();

    /// Lets commands and daemons write to a file. Throws Failure (usage).
    static void logCommandsTo(const std::string& file);

    inline static std::FILE* input = nullptr;
    inline static std::FILE* output = nullptr;
    inline static std::FILE* errors = nullptr;
};

/// Columns of the terminal behind a stream, as it is now; 0 when it is not a terminal.
std::size_t terminalColumns(std::FILE* stream);

/// Ctrl-C. The first one during a command is noted; the second one ends the process at once.
struct Interrupt {
    /// Takes the signal over, for the whole process.
    static void install();

    inline static std::atomic<int> count{0};  ///< since the command began
};

/// The lines of standard input, read without stdio: what is there can be told from what is not.
class LineSource {
public:
    /// Waits for the next line. The last one may lack its line end.
    /// @return false at the end of input, and after Ctrl-C
    bool next(std::string& line);

    /// Whether next() would return without waiting.
    bool isAhead() const { return ended || ahead.find('\n') != std::string::npos; }

    /// Takes the next line when it is already there and says `word`.
    bool takeIf(const std::string& word);

private:
    void readSome();

    std::string ahead;
    bool ended = false;
};

using LogRecord = log4cplus::spi::InternalLoggingEvent;

/// The errors logged during a command. A request that keeps retrying can log thousands.
struct LoggedErrors {
    static constexpr std::size_t keptAtMost = 100;
    std::vector<LogRecord> first;
    std::size_t total = 0;
};

/// The log, as far as it is ours: collects the errors, passes records of level DEBUG and above on
/// as they come, and prints them where the user wants. Thread-safe.
class LogRecords : public log4cplus::Appender {
public:
    using Listener = std::function<void(const LogRecord&)>;

    LogRecords();
    ~LogRecords() override { destructorImpl(); }
    void close() override {}

    /// Sets up the host process's logger and adds this to it. Without options the console shows
    /// nothing: commands report the errors themselves. Throws Failure (usage) for an unusable file.
    /// @param level   trace, debug, info, error, off; empty for the default
    /// @param file    appended to; empty for none
    /// @param config  a log4cplus properties file; empty for none
    void setUp(const std::string& level, const std::string& file, const std::string& config);

    /// Forgets the errors.
    void restart();

    /// Passes what follows to a listener; may be empty.
    void listen(Listener newListener);

    /// The errors since the last restart().
    LoggedErrors errors();

protected:
    void append(const LogRecord& record) override;

private:
    std::mutex mutex;
    LoggedErrors kept;
    Listener listener;
    std::map<std::FILE*, log4cplus::LogLevel> copies;  ///< where it is printed, from which level on
};

}  // namespace corvanectl
