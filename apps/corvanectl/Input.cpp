#include "Input.h"

#include "Command.h"
#include "Text.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <system_error>

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace corvanectl {

namespace {

// All that the signal handler uses.
std::atomic<int> interrupts{0};
int errorDescriptor = -1;

extern "C" void onInterrupt(int /*signal*/) {
    if (interrupts.fetch_add(1) == 0) return;
    // The line may hold a progress display.
    [[maybe_unused]] const ssize_t written = write(errorDescriptor, "\n", 1);
    _exit(static_cast<int>(ExitStatus::interrupted));
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
    // The log's console appender writes to std::cerr.
    static __gnu_cxx::stdio_filebuf<char> log(errorDescriptor, std::ios::out);
    std::cerr.rdbuf(&log);
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

void Interrupt::restart() { interrupts = 0; }

bool Interrupt::happened() { return interrupts > 0; }

void LineSource::readSome() {
    char buffer[4096];
    const ssize_t got = read(fileno(Streams::input), buffer, sizeof buffer);
    if (got > 0) ahead.append(static_cast<const char*>(buffer), static_cast<std::size_t>(got));
    ended = got == 0 || (got < 0 && errno != EINTR);
}

bool LineSource::next(std::string& line) {
    while (!isAhead()) {
        if (Interrupt::happened()) return false;
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

}  // namespace corvanectl
