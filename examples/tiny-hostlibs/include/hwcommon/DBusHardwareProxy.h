#pragma once

#include <string>

namespace hwcommon {

class DBusHardwareObserver;

class DBusHardwareProxy {
public:
    explicit DBusHardwareProxy(DBusHardwareObserver* observer);
    std::string getHardwareInfo();
};

}  // namespace hwcommon
