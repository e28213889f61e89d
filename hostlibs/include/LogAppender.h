#pragma once

#include <log4cplus/logger.h>

#include <string>

/// The host process's logger.
///
/// What libCorvane relies on: getLogger() may be called from any thread, before main() too, returns
/// the same logger each time, and that logger can still be used while static objects are destroyed.
class LogAppender {
public:
    /// The logger that every record of libCorvane goes through. The first call sets it up: the
    /// log4cplus properties file named by the environment variable CORVANE_LOG_CONFIG where there
    /// is one that can be used, otherwise the console (standard error) from level INFO on. A record
    /// shows time, level, file, line, full function signature and message. On the console, control
    /// characters and invalid UTF-8 in a message are written as `\xNN`, since device names come
    /// from strangers; a properties file has the same by the layout corvane::PrintableLayout.
    static const log4cplus::Logger& getLogger();

    /// Replaces the configuration by that of a log4cplus properties file. Not needed by libCorvane;
    /// host programs offer it as an option. Call it before other threads log.
    /// @return false when the file cannot be read or configures no appender; the reason is logged
    /// with the file's name and the previous configuration stays
    static bool loadConfiguration(const std::string& propertiesFile);
};
