#include "Shortage.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace corvane::test {

namespace {

constexpr int mostLeft = 30;

/// Takes the lowest free descriptor from this number up.
int take(int from) { return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, from); }

/// Low descriptors that nobody else has, taken at program start. What is open below the limit must
/// stay open: GDBus's thread closes some of its own with a delay, and each would be one more to
/// have.
std::vector<int> reserve() {
    std::vector<int> descriptors(mostLeft);
    for (int& descriptor : descriptors) descriptor = take(STDERR_FILENO + 1);
    return descriptors;
}

std::vector<int> reserved = reserve();

}  // namespace

FewDescriptors::FewDescriptors(unsigned left) : given(reserved.end() - left, reserved.end()) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{static_cast<rlim_t>(reserved.back()) + 1, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    for (const int descriptor : given) close(descriptor);
}

FewDescriptors::~FewDescriptors() {
    setrlimit(RLIMIT_NOFILE, &before);
    for (const int descriptor : given) {
        const int taken = take(descriptor);
        if (taken == descriptor) continue;
        close(taken);
        // It is in use; its owner will close it.
        reserved.erase(std::find(reserved.begin(), reserved.end(), descriptor));
    }
}

NoThreads::NoThreads() {
    pthread_getattr_default_np(&before);
    pthread_attr_t greedy{};
    pthread_getattr_default_np(&greedy);
    pthread_attr_setstacksize(&greedy, std::size_t{1} << 60U);  // more than there are addresses
    pthread_setattr_default_np(&greedy);
    pthread_attr_destroy(&greedy);
}

NoThreads::~NoThreads() {
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&before);
}

}  // namespace corvane::test
