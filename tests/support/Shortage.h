#pragma once

#include <vector>

#include <pthread.h>
#include <sys/resource.h>

namespace corvane::test {

/// While it exists the process gets no more descriptors, or only so many, up to 30.
class FewDescriptors {
public:
    explicit FewDescriptors(unsigned left = 0);
    ~FewDescriptors();
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    const std::vector<int> given;
    rlimit before{};
};

/// While it exists the process gets no more threads.
class NoThreads {
public:
    NoThreads();
    ~NoThreads();
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t before{};
};

}  // namespace corvane::test
