#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <signal.h>

namespace hwcommon {

/// Keeps signals from this thread while it lives: until systemd 253 a call of sd-bus fails when one
/// interrupts it, and a host may have timers. Other threads get them meanwhile, this one
/// afterwards; those that report a fault of the thread itself are let through.
class [[gnu::visibility("hidden")]] NoSignals {
public:
    NoSignals();
    ~NoSignals();
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

private:
    sigset_t before{};
};

/// A remote object on a connection. Its names are types of their own since sdbus-c++ 2.
inline std::unique_ptr<sdbus::IProxy> proxyFor(sdbus::IConnection& connection,
                                               const std::string& service,
                                               const std::string& path) {
#if CORVANE_SDBUS_MAJOR >= 2
    return sdbus::createProxy(connection, sdbus::ServiceName(service), sdbus::ObjectPath(path));
#else
    return sdbus::createProxy(connection, service, path);
#endif
}

/// Makes a proxy's signal handlers known to the bus. Calls made after this come after it there too.
inline void subscribe([[maybe_unused]] sdbus::IProxy& proxy) {
#if CORVANE_SDBUS_MAJOR < 2
    proxy.finishRegistration();
#endif
}

/// The time until a deadline, rounded up. Never 0: as the limit of a call that would mean the bus's
/// default of 25 s.
inline std::chrono::milliseconds timeLeft(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(1));
}

/// Watches the owner of one bus name, on a connection to the system bus of its own: nobody's event
/// loop is needed or disturbed, a bus that was restarted since is found again, and nothing stays
/// behind. To be used by one thread. Every member throws sdbus::Error when the bus fails.
class [[gnu::visibility("hidden")]] NameWatch {
public:
    using Clock = std::chrono::steady_clock;

    /// @param changed  called by waitForMore() with the connection that owns the name now; empty
    /// when none does
    NameWatch(std::string name, std::function<void(const std::string&)> changed);

    /// Asks the bus for the connection that owns the name; empty when none does. waitForMore()
    /// reports every later change.
    /// @param limit  how long to wait for the bus's answer
    std::string owner(std::chrono::milliseconds limit);

    /// An object of a connection. Its signals are handled by waitForMore().
    std::unique_ptr<sdbus::IProxy> object(const std::string& owner, const std::string& path) {
        return proxyFor(*connection, owner, path);
    }

    /// Handles what the bus has sent; when there is nothing, waits for more until the deadline, or
    /// until the descriptor `stop` is readable (-1: none).
    void waitForMore(Clock::time_point deadline, int stop = -1);

private:
    std::string name;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> bus;
};

}  // namespace hwcommon
