#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

class DBusBluetoothHidProxy {
public:
    explicit DBusBluetoothHidProxy(sdbus::IConnection& connection);
    std::string connectBtHidDevice(const std::string& address);
    std::string disconnectBtHidDevice(const std::string& address);
};

}  // namespace hwcommon
