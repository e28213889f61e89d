#include "BluetoothManager.h"

#include "Capabilities.h"
#include "SystemBus.h"
#include "SystemCalls.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"

#include <sdbus-c++/sdbus-c++.h>

namespace {

// The number is fixed; its name is up to the host.
constexpr auto lairdModel = static_cast<ModelType>(6);

// The rows of the table of radio wirings, see RadioBringUp.cpp.
int chooseHardwareVariant(ModelType modelType) {
    if (modelType == lairdModel) return 1;
    return Capabilities::getInstance().getProductFamily() == 1 ? 2 : 0;
}

}  // namespace

BluetoothManager::BluetoothManager() {
    const corvane::StandardStreamsReserved reserved;
    // The hardware service stays in use until the radio is brought up.
    const auto hardware = std::make_unique<hwcommon::DBusHardwareProxy>(nullptr);
    // Whether the analysis succeeded is not asked: an unknown board is driven like wiring 0 or 2.
    eeprom = std::make_unique<eepromXML>(hardware->getHardwareInfo());
    {
        const corvane::SignalsBlocked uninterrupted;  // sd-bus gives up when a signal arrives
        sdbusConnection = sdbus::createSystemBusConnection();
    }
    dbusProxy = std::make_unique<hwcommon::DBusProxy>(*sdbusConnection);
    modelType = eeprom->GetModelType();
    hardwareVariant = chooseHardwareVariant(modelType);
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
