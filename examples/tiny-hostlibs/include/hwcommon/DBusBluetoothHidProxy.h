#pragma once

#include <string>

namespace hwcommon {

class DBusBluetoothHidProxy {
public:
    std::string connectBtHidDevice(const std::string& address);
    std::string disconnectBtHidDevice(const std::string& address);
};

}  // namespace hwcommon
