#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

/// Waits for names on the message bus.
///
/// libCorvane relies on this: waitUntilDBusNameExist() ends within its timeout and never throws.
/// Within the timeout it may also wait until the owner is ready, because libCorvane calls that
/// owner at once.
class DBusProxy {
public:
    /// Builds a proxy. The reference does not use `connection`: it opens a new connection for each
    /// wait, so that it needs no event loop and works after a bus restart.
    /// @param connection  the host's connection to the system bus; must outlive this object
    explicit DBusProxy(sdbus::IConnection& connection);

    /// Waits until a bus name has an owner: returns at once if it has one, otherwise waits for the
    /// bus's NameOwnerChanged signal. Blocks the calling thread; any thread may call it. A slow bus
    /// has a second to answer, even if the timeout is shorter.
    ///
    /// bluetoothd owns "org.bluez" before its adapter exists, and refuses every call on the adapter
    /// until then. For this name the reference also waits, within the same timeout, for an object
    /// with org.bluez.Adapter1 (signal InterfacesAdded). An owner that answers GetManagedObjects
    /// with an error counts as ready. The result does not depend on the adapter.
    /// @param name     the well-known name, for example "org.bluez"
    /// @param timeout  milliseconds; 0 checks without waiting
    /// @return whether the name had an owner in time; false also when the bus fails, which is
    /// logged
    bool waitUntilDBusNameExist(const std::string& name, unsigned timeout);
};

}  // namespace hwcommon
