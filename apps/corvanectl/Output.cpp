#include "Output.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace corvanectl {

namespace {

std::FILE* ours = stdout;

}  // namespace

void Output::claim() {
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    std::FILE* const stream = kept == -1 ? nullptr : fdopen(kept, "w");
    if (stream == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) == -1) {
        throw std::system_error(errno, std::generic_category(), "standard output");
    }
    ours = stream;
}

std::FILE* Output::file() { return ours; }

std::size_t columnsOf(int descriptor) {
    constexpr std::size_t usual = 80;  // what terminals have that do not tell
    winsize size{};
    if (isatty(descriptor) != 1) return 0;
    if (ioctl(descriptor, TIOCGWINSZ, &size) == -1 || size.ws_col == 0) return usual;
    return size.ws_col;
}

}  // namespace corvanectl
