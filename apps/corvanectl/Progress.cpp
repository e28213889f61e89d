#include "Progress.h"

#include "Output.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace corvanectl {

namespace {

constexpr char clearLine[] = "\r\x1b[K";
constexpr std::size_t widestBar = 40;

}  // namespace

Progress::~Progress() {
    if (drawn) std::fputs(clearLine, stderr);
}

void Progress::change(const std::string& what) {
    label = what;
    length = std::chrono::milliseconds(0);
    start = Clock::now();
}

void Progress::draw() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    const auto gone = duration_cast<milliseconds>(Clock::now() - start);
    const auto seconds = [](milliseconds time) { return std::to_string(time.count() / 1000); };
    const std::size_t width = columnsOf(STDERR_FILENO);
    std::string line = label + "  ";
    if (length.count() == 0) {
        line += seconds(gone) + " s";
    } else {
        const auto left = std::max(length - gone, milliseconds(0));
        // Rounded up, so that it does not say 0 while there is still something to wait for.
        const std::string time = seconds(left + milliseconds(999)) + " s left";
        const std::size_t taken = line.size() + time.size() + 5;
        const std::size_t bar = std::min(width > taken ? width - taken : 0, widestBar);
        const auto full = static_cast<std::size_t>(static_cast<long>(bar) *
                                                   std::min(gone, length).count() / length.count());
        if (bar > 0) line += '[' + std::string(full, '#') + std::string(bar - full, '.') + "] ";
        line += time;
    }
    // The last column stays free: some terminals wrap there.
    line.resize(std::min(line.size(), width - 1));
    std::fprintf(stderr, "%s%s", clearLine, line.c_str());
    std::fflush(stderr);
    drawn = true;
}

}  // namespace corvanectl
