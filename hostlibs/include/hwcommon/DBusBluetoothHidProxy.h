#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

/// The host's HID service on the system bus, which connects phones and computers: name
/// org.corvane.BluetoothHid, object /org/corvane/BluetoothHid, interface org.corvane.BluetoothHid1.
///
/// libCorvane relies on this: both calls return a status text, "Connect success" for a connection,
/// and never throw. Request threads call them.
class DBusBluetoothHidProxy {
public:
    /// Builds a proxy. The reference does not use `connection`: it opens a new connection for each
    /// call, so that it blocks nobody else and works after a bus restart.
    /// @param connection  the host's connection to the system bus; must outlive this object
    explicit DBusBluetoothHidProxy(sdbus::IConnection& connection);

    /// Asks the service to connect a device. Blocks until it answers, for at most 60 s.
    /// @param address  the device's address, six hexadecimal groups joined by ':'
    /// @return the service's status text, "Connect success" on success; if the bus or the service
    /// fails, the reason, which is also logged
    std::string connectBtHidDevice(const std::string& address);

    /// Asks the service to disconnect a device. Blocks until it answers, for at most 60 s.
    /// @param address  the device's address, six hexadecimal groups joined by ':'
    /// @return the service's status text; if the bus or the service fails, the reason, which is
    /// also logged
    std::string disconnectBtHidDevice(const std::string& address);

private:
    [[maybe_unused]] sdbus::IConnection& connection;  // other boards' host libraries may use it
};

}  // namespace hwcommon
