#pragma once

#include <string>

namespace sdbus {
class IConnection;
}

namespace hwcommon {

class DBusProxy {
public:
    explicit DBusProxy(sdbus::IConnection& connection);
    bool waitUntilDBusNameExist(const std::string& name, unsigned timeout);
};

}  // namespace hwcommon
