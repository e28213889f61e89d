#include "BluetoothManager.h"

#include "Bluez.h"
#include "Capabilities.h"
#include "Logging.h"
#include "Shell.h"
#include "SystemBus.h"
#include "hwcommon/DBusProxy.h"

using corvane::quoted;
using corvane::runShell;

namespace {

constexpr unsigned busNameTimeout = 5000;  // milliseconds
constexpr char messageBusName[] = "org.freedesktop.DBus";

// In the background, with the compatibility interface and without the input plug-in: the HID daemon
// serves those.
constexpr char daemonStart[] =
    "start-stop-daemon -S -b -q -m -p /var/run/bluetoothd.pid -x "
    "/usr/libexec/bluetooth/bluetoothd -- --compat --noplugin=input";
constexpr char daemonStop[] = "/sbin/kill_and_wait.sh bluetoothd";

constexpr char hidStart[] =
    "start-stop-daemon -S -b -q -m -p /var/run/hw_bluez_hid.pid -x /bin/hw_bluez_hid ";
constexpr char hidStop[] = "/sbin/kill_and_wait.sh hw_bluez_hid;";
constexpr char audioStart[] =
    "start-stop-daemon -S -b -q -m -p /var/run/bluealsa.pid -x /bin/bluealsa;"
    "export DBUS_SESSION_BUS_ADDRESS=unix:path=/var/run/dbus/system_bus_socket;";
constexpr char audioStop[] = "killall bluealsa;";
constexpr int familyWithoutAudioBridge = 1;

// Major class computer, service class limited discoverable mode (Bluetooth Assigned Numbers,
// Baseband).
constexpr std::uint32_t adapterClass = 0x2100;

}  // namespace

bool BluetoothManager::setBluetoothDaemon(bool on) {
    if (!on) {
        runShell(daemonStop);
        return true;
    }
    runShell(daemonStart);
    if (dbusProxy->waitUntilDBusNameExist(corvane::bluez::busName, busNameTimeout)) return true;
    CORVANE_ERROR("setBluetoothDaemon"
                  << " : Cannot start bluetooth daemon!");
    return false;
}

void BluetoothManager::setBluetoothServices(bool on) const {
    const bool audioBridge =
        Capabilities::getInstance().getProductFamily() != familyWithoutAudioBridge;
    std::string commandLine;
    if (on) {
        commandLine = hidStart + std::to_string(eeprom->GetBoardRevision()) + " " +
                      quoted(GetModelNameStringExternal(eeprom->GetModelType())) + " --no-close;";
        if (audioBridge) commandLine += audioStart;
    } else {
        if (audioBridge) commandLine = audioStop;
        commandLine += hidStop;
    }
    runShell(commandLine);
}

bool BluetoothManager::setBluetoothComponents(bool enable) {
    CORVANE_DEBUG("setBluetoothComponents"
                  << " : " << enable);
    if (!enable) {
        CORVANE_DEBUG("setBluetoothComponents"
                      << " : Disabling all..");
        adapterActivate(false);
        hciattach(false);
        setBluetoothServices(false);
        setBluetoothDaemon(false);
        corvane::releaseSystemBus(dbusConnection);
        return false;
    }

    if (!hciattach(true))
        CORVANE_ERROR("setBluetoothComponents"
                      << " : hciattach failed");
    if (!setBluetoothDaemon(true)) {
        CORVANE_ERROR("setBluetoothComponents"
                      << " : setBluetoothDaemon failed");
    }
    setBluetoothServices(true);
    if (!dbusProxy->waitUntilDBusNameExist(messageBusName, busNameTimeout)) {
        CORVANE_ERROR("setBluetoothComponents"
                      << " : waitUntilDBusNameExist(FREEDESKTOP_DBUS_NAME) failed");
    }
    corvane::store(dbusConnection, corvane::acquireSystemBus());
    if (dbusConnection == nullptr) {
        // Deliberate: the null is stored but not unreferenced, which GLib would answer with a
        // critical warning. Held by
        // WithoutABus.BringUpEndsBeforeTheAdapterAndWorksWhenTheBusIsBack.
        CORVANE_ERROR("setBluetoothComponents"
                      << " : Not able to get connection to system bus");
        return false;
    }

    if (!adapterActivate(true)) {
        CORVANE_ERROR("setBluetoothComponents"
                      << " : adapterActivate failed");
    }
    bool configured = false;
    if (agentRegister(true) && adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE) && eeprom) {
        const std::string name = GetModelNameStringExternal(eeprom->GetModelType()) + " " +
                                 eeprom->GetSerialNumberString(false);
        if (adapterSetName(name.c_str())) {
            configured = adapterSetPairable(true) && adapterSetPairableTimeout(0);
            if (!configured) {
                CORVANE_ERROR("setBluetoothComponents"
                              << " : failed to configure pairable properties");
            }
            adapterSetClass(adapterClass);
        }
    }
    preventRoleSwitch();
    return configured;
}
