#include "Process.h"

#include "Command.h"
#include "LogAppender.h"
#include "Text.h"

#include <log4cplus/configurator.h>
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

Failure unusable(const char* option, const std::string& file, const std::string& reason) {
    return {ExitStatus::usage, std::string(option) + ' ' + inQuotes(file) + ": " + reason};
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
        throw unusable("--command-log", file,
                       std::strerror(errno) + std::string("; name a writable file"));
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

LogRecords::LogRecords() {
    setLayout(std::make_unique<log4cplus::PatternLayout>("%D{%Y-%m-%d %H:%M:%S.%q} %p %l %M "));
}

void LogRecords::setUp(const std::string& level, const std::string& file,
                       const std::string& config) {
    Logger logger = LogAppender::getLogger();
    Logger root = Logger::getRoot();
    auto wanted = level.empty() ? log4cplus::OFF_LOG_LEVEL
                                : log4cplus::getLogLevelManager().fromString(level);
    if (config.empty()) {
        root.removeAllAppenders();
        logger.removeAllAppenders();
        copies[Streams::errors] = wanted;
    } else {
        if (!std::ifstream(config)) throw unusable("--log-config", config, std::strerror(errno));
        log4cplus::Hierarchy& hierarchy = Logger::getDefaultHierarchy();
        hierarchy.resetConfiguration();
        log4cplus::PropertyConfigurator(config, hierarchy).configure();
        if (level.empty()) wanted = logger.getChainedLogLevel();
        auto others = logger.getAllAppenders();
        for (const auto& other : root.getAllAppenders()) others.push_back(other);
        if (others.empty()) {
            throw unusable("--log-config", config,
                           "not a log4cplus properties file that configures an appender");
        }
        // The logger has to pass more on than before, to us: give the others what they got, or what
        // was asked for.
        for (const auto& other : others) {
            other->setThreshold(level.empty() ? std::max(other->getThreshold(), wanted) : wanted);
        }
    }
    if (!file.empty()) {
        std::FILE* const copy = std::fopen(file.c_str(), "ae");
        if (copy == nullptr) throw unusable("--log-file", file, std::strerror(errno));
        copies[copy] = level.empty() ? log4cplus::ALL_LOG_LEVEL : wanted;
    }
    logger.addAppender(log4cplus::SharedAppenderPtr(this));
    logger.setLogLevel(std::min(wanted, log4cplus::DEBUG_LOG_LEVEL));
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
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [copy, from] : copies) {
        if (record.getLogLevel() < from) continue;
        // One line, whatever the message holds.
        std::fputs((formatEvent(record) + escaped(record.getMessage()) + '\n').c_str(), copy);
        std::fflush(copy);
    }
    if (listener && record.getLogLevel() >= log4cplus::DEBUG_LOG_LEVEL) listener(record);
    if (record.getLogLevel() < log4cplus::ERROR_LOG_LEVEL) return;
    ++kept.total;
    if (kept.first.size() < LoggedErrors::keptAtMost) kept.first.push_back(record);
}

}  // namespace corvanectl
