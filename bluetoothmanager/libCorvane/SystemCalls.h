#pragma once

#include "Handles.h"

#include <array>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace corvane {

/// hwtools::Condition::wait() returns this when the time has passed: the kernel's ETIMEDOUT. A
/// host's header need not name it.
constexpr int waitTimedOut = 110;

/// Blocks this thread's signals while it exists. A signal makes HCI requests and the opening of an
/// sd-bus connection fail. Retrying would start over, and never end under a periodic timer.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all{};
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before{};
};

/// Moves a descriptor that became 0, 1 or 2 because the host closed them. Otherwise the host's
/// output would go to the controller.
/// @param descriptor  the descriptor, or -1
/// @return the descriptor to use; -1 if there was none or no other is free
inline int aboveStandardStreams(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
    const Descriptor low(descriptor);
    return fcntl(low.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

/// Keeps descriptors 0, 1 and 2 taken while it exists, for descriptors that we cannot move.
class StandardStreamsReserved {
public:
    StandardStreamsReserved() {
        for (int number = 0; number < 3; ++number) {
            if (fcntl(number, F_GETFD) != -1) continue;
            Descriptor opened(open("/dev/null", O_RDWR | O_CLOEXEC));
            // open() returns this number unless another thread was faster.
            if (opened.get() == number)
                reserved.at(static_cast<unsigned>(number)) = std::move(opened);
        }
    }

private:
    std::array<Descriptor, 3> reserved;
};

}  // namespace corvane
