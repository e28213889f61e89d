#pragma once

#include "Command.h"

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace corvanectl {

using LogRecord = log4cplus::spi::InternalLoggingEvent;

/// The errors of one command. A request that tries again and again can log thousands.
struct LoggedErrors {
    static constexpr std::size_t keptAtMost = 100;
    std::vector<LogRecord> first;  ///< the first ones, keptAtMost at most
    std::size_t total = 0;
};

/// Sees the records of the host process's logger: keeps those of level ERROR and above, and passes
/// those of level DEBUG and above on as they come. Records come from any thread.
class LogRecords : public log4cplus::Appender {
public:
    using Listener = std::function<void(const LogRecord&)>;

    LogRecords() = default;
    ~LogRecords() override { destructorImpl(); }
    void close() override {}

    /// Forgets the errors.
    void restart();

    /// Takes a listener for what follows; may be empty.
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

/// Where the records go besides.
struct LogOptions {
    std::string level;   ///< trace, debug, info, error, off; empty: the default
    std::string file;    ///< appended to; empty: none
    std::string config;  ///< a log4cplus properties file; empty: none
};

/// Sets the host process's logger up and adds `records` to it. Without options, the console shows
/// nothing: commands report the errors themselves. Throws Failure (usage) for a file that cannot be
/// used.
void setUpLogging(const LogOptions& options, const log4cplus::SharedAppenderPtr& records);

}  // namespace corvanectl
