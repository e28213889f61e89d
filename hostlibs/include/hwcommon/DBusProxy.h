#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

/// Questions to the message bus itself.
///
/// What libCorvane relies on: waitUntilDBusNameExist() ends by itself within the time limit and
/// never throws. It may also wait, within the limit, until the owner can serve; libCorvane's next
/// calls go to that owner at once.
class DBusProxy {
public:
    /// @param connection  the host's connection to the system bus; borrowed, must outlive this
    /// object. The reference leaves it alone: it asks on a connection of its own for each wait, so
    /// that it needs nobody's event loop and still works after the bus was restarted.
    explicit DBusProxy(sdbus::IConnection& connection);

    /// Waits until a bus name has an owner. Returns at once when it has one already; otherwise
    /// waits for the bus's NameOwnerChanged signal. Blocks the calling thread. May be called from
    /// any thread. A bus that fails is logged and counts as false; one that runs but is slow has a
    /// second to answer, even when the timeout is shorter.
    ///
    /// bluetoothd owns "org.bluez" before its adapter exists, and until then refuses every call on
    /// it. For this name the reference also waits, within the same limit, for an object with
    /// org.bluez.Adapter1 (signal InterfacesAdded). An owner that answers GetManagedObjects with an
    /// error counts as ready at once; an adapter that does not come in time changes nothing in the
    /// result.
    /// @param name     the well-known name, "org.bluez" for instance
    /// @param timeout  milliseconds; 0 only looks
    /// @return true when the name is owned within the time
    bool waitUntilDBusNameExist(const std::string& name, unsigned timeout);
};

}  // namespace hwcommon
