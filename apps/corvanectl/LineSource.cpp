#include "LineSource.h"

#include "Interrupt.h"

#include <cerrno>
#include <utility>

#include <poll.h>
#include <unistd.h>

namespace corvanectl {

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
    while (!hasLine() && !ended) {
        pollfd waits[] = {{descriptor, POLLIN, 0}, {Interrupt::descriptor(), POLLIN, 0}};
        poll(waits, 2, -1);
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
    pollfd readable{awaited(), POLLIN, 0};
    if (readable.fd != -1 && poll(&readable, 1, 0) == 1) readSome();
    const std::size_t end = ahead.find('\n');
    if (end == std::string::npos || ahead.substr(0, end) != word) return false;
    ahead.erase(0, end + 1);
    return true;
}

std::string LineSource::takeRest() { return std::exchange(ahead, {}); }

}  // namespace corvanectl
