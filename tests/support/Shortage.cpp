#include "Shortage.h"

#include <cstddef>

#include <unistd.h>

namespace corvane::test {

FewDescriptors::FewDescriptors(unsigned left) {
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowestFree = dup(STDERR_FILENO);
    close(lowestFree);
    const rlimit few{static_cast<rlim_t>(lowestFree) + left, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
}

FewDescriptors::~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }

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
