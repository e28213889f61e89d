#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace hwcommon {

/// A remote object on a connection. Its names are types of their own since sdbus-c++ 2.
inline std::unique_ptr<sdbus::IProxy> proxyFor(sdbus::IConnection& connection, const char* service,
                                               const char* path) {
#if CORVANE_SDBUS_MAJOR >= 2
    return sdbus::createProxy(connection, sdbus::ServiceName(service), sdbus::ObjectPath(path));
#else
    return sdbus::createProxy(connection, service, path);
#endif
}

/// Watches the owner of one bus name, on a connection to the system bus of its own: nobody's event
/// loop is needed or disturbed, a bus that was restarted since is found again, and nothing stays
/// behind. To be used by one thread. Every member throws sdbus::Error when the bus fails.
class [[gnu::visibility("hidden")]] NameWatch {
public:
    using Clock = std::chrono::steady_clock;

    /// @param changed  called by waitForMore() with whether the name is owned now
    NameWatch(std::string name, std::function<void(bool)> changed);

    /// Asks the bus. A change from now on is seen by waitForMore() in any case.
    /// @param limit  how long to wait for the bus's answer
    bool isOwned(std::chrono::milliseconds limit);

    /// Handles what the bus has sent; when there is nothing, waits for more until the deadline, or
    /// until the descriptor `stop` is readable (-1: none).
    void waitForMore(Clock::time_point deadline, int stop = -1);

private:
    std::string name;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> bus;
};

}  // namespace hwcommon
