#include "RadioWirings.h"
#include "Session.h"
#include "Text.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <glib.h>

#include <array>

namespace corvanectl {

namespace {

constexpr std::chrono::milliseconds unknownLength{0};

struct AnswerRow {
    const char* name;
    const char* problem;
};

/// By the number of the answer.
constexpr std::array<AnswerRow, 6> answerRows{{
    {"REQUEST_SUCCESS", ""},
    {"REQUEST_TIMEOUT",
     "did not pair and connect in time; start the pairing on the device, then try again"},
    {"REQUEST_CANCELLED", "was cancelled"},
    {"REQUEST_CONNECT_FAILED", "is paired, but could not be connected; try connect"},
    {"REQUEST_FAILED", "failed"},
    {"REQUEST_DEVICE_NOT_FOUND",
     "is not among the paired devices after pairing; try again near the device"},
}};

struct MajorClass {
    const char* name;
    const char* minors;  // from number 1 on; empty: not told apart
};

constexpr std::uint32_t peripheral = 5;

constexpr std::array<MajorClass, 10> majorClasses{{
    {"Miscellaneous", ""},
    {"Computer", "desktop|server|laptop|handheld|palm-size|wearable|tablet"},
    {"Phone", "cellular|cordless|smartphone|modem or gateway|ISDN"},
    {"Network access point", ""},
    {"Audio/video",
     "headset|hands-free||microphone|loudspeaker|headphones|portable audio|car audio|set-top box|"
     "hi-fi|VCR|video camera|camcorder|video monitor|video display and loudspeaker|"
     "video conferencing||gaming or toy"},
    {"Peripheral",
     "joystick|gamepad|remote control|sensing device|digitizer tablet|card reader|digital pen|"
     "handheld scanner|handheld gestural input"},
    {"Imaging", ""},
    {"Wearable", "wristwatch|pager|jacket|helmet|glasses|pin"},
    {"Toy", ""},
    {"Health", ""},
}};

/// A Class of Device in words, "Phone, smartphone": major and minor device class by the Bluetooth
/// Assigned Numbers, Baseband. Unassigned numbers appear as such.
std::string kindOf(std::uint32_t deviceClass) {
    const std::uint32_t major = (deviceClass >> 8) & 0x1F;
    std::uint32_t minor = (deviceClass >> 2) & 0x3F;
    if (deviceClass == 0) return "unknown";
    if (major == 31) return "Uncategorized";
    if (major >= majorClasses.size()) return "Major class " + std::to_string(major);
    const MajorClass& row = majorClasses.at(major);
    std::string text = row.name;
    if (major == peripheral) {
        if ((minor & 0x10) != 0) text += ", keyboard";
        if ((minor & 0x20) != 0) text += ", pointing device";
        minor &= 0x0F;
    }
    if (minor == 0 || *row.minors == '\0') return text;
    std::vector<std::string> names = choicesOf(row.minors);
    names.resize(64);
    return text + ", " +
           (names[minor - 1].empty() ? "minor class " + std::to_string(minor) : names[minor - 1]);
}

Json toJson(const Device& device) {
    // A vendor of 0 means that the device did not identify itself.
    const bool identified = device.info.vendorId != 0;
    const auto id = [&](std::uint16_t number) { return identified ? Json(number) : Json(); };
    return {{"address", device.info.macAddress},
            {"name", device.info.name},
            {"class", hexadecimal(device.info.deviceClass, 6)},
            {"kind", kindOf(device.info.deviceClass)},
            {"vendor", id(device.info.vendorId)},
            {"product", id(device.info.productId)},
            {"version", id(device.info.versionId)},
            {"paired", device.paired},
            {"connected", device.connected},
            {"playback", device.playback}};
}

/// A value of toJson() for people.
std::string shown(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    return value.is_number() ? hexadecimal(value, 4) : escaped(value.get<std::string>());
}

/// Finds the device that the invocation names and runs an operation on it.
Result act(Session& session, const Invocation& invocation, const char* done, const char* failed,
           bool (*operation)(BluetoothManager&, const char* address)) {
    Host& host = session.host;
    const BluetoothConnectionInfo info = host.device(ALL_DEVICES, invocation.arguments[0]).info;
    const std::string which = inQuotes(info.name) + " (" + escaped(info.macAddress) + ")";
    const Json data{{"address", info.macAddress}, {"name", info.name}};
    if (!operation(host.manager(), info.macAddress.c_str())) {
        return {ExitStatus::refused, "",
                std::string(failed) + ' ' + which + "; the log has BlueZ's reason", data};
    }
    host.manager().scanDevicesInfo();  // the shell completes names from the lists
    return {ExitStatus::success, std::string(done) + ' ' + which, "", data};
}

/// Runs a request to its answer.
/// @param what  its object, for messages
template <class Request, class... Arguments>
Result perform(Session& session, const char* label, std::chrono::milliseconds limit,
               const std::string& what, const Arguments&... arguments) {
    const auto [answer, cancelled] = session.host.perform(
        [&](const Host::Callback& callback) {
            return std::make_shared<Request>(callback, arguments...);
        },
        label, limit);
    Result result;
    result.data = {{"answer", answerRows.at(static_cast<std::size_t>(answer)).name}};
    if (answer == REQUEST_SUCCESS) return result;
    // A request that is cancelled before it has begun to wait answers REQUEST_FAILED.
    const bool early = cancelled && answer == REQUEST_FAILED;
    const auto number = static_cast<std::size_t>(early ? REQUEST_CANCELLED : answer);
    result.status = static_cast<ExitStatus>(static_cast<std::size_t>(ExitStatus::request) + number);
    result.problem = what + ' ' + answerRows.at(number).problem;
    return result;
}

/// Runs a request on the device of a list that the invocation names.
template <class Request, class... Arguments>
Result request(Session& session, const Invocation& invocation, BluetoothDeviceListType type,
               const char* label, std::chrono::milliseconds limit, const char* done,
               const Arguments&... arguments) {
    Host& host = session.host;
    const std::string& name = invocation.arguments.front();
    const Device device = host.device(type, name);
    Result result = perform<Request>(session, label, limit, inQuotes(name), arguments..., name);
    host.manager().scanDevicesInfo();  // the shell completes names from the lists
    if (result.status == ExitStatus::success) result.text = done + inQuotes(name);
    if (result.status == ExitStatus::requestFailed &&
        host.manager().getMajorDeviceClass(device.info) == MAJOR_CLASS_OTHER) {
        result.problem += std::string("; ") + invocation.command->name +
                          " handles computers, phones and audio devices; this one is: " +
                          kindOf(device.info.deviceClass);
    }
    return result;
}

}  // namespace

Result scan(Session& session, const Invocation& /*invocation*/) {
    Host& host = session.host;
    host.manager();
    const std::size_t before = host.errorCount();
    Result result =
        perform<ScanBluetoothRequest>(session, "Scanning", corvane::scanLength, "the scan");
    result.data["devices"] = nullptr;
    if (result.status != ExitStatus::success) return result;
    // The request also succeeds when BlueZ could not start the discovery.
    if (host.errorCount() > before) {
        result.status = ExitStatus::refused;
        result.problem = "BlueZ did not start the discovery; is Bluetooth on? See status";
        return result;
    }
    host.refresh();
    const unsigned count = host.manager().getBluetoothDeviceListSize(ALL_DEVICES);
    result.data["devices"] = count;
    result.text = "Scanned; BlueZ knows " + counted(count, "device");
    return result;
}

Result listDevices(Session& session, const Invocation& invocation) {
    const std::string wanted = invocation.arguments.empty() ? "all" : invocation.arguments.front();
    const BluetoothDeviceListType type = wanted == "paired"      ? PAIRED_DEVICES
                                         : wanted == "connected" ? CONNECTED_DEVICES
                                                                 : ALL_DEVICES;
    session.host.refresh();
    Result result;
    result.data = {{"list", wanted}, {"devices", Json::array()}};
    std::vector<std::vector<std::string>> rows{
        {"ADDRESS", "NAME", "FLAGS", "KIND", "VENDOR", "PRODUCT"}};
    for (const Device& device : session.host.devices(type)) {
        const Json object = toJson(device);
        std::vector<std::string> flags;
        for (const char* flag : {"paired", "connected", "playback"}) {
            if (object[flag].get<bool>()) flags.emplace_back(flag);
        }
        rows.push_back({shown(object["address"]), shown(object["name"]), joined(flags),
                        shown(object["kind"]), shown(object["vendor"]), shown(object["product"])});
        result.data["devices"].push_back(object);
    }
    result.text =
        rows.size() == 1 ? "No devices" : table(rows, 2, terminalColumns(Streams::output));
    return result;
}

Result findDevice(Session& session, const Invocation& invocation) {
    Result result;
    result.data = toJson(session.host.device(ALL_DEVICES, invocation.arguments.front()));
    std::vector<std::vector<std::string>> rows;
    for (const auto& [key, value] : result.data.items()) {
        rows.push_back({g_ascii_toupper(key[0]) + key.substr(1) + ':', shown(value)});
    }
    result.text = table(rows, 2, 0);
    return result;
}

Result pairDevice(Session& session, const Invocation& invocation) {
    return act(session, invocation, "Paired with", "cannot pair with",
               [](auto& manager, auto address) { return manager.pairDevice(address); });
}

Result trustDevice(Session& session, const Invocation& invocation) {
    return act(session, invocation, "Trusts", "cannot trust",
               [](auto& manager, auto address) { return manager.deviceSetTrusted(address, true); });
}

Result forgetDevice(Session& session, const Invocation& invocation) {
    return act(session, invocation, "Forgot", "cannot forget",
               [](auto& manager, auto address) { return manager.deletePairedDevice(address); });
}

Result connectDevice(Session& session, const Invocation& invocation) {
    return request<ConnectBluetoothRequest>(session, invocation, PAIRED_DEVICES, "Connecting",
                                            unknownLength, "Connected ", session.host.hid());
}

Result disconnectDevice(Session& session, const Invocation& invocation) {
    // The request would retry on a device that is not connected until somebody cancels.
    return request<DisconnectBluetoothRequest>(session, invocation, CONNECTED_DEVICES,
                                               "Disconnecting", unknownLength, "Disconnected ",
                                               session.host.hid());
}

Result waitForPairing(Session& session, const Invocation& invocation) {
    return request<WaitBluetoothPairingRequest>(session, invocation, ALL_DEVICES,
                                                "Waiting for pairing", corvane::pairingLength,
                                                "Paired with ");
}

}  // namespace corvanectl
