#include "Process.h"

#include "Command.h"
#include "LogAppender.h"
#include "Text.h"

#include <log4cplus/configurator.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>
#include <utility>

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace corvanectl {

namespace {

int errorDescriptor = -1;

extern "C" void onInterrupt(int /*signal*/) {
    if (Interrupt::count.fetch_add(1) == 0) return;
    // The line may hold a progress display.
    [[maybe_unused]] const ssize_t written = write(errorDescriptor, "\n", 1);
    _exit(static_cast<int>(ExitStatus::interrupted));
}

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

void Streams::claim() {
    // open() takes the lowest free number, so this opens what is closed.
    int nobody = -1;
    do {
        nobody = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (nobody >= 0 && nobody <= STDERR_FILENO);
    const auto take = [&](int descriptor, const char* mode) {
        std::FILE* const stream =
            fdopen(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), mode);
        if (stream == nullptr || dup2(nobody, descriptor) == -1) {
            throw std::system_error(errno, std::generic_category(), "standard streams");
        }
        return stream;
    };
    input = take(STDIN_FILENO, "r");
    output = take(STDOUT_FILENO, "w");
    errors = take(STDERR_FILENO, "w");
    close(nobody);
    std::setvbuf(errors, nullptr, _IONBF, 0);
    errorDescriptor = fileno(errors);
    // The log's console appender writes to std::cerr, which outlives every object of ours.
    std::cerr.rdbuf(new __gnu_cxx::stdio_filebuf<char>(errorDescriptor, std::ios::out));
}

void Streams::logCommandsTo(const std::string& file) {
    const int log = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (log == -1 || dup2(log, STDOUT_FILENO) == -1 || dup2(log, STDERR_FILENO) == -1) {
        throw Failure(ExitStatus::usage, "--command-log " + inQuotes(file) + ": " +
                                             std::strerror(errno) + "; name a writable file");
    }
    close(log);
}

std::size_t terminalColumns(std::FILE* stream) {
    constexpr std::size_t usual = 80;  // for terminals that do not say
    winsize size{};
    if (isatty(fileno(stream)) != 1) return 0;
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) == -1 || size.ws_col == 0) return usual;
    return size.ws_col;
}

void Interrupt::install() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    // Without SA_RESTART, so that the signal ends a read.
    sigaction(SIGINT, &action, nullptr);
}

void LineSource::readSome() {
    char buffer[4096];
    const ssize_t got = read(fileno(Streams::input), buffer, sizeof buffer);
    if (got > 0) ahead.append(static_cast<const char*>(buffer), static_cast<std::size_t>(got));
    ended = got == 0 || (got < 0 && errno != EINTR);
}

bool LineSource::next(std::string& line) {
    while (!isAhead()) {
        if (Interrupt::count > 0) return false;
        readSome();
    }
    if (ahead.empty()) return false;
    const std::size_t end = ahead.find('\n');
    line = ahead.substr(0, end);
    ahead.erase(0, end == std::string::npos ? end : end + 1);
    return true;
}

bool LineSource::takeIf(const std::string& word) {
    pollfd readable{fileno(Streams::input), POLLIN, 0};
    if (!isAhead() && poll(&readable, 1, 0) == 1) readSome();
    if (ahead.compare(0, word.size() + 1, word + '\n') != 0) return false;
    ahead.erase(0, word.size() + 1);
    return true;
}

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

void setUpLogging(const std::string& level, const std::string& file, const std::string& config,
                  const log4cplus::SharedAppenderPtr& records) {
    check("--log-config", config, std::ios_base::in);
    check("--log-file", file, std::ios_base::app);
    Logger logger = LogAppender::getLogger();
    if (config.empty()) {
        Logger::getRoot().removeAllAppenders();
        logger.removeAllAppenders();
        add(logger, new Screen);
    } else {
        configure(config);
    }
    const bool leveled = !level.empty();
    auto wanted = log4cplus::OFF_LOG_LEVEL;
    if (leveled) {
        wanted = log4cplus::getLogLevelManager().fromString(level);
    } else if (!config.empty()) {
        wanted = logger.getChainedLogLevel();
    }
    // The logger has to pass more on than before, to us: give the others what they got, or what was
    // asked for.
    for (Logger place : {logger, Logger::getRoot()}) {
        for (const auto& other : place.getAllAppenders()) {
            other->setThreshold(leveled ? wanted : std::max(other->getThreshold(), wanted));
        }
    }
    if (!file.empty()) {
        auto* const appender = new log4cplus::FileAppender(file, std::ios_base::app, true);
        if (leveled) appender->setThreshold(wanted);
        add(logger, appender);
    }
    logger.addAppender(records);
    logger.setLogLevel(std::min(wanted, log4cplus::DEBUG_LOG_LEVEL));
}

}  // namespace corvanectl
