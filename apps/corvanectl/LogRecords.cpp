#include "LogRecords.h"

#include "Command.h"
#include "Input.h"
#include "LogAppender.h"
#include "Text.h"

#include <log4cplus/configurator.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace corvanectl {

namespace {

using log4cplus::Logger;

/// One record per line, whatever the message holds.
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

/// Our standard error: the host process's own console appender may write to descriptor 2, which is
/// for commands and daemons here. Not through std::cerr, which stays broken once a signal has
/// interrupted a write.
class Screen : public log4cplus::Appender {
public:
    ~Screen() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const LogRecord& record) override {
        std::fputs(formatEvent(record).c_str(), Streams::errors);
    }
};

void add(Logger logger, log4cplus::Appender* appender) {
    appender->setLayout(std::make_unique<LineLayout>());
    logger.addAppender(log4cplus::SharedAppenderPtr(appender));
}

/// Replaces the host process's own configuration.
void configure(const std::string& file) {
    log4cplus::Hierarchy& hierarchy = Logger::getDefaultHierarchy();
    hierarchy.resetConfiguration();
    log4cplus::PropertyConfigurator(file, hierarchy).configure();
    auto loggers = hierarchy.getCurrentLoggers();
    loggers.push_back(hierarchy.getRoot());
    if (std::all_of(loggers.begin(), loggers.end(),
                    [](Logger& each) { return each.getAllAppenders().empty(); })) {
        throw Failure(ExitStatus::usage, "--log-config " + inQuotes(file) +
                                             ": not a log4cplus properties file that configures "
                                             "an appender");
    }
}

/// log4cplus reports a file that it cannot open on the console only.
void check(const char* option, const std::string& file, std::ios_base::openmode mode) {
    if (file.empty() || std::fstream(file, mode)) return;
    throw Failure(ExitStatus::usage,
                  std::string(option) + ' ' + inQuotes(file) + ": " + std::strerror(errno));
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
    check("--log-config", options.config, std::ios_base::in);
    check("--log-file", options.file, std::ios_base::app);
    Logger logger = LogAppender::getLogger();
    if (options.config.empty()) {
        Logger::getRoot().removeAllAppenders();
        logger.removeAllAppenders();
        add(logger, new Screen);
    } else {
        configure(options.config);
    }
    const bool leveled = !options.level.empty();
    auto wanted = log4cplus::OFF_LOG_LEVEL;
    if (leveled) {
        wanted = log4cplus::getLogLevelManager().fromString(options.level);
    } else if (!options.config.empty()) {
        wanted = logger.getChainedLogLevel();
    }
    // The logger has to pass more on than before, to us: give the others what they got, or what was
    // asked for.
    for (Logger place : {logger, Logger::getRoot()}) {
        for (const auto& appender : place.getAllAppenders()) {
            appender->setThreshold(leveled ? wanted : std::max(appender->getThreshold(), wanted));
        }
    }
    if (!options.file.empty()) {
        auto* const file = new log4cplus::FileAppender(options.file, std::ios_base::app, true);
        if (leveled) file->setThreshold(wanted);
        add(logger, file);
    }
    logger.addAppender(records);
    logger.setLogLevel(std::min(wanted, log4cplus::DEBUG_LOG_LEVEL));
}

}  // namespace corvanectl
