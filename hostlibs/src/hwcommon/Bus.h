#pragma once

#include "Sdbus.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <signal.h>

namespace hwcommon {

/// Blocks this thread's signals while it exists, except those that report a fault of the thread
/// itself. Until systemd 253 an sd-bus call fails when a signal interrupts it, and a host may have
/// timers.
class [[gnu::visibility("hidden")]] NoSignals {
public:
    NoSignals();
    ~NoSignals();
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

private:
    sigset_t before{};
};

/// Returns the time until a deadline, rounded up. Never 0, which a call would take for the bus's
/// default of 25 s.
inline std::chrono::milliseconds timeLeft(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(1));
}

/// Watches the owner of one bus name on its own connection to the system bus, so that it needs no
/// event loop and finds a restarted bus. For one thread. Every member throws sdbus::Error when the
/// bus fails.
class [[gnu::visibility("hidden")]] NameWatch {
public:
    using Clock = std::chrono::steady_clock;

    /// @param name     the name to watch
    /// @param changed  called by waitForMore() with the connection that now owns the name; empty if
    /// none does
    NameWatch(std::string name, std::function<void(const std::string&)> changed);

    /// Asks the bus for the owner. waitForMore() reports every later change.
    /// @param limit  the longest wait for the bus's answer
    /// @return the connection that owns the name; empty if none does
    std::string owner(std::chrono::milliseconds limit);

    /// Makes a proxy for an object of a connection. waitForMore() handles its signals.
    std::unique_ptr<sdbus::IProxy> object(const std::string& owner, const std::string& path) {
        return proxyFor(*connection, owner, path);
    }

    /// Handles a received message. Without one, waits until the deadline or until `stop` is
    /// readable.
    /// @param deadline  the end of the wait
    /// @param stop      a descriptor; -1 for none
    void waitForMore(Clock::time_point deadline, int stop = -1);

private:
    std::string name;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> bus;
};

}  // namespace hwcommon
