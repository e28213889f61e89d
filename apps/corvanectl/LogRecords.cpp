#include "LogRecords.h"

#include "LogAppender.h"
#include "Text.h"

#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace corvanectl {

namespace {

/// One record a line, whatever the message holds.
class LineLayout : public log4cplus::Layout {
public:
    void formatAndAppend(log4cplus::tostream& output,
                         const log4cplus::spi::InternalLoggingEvent& event) override {
        output << log4cplus::helpers::getFormattedTime("%Y-%m-%d %H:%M:%S.%q ",
                                                       event.getTimestamp())
               << llmCache.toString(event.getLogLevel()) << ' ' << event.getFile() << ':'
               << event.getLine() << ' ' << event.getFunction() << ' '
               << escaped(event.getMessage()) << '\n';
    }
};

log4cplus::LogLevel levelOf(const std::string& name) {
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return log4cplus::getLogLevelManager().fromString(upper);
}

log4cplus::SharedAppenderPtr openFile(const std::string& file) {
    // log4cplus reports a file that it cannot open on the console only.
    const int descriptor = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor == -1) {
        throw Failure(ExitStatus::usage, "--log-file " + inQuotes(file) + ": " +
                                             std::strerror(errno) +
                                             "; name a file that can be written");
    }
    close(descriptor);
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::FileAppender(file, std::ios_base::app, true));
    appender->setLayout(std::make_unique<LineLayout>());
    return appender;
}

}  // namespace

void LogRecords::restart(Listener newListener) {
    const std::lock_guard<std::mutex> lock(mutex);
    kept = {};
    listener = std::move(newListener);
}

LoggedErrors LogRecords::errors() {
    const std::lock_guard<std::mutex> lock(mutex);
    return kept;
}

void LogRecords::append(const log4cplus::spi::InternalLoggingEvent& event) {
    if (event.getLogLevel() < log4cplus::DEBUG_LOG_LEVEL) return;
    const std::string& path = event.getFile();
    LogRecord record{event.getLogLevel(), event.getMessage(),
                     path.substr(path.rfind('/') + 1),  // npos + 1 is 0: the whole of it
                     event.getLine(), event.getFunction()};
    const std::lock_guard<std::mutex> lock(mutex);
    if (listener) listener(record);
    if (record.level < log4cplus::ERROR_LOG_LEVEL) return;
    ++kept.total;
    if (kept.first.size() < LoggedErrors::keptAtMost) kept.first.push_back(std::move(record));
}

Json toJson(const LogRecord& record) {
    return {{"level", log4cplus::getLogLevelManager().toString(record.level)},
            {"message", record.message},
            {"file", record.file},
            {"line", record.line},
            {"function", record.function}};
}

void setUpLogging(const LogOptions& options, const log4cplus::SharedAppenderPtr& records) {
    if (!options.config.empty() && !LogAppender::loadConfiguration(options.config)) {
        throw Failure(ExitStatus::usage, "--log-config " + inQuotes(options.config) +
                                             ": not a log4cplus properties file that configures "
                                             "an appender");
    }
    log4cplus::Logger logger = LogAppender::getLogger();
    const char* const environment = std::getenv("CORVANE_LOG_CONFIG");
    const bool configured =
        !options.config.empty() || (environment != nullptr && *environment != '\0');

    log4cplus::LogLevel wanted = log4cplus::OFF_LOG_LEVEL;
    if (!options.level.empty()) {
        wanted = levelOf(options.level);
    } else if (configured) {
        wanted = logger.getChainedLogLevel();
    }
    // The records that we collect make the logger pass on more than before; what the others get
    // stays what it was, or becomes what was asked for.
    for (const log4cplus::Logger& each : {logger, log4cplus::Logger::getRoot()}) {
        log4cplus::Logger place = each;
        for (const auto& appender : place.getAllAppenders()) {
            const auto threshold =
                options.level.empty() ? std::max(appender->getThreshold(), wanted) : wanted;
            appender->setThreshold(threshold);
        }
    }
    if (!options.file.empty()) {
        const auto appender = openFile(options.file);
        if (!options.level.empty()) appender->setThreshold(wanted);
        logger.addAppender(appender);
    }
    logger.addAppender(records);
    logger.setLogLevel(wanted == log4cplus::TRACE_LOG_LEVEL ? log4cplus::TRACE_LOG_LEVEL
                                                            : log4cplus::DEBUG_LOG_LEVEL);
}

}  // namespace corvanectl
