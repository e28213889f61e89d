#include "BluetoothManager.h"

#include "Capabilities.h"
#include "RadioWirings.h"
#include "SystemBus.h"
#include "SystemCalls.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"

#include <sdbus-c++/sdbus-c++.h>

BluetoothManager::BluetoothManager() {
    const corvane::StandardStreamsReserved reserved;
    // Keeps the hardware service in use until the end of the construction.
    const auto hardware = std::make_unique<hwcommon::DBusHardwareProxy>(nullptr);
    // No check for success: an unknown board is driven like wiring 0 or 2.
    eeprom = std::make_unique<eepromXML>(hardware->getHardwareInfo());
    {
        const corvane::SignalsBlocked uninterrupted;  // sd-bus fails when a signal arrives
        sdbusConnection = sdbus::createSystemBusConnection();
    }
    dbusProxy = std::make_unique<hwcommon::DBusProxy>(*sdbusConnection);
    modelType = eeprom->GetModelType();
    hardwareVariant = static_cast<int>(corvane::radioWiringOf(static_cast<int>(modelType), [] {
        return Capabilities::getInstance().getProductFamily();
    }));
    if (const int lack = corvane::lackOfDescriptors(1); lack != 0) {
        throw std::system_error(lack, std::generic_category(), "BluetoothManager");
    }
    mainLoop = g_main_loop_new(nullptr, FALSE);
    dbusConnection = corvane::openSystemBus();
    initGPIOs();
    loadModules(true);
}

BluetoothManager::~BluetoothManager() {
    setBluetoothServices(false);
    waitCondition.notify();
}
