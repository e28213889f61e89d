#pragma once

#include <log4cplus/logger.h>

#include <string>

/// The host process's logger.
///
/// libCorvane relies on this: any thread may call getLogger(), even before main(); it always
/// returns the same logger, which works during static destruction.
class LogAppender {
public:
    /// Returns the logger for all of libCorvane's records. The first call configures it from the
    /// log4cplus properties file named by the environment variable CORVANE_LOG_CONFIG or, without a
    /// usable file, for the console (standard error) at level INFO. A record shows time, level,
    /// file, line, function signature and message. The console shows control characters and invalid
    /// UTF-8 in a message as `\xNN`, because device names come from strangers; in a properties file
    /// the layout corvane::PrintableLayout does the same.
    /// @return the logger
    static const log4cplus::Logger& getLogger();

    /// Replaces the configuration. libCorvane does not need this; host programs offer it as an
    /// option. Call it before other threads log.
    /// @param propertiesFile  a log4cplus properties file
    /// @return false when the file cannot be read or configures no appender; the log then has the
    /// file's name and the reason, and the previous configuration stays
    static bool loadConfiguration(const std::string& propertiesFile);
};
