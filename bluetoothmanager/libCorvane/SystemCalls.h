#pragma once

#include <array>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace corvane {

/// What hwtools::Condition::wait() returns when the time has passed: the kernel's ETIMEDOUT. The
/// host's header need not have a name for it.
constexpr int waitTimedOut = 110;

/// Blocks this thread's signals while it lives. HCI requests and sd-bus's opening of a connection
/// fail when a signal arrives; repeated, they would start over and never end under a host's
/// periodic timer.
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

/// Moves a descriptor of ours that became 0, 1 or 2 in a host that runs without them. What such a
/// host prints would otherwise go to the controller.
/// @return the descriptor to use; -1 when there was none or no other is left
inline int aboveStandardStreams(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(descriptor);
    return moved;
}

/// For what we cannot move: while it lives, nothing that is opened becomes descriptor 0, 1 or 2.
class StandardStreamsReserved {
public:
    StandardStreamsReserved() {
        for (int descriptor = 0; descriptor < 3; ++descriptor) {
            if (fcntl(descriptor, F_GETFD) != -1) continue;
            // The lowest free number is this one, unless another thread was faster.
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
