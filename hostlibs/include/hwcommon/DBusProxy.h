#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

/// Questions to the message bus itself.
///
/// What libCorvane relies on: waitUntilDBusNameExist() ends by itself within the time limit and
/// never throws.
class DBusProxy {
public:
    /// @param connection  the bus to ask; borrowed, must outlive this object
    explicit DBusProxy(sdbus::IConnection& connection);

    /// Waits until a bus name has an owner. Returns at once when it has one already; otherwise
    /// waits for the bus's NameOwnerChanged signal. Blocks the calling thread. A bus that fails is
    /// logged and counts as false.
    /// @param name     the well-known name, "org.bluez" for instance
    /// @param timeout  milliseconds; 0 only looks
    /// @return true when the name is owned within the time
    bool waitUntilDBusNameExist(const std::string& name, unsigned timeout);

private:
    sdbus::IConnection& connection;
};

}  // namespace hwcommon
