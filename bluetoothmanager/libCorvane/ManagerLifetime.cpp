#include "BluetoothManager.h"

#include "Capabilities.h"
#include "Resources.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"

#include <sdbus-c++/sdbus-c++.h>

namespace {

// The rows of the table of radio wirings, see RadioBringUp.cpp.
int chooseHardwareVariant(ModelType modelType) {
    if (modelType == MODEL_C600) return 1;
    return Capabilities::getInstance().getProductFamily() == 1 ? 2 : 0;
}

}  // namespace

BluetoothManager::BluetoothManager() {
    // The hardware service stays in use until the radio is brought up.
    const auto hardware = std::make_unique<hwcommon::DBusHardwareProxy>(nullptr);
    // Whether the analysis succeeded is not asked: an unknown board is driven like wiring 0 or 2.
    eeprom = std::make_unique<eepromXML>(hardware->getHardwareInfo());
    sdbusConnection = sdbus::createSystemBusConnection();
    dbusProxy = std::make_unique<hwcommon::DBusProxy>(*sdbusConnection);
    modelType = eeprom->GetModelType();
    hardwareVariant = chooseHardwareVariant(modelType);
    if (const int lack = corvane::lackOfDescriptors(1); lack != 0) {
        throw std::system_error(lack, std::generic_category(), "BluetoothManager");
    }
    mainLoop = g_main_loop_new(nullptr, FALSE);
    keepSystemBus(corvane::openSystemBus());
    initGPIOs();
    loadModules(true);
}

BluetoothManager::~BluetoothManager() {
    setBluetoothServices(false);
    waitCondition.notify();
}

void BluetoothManager::keepSystemBus(GDBusConnection* connection) {
    dbusConnection = connection;
    if (connection == nullptr) {
        busReferences = 0;
        return;
    }
    ++busReferences;
    // GDBus would end the host process when the bus goes; calls that fail and are logged serve it
    // better.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
}

void BluetoothManager::releaseSystemBus() {
    if (busReferences == 0) return;
    // GDBus hands out a closed connection again for as long as somebody holds it: let go of one
    // altogether, so that the next bring-up gets a new one.
    const bool closed = g_dbus_connection_is_closed(dbusConnection) != FALSE;
    GWeakRef rest;  // unlike a weak pointer, good when another thread drops the last reference
    g_weak_ref_init(&rest, dbusConnection);
    const auto isLeft = [&rest] {
        gpointer const left = g_weak_ref_get(&rest);
        if (left != nullptr) g_object_unref(left);
        return left != nullptr;
    };
    do {
        g_object_unref(dbusConnection);
        --busReferences;
    } while (closed && busReferences > 0);
    // GDBus's own reference goes when its message about the closing has been dispatched.
    while (closed && isLeft() && g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    g_weak_ref_clear(&rest);
    // A tear-down without a bring-up released the constructor's reference: nobody may use that
    // connection again.
    if (busReferences == 0) dbusConnection = nullptr;
}
