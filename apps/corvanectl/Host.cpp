#include "Host.h"

#include "Bluez.h"
#include "Handles.h"
#include "RadioWirings.h"
#include "Text.h"
#include "hwcommon/DBusHardwareProxy.h"
#include "hwcommon/DBusProxy.h"
#include "hwcommon/fileUtil.h"

#include <algorithm>
#include <future>
#include <thread>

namespace corvanectl {

namespace {

using std::chrono::milliseconds;

Failure noBus(const char* reason) {
    return {ExitStatus::noBus, std::string("no system bus: ") + reason +
                                   "; start dbus-daemon, and see the address in "
                                   "DBUS_SYSTEM_BUS_ADDRESS where it is set"};
}

}  // namespace

sdbus::IConnection& Host::bus() {
    try {
        if (!connection) connection = sdbus::createSystemBusConnection();
    } catch (const sdbus::Error& error) {
        throw noBus(error.what());
    }
    return *connection;
}

eepromXML& Host::identity() {
    if (board) return *board;
    const bool served = isOnTheBus(hardwareName);
    // Asked even without the service: another board's host libraries may read it from a file.
    const std::string text = hwcommon::DBusHardwareProxy(nullptr).getHardwareInfo();
    if (!text.empty() && board.emplace(text).GetModelType() != ModelType{}) return *board;
    board.reset();
    const std::string reason =
        !served        ? "org.corvane.Hardware is not on the system bus; start the hardware service"
        : text.empty() ? "org.corvane.Hardware returns an empty one, or does not answer; correct "
                         "the identity, or restart the hardware service"
                       : "the one from org.corvane.Hardware names no model; correct it: " +
                             inQuotes(text.substr(0, 200));
    throw Failure(ExitStatus::noIdentity,
                  "no board identity, so the wrong lines could be driven: " + reason);
}

BluetoothManager& Host::manager() {
    if (!constructed) {
        eepromXML& known = identity();
        const auto family = [&] { return known.GetProductFamily(); };
        const auto& wiring = corvane::radioWirings.at(
            corvane::radioWiringOf(static_cast<int>(known.GetModelType()), family));
        if (wiring.waitsForWifi && !hwcommon::fileUtil::exists(corvane::hciDevice) &&
            !hwcommon::fileUtil::exists(corvane::wifiInterface)) {
            tell(std::string("Waiting for the Wi-Fi's ") + corvane::wifiInterface,
                 milliseconds(corvane::wifiPolls * corvane::wifiPoll));
        }
        try {
            BluetoothManager::getInstance();
        } catch (const sdbus::Error& error) {
            throw noBus(error.what());
        }
        constructed = true;
    }
    return BluetoothManager::getInstance();
}

hwcommon::DBusBluetoothHidProxy* Host::hid() {
    if (!hidProxy) hidProxy.emplace(bus());
    return &*hidProxy;
}

bool Host::isOnTheBus(const std::string& busName) {
    return hwcommon::DBusProxy(bus()).waitUntilDBusNameExist(busName, 0);
}

std::optional<bool> Host::setting() {
    if (!hwcommon::fileUtil::exists(corvane::flagFile)) return std::nullopt;
    // The manager lets the exceptions of the number conversion pass.
    try {
        return manager().getEnabled();
    } catch (const std::logic_error& error) {
        throw Failure(ExitStatus::badSetting, std::string("the flag file ") + corvane::flagFile +
                                                  " does not hold a number (" + error.what() +
                                                  "); remove it, then switch on or off again");
    }
}

std::string Host::boardName() {
    eepromXML& known = identity();
    return GetModelNameStringExternal(known.GetModelType()) + " " +
           known.GetSerialNumberString(false);
}

std::vector<std::string> Host::adapterFaults() {
    const std::unique_ptr<GDBusProxy, corvane::HandleDeleter<g_object_unref>> adapter(
        g_dbus_proxy_new_for_bus_sync(G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START,
                                      nullptr, bluezName, corvane::bluez::adapterPath,
                                      corvane::bluez::adapterInterface, nullptr, nullptr));
    const auto property = [&](const char* name) {
        return corvane::VariantPtr(adapter ? g_dbus_proxy_get_cached_property(adapter.get(), name)
                                           : nullptr);
    };
    const auto powered = property("Powered");
    const auto pairable = property("Pairable");
    const auto alias = property("Alias");
    if (!powered || !pairable || !alias) return {"BlueZ has no adapter"};
    std::vector<std::string> faults;
    const std::string name = g_variant_get_string(alias.get(), nullptr);
    if (g_variant_get_boolean(powered.get()) == FALSE) faults = {"the adapter is not powered"};
    if (g_variant_get_boolean(pairable.get()) == FALSE) {
        faults.emplace_back("the adapter is not pairable");
    }
    if (name != boardName()) faults.push_back("the adapter's name is " + inQuotes(name));
    return faults;
}

void Host::refresh() {
    BluetoothManager& source = manager();
    const std::size_t before = errorCount();
    if (!source.scanDevicesInfo() || errorCount() > before) {
        throw Failure(ExitStatus::refused,
                      "BlueZ did not give its devices; is Bluetooth on? See status");
    }
}

std::vector<Device> Host::devices(BluetoothDeviceListType type) {
    BluetoothManager& source = manager();
    std::vector<Device> result;
    for (const BluetoothConnectionInfo& info : source.getBluetoothDeviceList(type)) {
        const auto isIn = [&](BluetoothDeviceListType other) {
            const auto& list = source.getBluetoothDeviceList(other);
            return std::any_of(list.begin(), list.end(), [&](const BluetoothConnectionInfo& each) {
                return each.macAddress == info.macAddress;
            });
        };
        result.push_back(
            {info, isIn(PAIRED_DEVICES), isIn(CONNECTED_DEVICES), source.isPlaybackDevice(info)});
    }
    return result;
}

Device Host::device(BluetoothDeviceListType type, const std::string& name) {
    refresh();
    const std::vector<Device> list = devices(type);
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const Device& each) { return each.info.name == name; });
    if (found != list.end()) return *found;
    constexpr const char* hints[] = {
        " known ones; scan finds devices, devices lists their names",
        " paired ones; pair it first, devices paired lists their names",
        " connected ones; devices connected lists their names"};
    throw Failure(ExitStatus::noDevice, "no device named " + inQuotes(name) + " among the " +
                                            std::to_string(list.size()) + hints[type]);
}

Host::Answer Host::perform(const RequestMaker& make, const std::string& what, milliseconds limit) {
    constexpr milliseconds look{20};
    // Shared: the request's thread may outlive the wait.
    const auto promise = std::make_shared<std::promise<BluetoothRequestAnswers>>();
    const auto request =
        make([promise](BluetoothRequestAnswers answer) { promise->set_value(answer); });
    if (!manager().makeRequest(request)) {
        throw Failure(ExitStatus::busy,
                      "another request is still running; wait for its end or cancel it");
    }
    tell(what, limit);
    auto answer = promise->get_future();
    bool cancelled = false;
    while (answer.wait_for(milliseconds(0)) != std::future_status::ready) {
        if (!cancelled &&
            (Interrupt::count > 0 || (cancelSource != nullptr && cancelSource->takeIf("cancel")))) {
            request->cancelRequest();
            cancelled = true;
            tell("Cancelling, Ctrl-C again leaves", milliseconds(0));
        }
        std::this_thread::sleep_for(look);
    }
    // A request that has answered may count as running a moment longer, and the next one would be
    // refused.
    while (request->isStillRunning()) std::this_thread::sleep_for(milliseconds(1));
    return {answer.get(), cancelled};
}

}  // namespace corvanectl
