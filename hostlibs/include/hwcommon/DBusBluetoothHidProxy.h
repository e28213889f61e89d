#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

/// The host's HID service on the system bus: name org.corvane.BluetoothHid, object
/// /org/corvane/BluetoothHid, interface org.corvane.BluetoothHid1. Phones and computers are
/// connected through it.
///
/// What libCorvane relies on: both calls return a status text, "Connect success" meaning a
/// connection, and never throw. They are called on request threads.
class DBusBluetoothHidProxy {
public:
    /// @param connection  the host's connection to the system bus; borrowed, must outlive this
    /// object. The reference leaves it alone: it calls on a connection of its own each time, so
    /// that it keeps nobody else waiting and still works after the bus was restarted.
    explicit DBusBluetoothHidProxy(sdbus::IConnection& connection);

    /// Asks the service to connect to a device. Blocks until it has answered, 60 s at most.
    /// @param address  the device's address, six hexadecimal groups joined by ':'
    /// @return the service's status text, "Connect success" on success; a text that says why when
    /// the bus or the service fails (also logged)
    std::string connectBtHidDevice(const std::string& address);

    /// Asks the service to drop a device. Blocks until it has answered, 60 s at most.
    /// @return the service's status text; a text that says why when the bus or the service fails
    /// (also logged)
    std::string disconnectBtHidDevice(const std::string& address);

private:
    [[maybe_unused]] sdbus::IConnection& connection;  // for host libraries that call on it
};

}  // namespace hwcommon
