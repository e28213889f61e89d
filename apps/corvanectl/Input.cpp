#include "Input.h"

#include "Command.h"
#include "Text.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
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

std::array<std::FILE*, 3> kept{};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void replace(int descriptor, int with) {
    if (dup2(with, descriptor) == -1) fail("dup2");
}

// A signal handler may use nothing but these.
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
    // Each takes the lowest free number, so none of ours is below 3.
    int nobody = -1;
    do {
        nobody = open("/dev/null", O_RDWR);
        if (nobody == -1) fail("/dev/null");
    } while (nobody <= STDERR_FILENO);
    for (int i = STDIN_FILENO; i <= STDERR_FILENO; ++i) {
        const int own = fcntl(i, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        kept.at(static_cast<std::size_t>(i)) = fdopen(own, i == STDIN_FILENO ? "r" : "w");
        if (kept.at(static_cast<std::size_t>(i)) == nullptr) fail("standard streams");
        replace(i, nobody);
    }
    close(nobody);
    std::setvbuf(errors(), nullptr, _IONBF, 0);
    errorDescriptor = fileno(errors());
    // The log's console appender writes there.
    static __gnu_cxx::stdio_filebuf<char> log(errorDescriptor, std::ios::out);
    std::cerr.rdbuf(&log);
}

void Streams::logCommandsTo(const std::string& file) {
    const int log = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (log == -1) {
        throw Failure(ExitStatus::usage, "--command-log " + inQuotes(file) + ": " +
                                             std::strerror(errno) +
                                             "; name a file that can be written");
    }
    replace(STDOUT_FILENO, log);
    replace(STDERR_FILENO, log);
    close(log);
}

std::FILE* Streams::input() { return kept[0]; }
std::FILE* Streams::output() { return kept[1]; }
std::FILE* Streams::errors() { return kept[2]; }

std::size_t terminalColumns(std::FILE* stream) {
    constexpr std::size_t usual = 80;  // for terminals that do not tell
    winsize size{};
    if (isatty(fileno(stream)) != 1) return 0;
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) == -1 || size.ws_col == 0) return usual;
    return size.ws_col;
}

void Interrupt::install() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    // Without SA_RESTART: a read ends.
    sigaction(SIGINT, &action, nullptr);
}

void Interrupt::restart() { interrupts = 0; }

bool Interrupt::happened() { return interrupts > 0; }

void LineSource::readSome() {
    char buffer[4096];
    const ssize_t got = read(descriptor, buffer, sizeof buffer);
    if (got > 0) {
        ahead.append(static_cast<const char*>(buffer), static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
        ended = true;
    }
}

bool LineSource::next(std::string& line) {
    while (ahead.find('\n') == std::string::npos && !ended) {
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
    pollfd readable{descriptor, POLLIN, 0};
    if (!ended && ahead.find('\n') == std::string::npos && poll(&readable, 1, 0) == 1) readSome();
    if (ahead.compare(0, word.size() + 1, word + '\n') != 0) return false;
    ahead.erase(0, word.size() + 1);
    return true;
}

std::string LineSource::takeRest() { return std::exchange(ahead, {}); }

}  // namespace corvanectl
