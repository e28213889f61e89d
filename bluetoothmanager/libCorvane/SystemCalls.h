#pragma once

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
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(descriptor);
    return moved;
}

/// Keeps descriptors 0, 1 and 2 taken while it exists, for descriptors that we cannot move.
class StandardStreamsReserved {
public:
    StandardStreamsReserved() {
        for (int descriptor = 0; descriptor < 3; ++descriptor) {
            if (fcntl(descriptor, F_GETFD) != -1) continue;
            // open() returns this number unless another thread was faster.
            const int opened = open("/dev/null", O_RDWR | O_CLOEXEC);
            if (opened == descriptor) {
                reserved.at(static_cast<unsigned>(descriptor)) = true;
            } else if (opened >= 0) {
                close(opened);
            }
        }
    }
    ~StandardStreamsReserved() {
        for (int descriptor = 0; descriptor < 3; ++descriptor) {
            if (reserved.at(static_cast<unsigned>(descriptor))) close(descriptor);
        }
    }
    StandardStreamsReserved(const StandardStreamsReserved&) = delete;
    StandardStreamsReserved& operator=(const StandardStreamsReserved&) = delete;

private:
    std::array<bool, 3> reserved{};
};

}  // namespace corvane
