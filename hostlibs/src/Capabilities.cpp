#include "Capabilities.h"

#include "eepromXML.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/HardwareService.h"

#include <mutex>
#include <optional>

const Capabilities& Capabilities::getInstance() {
    static constexpr Capabilities instance;
    return instance;
}

int Capabilities::getProductFamily() const {
    // Safe during static destruction: neither has a destructor that does anything.
    static std::mutex mutex;
    static std::optional<int> family;
    const std::lock_guard lock(mutex);
    if (!family) {
        if (hwcommon::hardwareServiceIsSilent()) return 0;
        const std::string text = hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo();
        if (text.empty()) return 0;
        family = eepromXML(text).GetProductFamily();
    }
    return *family;
}
