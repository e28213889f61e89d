#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include <time.h>

namespace corvane::bench {

/// Not std::chrono::steady_clock: that is the library's, which the stand-in for the machine takes
/// over.
inline std::int64_t nanoseconds(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

/// How long an action takes.
template <class Action>
std::int64_t timeOf(const Action& action) {
    const std::int64_t start = nanoseconds();
    action();
    return nanoseconds() - start;
}

/// One measured value; several of one name are the rounds, in order. corvane-bench-report reads
/// these lines.
inline void sample(const std::string& name, std::int64_t value) {
    std::printf("%s %lld\n", name.c_str(), static_cast<long long>(value));
    std::fflush(stdout);
}

/// Calls `measure` once for each line of standard input, so that whoever writes the lines sets the
/// pace; answers with a line "NANOSECONDS PROCESSOR-NANOSECONDS COUNT", where the count shows that
/// the work was done.
template <class Measure>
int serveRounds(const Measure& measure) {
    for (int c = 0; (c = std::getchar()) != EOF;) {
        if (c != '\n') continue;
        unsigned count = 0;
        const std::int64_t before = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
        const std::int64_t time = measure(count);
        const std::int64_t processor = nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - before;
        std::printf("%lld %lld %u\n", static_cast<long long>(time),
                    static_cast<long long>(processor), count);
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace corvane::bench
