#include "BluetoothManager.h"

#include "Bluez.h"
#include "Capabilities.h"
#include "LogAppender.h"
#include "RadioWirings.h"
#include "Shell.h"
#include "SystemBus.h"
#include "hwcommon/DBusProxy.h"

#include <log4cplus/loggingmacros.h>

using corvane::quoted;
using corvane::runShell;

namespace {

constexpr unsigned busNameTimeout = 5000;  // milliseconds
constexpr char messageBusName[] = "org.freedesktop.DBus";

std::string startOf(const corvane::Daemon& daemon) {
    return std::string("start-stop-daemon -S -b -q -m -p ") + daemon.pidFile + " -x " +
           daemon.program;
}

std::string stopOf(const char* daemon) { return std::string(corvane::killAndWait) + " " + daemon; }

// Major class computer, service class limited discoverable mode (Bluetooth Assigned Numbers,
// Baseband).
constexpr std::uint32_t adapterClass = 0x2100;

void stopEverything(BluetoothManager& manager) {
    manager.adapterActivate(false);
    manager.hciattach(false);
    manager.setBluetoothServices(false);
    manager.setBluetoothDaemon(false);
}

/// Sets the adapter up as far as others see it: agent, scan mode, name. The first failure ends it.
bool introduceAdapter(BluetoothManager& manager, eepromXML* identity) {
    if (!manager.agentRegister(true)) return false;
    if (!manager.adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE)) return false;
    if (identity == nullptr) return false;
    const std::string name = GetModelNameStringExternal(identity->GetModelType()) + " " +
                             identity->GetSerialNumberString(false);
    return manager.adapterSetName(name.c_str());
}

bool makePairable(BluetoothManager& manager) {
    return manager.adapterSetPairable(true) && manager.adapterSetPairableTimeout(0);
}

}  // namespace

bool BluetoothManager::setBluetoothDaemon(bool on) {
    if (!on) {
        runShell(stopOf("bluetoothd"));
        return true;
    }
    // --compat and --noplugin=input: the HID daemon serves input devices instead of BlueZ.
    runShell(startOf(corvane::bluezDaemon) + " -- --compat --noplugin=input");
    if (dbusProxy->waitUntilDBusNameExist(corvane::bluez::busName, busNameTimeout)) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(),
                    "setBluetoothDaemon : Cannot start bluetooth daemon!");
    return false;
}

void BluetoothManager::setBluetoothServices(bool on) const {
    const bool audioBridge =
        Capabilities::getInstance().getProductFamily() != corvane::familyWithoutAudioBridge;
    std::string commandLine;
    if (on) {
        commandLine = startOf(corvane::hidDaemon) + " " +
                      std::to_string(eeprom->GetBoardRevision()) + " " +
                      quoted(GetModelNameStringExternal(eeprom->GetModelType())) + " --no-close;";
        if (audioBridge) {
            commandLine +=
                startOf(corvane::audioBridge) +
                ";export DBUS_SESSION_BUS_ADDRESS=unix:path=" + corvane::systemBusSocket + ";";
        }
    } else {
        if (audioBridge) commandLine = "killall bluealsa;";
        commandLine += stopOf("hw_bluez_hid") + ";";
    }
    runShell(commandLine);
}

bool BluetoothManager::setBluetoothComponents(bool enable) {
    LOG4CPLUS_DEBUG(LogAppender::getLogger(), "setBluetoothComponents : " << enable);
    if (!enable) {
        LOG4CPLUS_DEBUG(LogAppender::getLogger(), "setBluetoothComponents : Disabling all..");
        stopEverything(*this);
        corvane::releaseSystemBus(dbusConnection);
        return false;
    }

    if (!hciattach(true)) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "setBluetoothComponents : hciattach failed");
    }
    if (!setBluetoothDaemon(true)) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "setBluetoothComponents : setBluetoothDaemon failed");
    }
    setBluetoothServices(true);
    if (!dbusProxy->waitUntilDBusNameExist(messageBusName, busNameTimeout)) {
        LOG4CPLUS_ERROR(
            LogAppender::getLogger(),
            "setBluetoothComponents : waitUntilDBusNameExist(FREEDESKTOP_DBUS_NAME) failed");
    }
    corvane::store(dbusConnection, corvane::acquireSystemBus());
    if (dbusConnection == nullptr) {
        // Deliberate: null is stored but not unreferenced, because GLib would log a critical
        // warning. Held by WithoutABus.BringUpEndsBeforeTheAdapterAndWorksWhenTheBusIsBack.
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "setBluetoothComponents : Not able to get connection to system bus");
        return false;
    }

    if (!adapterActivate(true)) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        "setBluetoothComponents : adapterActivate failed");
    }
    bool configured = false;
    if (introduceAdapter(*this, eeprom.get())) {
        configured = makePairable(*this);
        if (!configured) {
            LOG4CPLUS_ERROR(LogAppender::getLogger(),
                            "setBluetoothComponents : failed to configure pairable properties");
        }
        adapterSetClass(adapterClass);
    }
    preventRoleSwitch();
    return configured;
}
