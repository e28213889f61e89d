#include "LogRecords.h"

#include "Input.h"
#include "LogAppender.h"
#include "Text.h"

#include <log4cplus/configurator.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace corvanectl {

namespace {

using log4cplus::Logger;

/// One record a line, whatever the message holds.
class LineLayout : public log4cplus::Layout {
public:
    void formatAndAppend(log4cplus::tostream& output, const LogRecord& event) override {
        output << log4cplus::helpers::getFormattedTime("%Y-%m-%d %H:%M:%S.%q ",
                                                       event.getTimestamp())
               << llmCache.toString(event.getLogLevel()) << ' ' << event.getFile() << ':'
               << event.getLine() << ' ' << event.getFunction() << ' '
               << escaped(event.getMessage()) << '\n';
    }
};

log4cplus::LogLevel levelOf(std::string name) {
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return log4cplus::getLogLevelManager().fromString(name);
}

/// Our standard error: the host process's own console appender may write to descriptor 2, which is
/// for commands and daemons here.
class Screen : public log4cplus::Appender {
public:
    Screen() { setLayout(std::make_unique<LineLayout>()); }
    ~Screen() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const LogRecord& record) override {
        std::fputs(formatEvent(record).c_str(), Streams::errors());
    }
};

Failure unusable(const char* option, const std::string& file, const std::string& reason) {
    return {ExitStatus::usage, std::string(option) + ' ' + inQuotes(file) + ": " + reason};
}

/// Replaces the host process's own configuration.
void configure(const std::string& file) {
    std::ifstream stream(file);
    if (!stream) throw unusable("the log configuration", file, std::strerror(errno));
    log4cplus::Hierarchy& hierarchy = Logger::getDefaultHierarchy();
    hierarchy.resetConfiguration();
    log4cplus::PropertyConfigurator(log4cplus::helpers::Properties(stream), hierarchy).configure();
    auto loggers = hierarchy.getCurrentLoggers();
    loggers.push_back(hierarchy.getRoot());
    if (std::all_of(loggers.begin(), loggers.end(),
                    [](Logger& each) { return each.getAllAppenders().empty(); })) {
        throw unusable("the log configuration", file,
                       "not a log4cplus properties file that configures an appender");
    }
}

log4cplus::SharedAppenderPtr openFile(const std::string& file) {
    // log4cplus reports a file that it cannot open on the console only.
    if (!std::ofstream(file, std::ios_base::app)) {
        throw unusable("--log-file", file,
                       std::string(std::strerror(errno)) + "; name a file that can be written");
    }
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::FileAppender(file, std::ios_base::app, true));
    appender->setLayout(std::make_unique<LineLayout>());
    return appender;
}

}  // namespace

void LogRecords::restart() {
    const std::lock_guard<std::mutex> lock(mutex);
    kept = {};
}

void LogRecords::listen(Listener newListener) {
    const std::lock_guard<std::mutex> lock(mutex);
    listener = std::move(newListener);
}

LoggedErrors LogRecords::errors() {
    const std::lock_guard<std::mutex> lock(mutex);
    return kept;
}

void LogRecords::append(const LogRecord& record) {
    if (record.getLogLevel() < log4cplus::DEBUG_LOG_LEVEL) return;
    const std::lock_guard<std::mutex> lock(mutex);
    if (listener) listener(record);
    if (record.getLogLevel() < log4cplus::ERROR_LOG_LEVEL) return;
    ++kept.total;
    if (kept.first.size() < LoggedErrors::keptAtMost) kept.first.push_back(record);
}

void setUpLogging(const LogOptions& options, const log4cplus::SharedAppenderPtr& records) {
    Logger logger = LogAppender::getLogger();
    if (options.config.empty()) {
        Logger::getRoot().removeAllAppenders();
        logger.removeAllAppenders();
        logger.addAppender(log4cplus::SharedAppenderPtr(new Screen));
    } else {
        configure(options.config);
    }
    const bool leveled = !options.level.empty();
    log4cplus::LogLevel wanted = leveled ? levelOf(options.level) : log4cplus::OFF_LOG_LEVEL;
    if (!leveled && !options.config.empty()) wanted = logger.getChainedLogLevel();
    // The records that we collect make the logger pass on more than before; what the others get
    // stays what it was, or becomes what was asked for.
    for (Logger place : {logger, Logger::getRoot()}) {
        for (const auto& appender : place.getAllAppenders()) {
            appender->setThreshold(leveled ? wanted : std::max(appender->getThreshold(), wanted));
        }
    }
    if (!options.file.empty()) {
        const auto appender = openFile(options.file);
        if (leveled) appender->setThreshold(wanted);
        logger.addAppender(appender);
    }
    logger.addAppender(records);
    logger.setLogLevel(wanted == log4cplus::TRACE_LOG_LEVEL ? log4cplus::TRACE_LOG_LEVEL
                                                            : log4cplus::DEBUG_LOG_LEVEL);
}

}  // namespace corvanectl
