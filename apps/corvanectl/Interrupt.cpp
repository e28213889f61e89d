#include "Interrupt.h"

#include "ExitStatus.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace corvanectl {

namespace {

// A signal handler may use nothing but these.
std::atomic<int> count{0};
int wakeUp = -1;

extern "C" void onInterrupt(int /*signal*/) {
    const int saved = errno;
    [[maybe_unused]] ssize_t written = 0;
    if (count.fetch_add(1) > 0) {
        written = write(STDERR_FILENO, "\n", 1);  // the line may hold a progress display
        _exit(static_cast<int>(ExitStatus::interrupted));
    }
    const std::uint64_t one = 1;
    written = write(wakeUp, &one, sizeof one);
    errno = saved;
}

}  // namespace

void Interrupt::install() {
    wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUp == -1) throw std::system_error(errno, std::generic_category(), "eventfd");
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    // Without SA_RESTART: a read at the prompt ends.
    sigaction(SIGINT, &action, nullptr);
}

void Interrupt::restart() {
    std::uint64_t pending = 0;
    [[maybe_unused]] const ssize_t got = read(wakeUp, &pending, sizeof pending);
    count = 0;
}

bool Interrupt::happened() { return count > 0; }

int Interrupt::descriptor() { return wakeUp; }

}  // namespace corvanectl
