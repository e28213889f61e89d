#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace corvanectl {

using LogRecord = log4cplus::spi::InternalLoggingEvent;

/// The errors logged during a command. A request that keeps retrying can log thousands.
struct LoggedErrors {
    static constexpr std::size_t keptAtMost = 100;
    std::vector<LogRecord> first;
    std::size_t total = 0;
};

/// Collects the records of level ERROR and above from the host process's logger, and passes those
/// of level DEBUG and above on as they come. Thread-safe.
class LogRecords : public log4cplus::Appender {
public:
    using Listener = std::function<void(const LogRecord&)>;

    ~LogRecords() override { destructorImpl(); }
    void close() override {}

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
};

/// Where else the records go.
struct LogOptions {
    std::string level;   ///< trace, debug, info, error, off; empty: the default
    std::string file;    ///< appended to; empty: none
    std::string config;  ///< a log4cplus properties file; empty: none
};

/// Sets up the host process's logger and adds `records` to it. Without options the console shows
/// nothing: commands report the errors themselves. Throws Failure (usage) for an unusable file.
void setUpLogging(const LogOptions& options, const log4cplus::SharedAppenderPtr& records);

}  // namespace corvanectl
