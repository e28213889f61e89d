#include "DeviceKinds.h"
#include "RadioWirings.h"
#include "Session.h"
#include "Text.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <array>

namespace corvanectl {

namespace {

constexpr std::chrono::milliseconds unknownLength{0};

struct AnswerRow {
    const char* name;
    ExitStatus status;
    const char* problem;
};

/// By the number of the answer.
constexpr std::array<AnswerRow, 6> answerRows{{
    {"REQUEST_SUCCESS", ExitStatus::success, ""},
    {"REQUEST_TIMEOUT", ExitStatus::requestTimeout,
     "did not pair and connect in time; start the pairing on the device, then try again"},
    {"REQUEST_CANCELLED", ExitStatus::requestCancelled, "was cancelled"},
    {"REQUEST_CONNECT_FAILED", ExitStatus::requestConnectFailed,
     "paired, but could not be connected; try connect"},
    {"REQUEST_FAILED", ExitStatus::requestFailed, "failed"},
    {"REQUEST_DEVICE_NOT_FOUND", ExitStatus::requestDeviceNotFound,
     "is not among the paired devices after pairing; try again near the device"},
}};

Json toJson(const Device& device) {
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

/// The ids of a modalias: a vendor that is 0 means that the device told none.
std::string idText(const Device& device, std::uint16_t id) {
    return device.info.vendorId == 0 ? "-" : hexadecimal(id, 4);
}

std::string flagsOf(const Device& device) {
    std::vector<std::string> flags;
    if (device.paired) flags.emplace_back("paired");
    if (device.connected) flags.emplace_back("connected");
    if (device.playback) flags.emplace_back("playback");
    return joined(flags);
}

const char* yesOrNo(bool yes) { return yes ? "yes" : "no"; }

/// An operation on one device: finds it, runs it, tells.
Result act(Session& session, const std::string& name, const char* done, const char* failed,
           bool (*operation)(BluetoothManager&, const char* address)) {
    Host& host = session.host;
    const Device device = host.device(ALL_DEVICES, name);
    const std::string which = inQuotes(name) + " (" + escaped(device.info.macAddress) + ")";
    Result result;
    result.data = {{"address", device.info.macAddress}, {"name", device.info.name}};
    if (operation(host.manager(), device.info.macAddress.c_str())) {
        result.text = std::string(done) + ' ' + which;
        host.manager().scanDevicesInfo();  // the shell completes names from the lists
    } else {
        result.status = ExitStatus::refused;
        result.problem = std::string(failed) + ' ' + which + "; the log tells BlueZ's reason";
    }
    return result;
}

Result toResult(const Host::Answer& answer, const std::string& what, const std::string& done) {
    const AnswerRow& row = answerRows.at(static_cast<std::size_t>(answer.answer));
    Result result;
    result.status = row.status;
    result.data = {{"answer", row.name}};
    if (answer.answer == REQUEST_SUCCESS) {
        result.text = done;
    } else if (answer.cancelled && answer.answer == REQUEST_FAILED) {
        // A request says so, too, when it is cancelled before it has begun to wait.
        result.status = ExitStatus::requestCancelled;
        result.problem = what + " was cancelled";
    } else {
        result.problem = what + ' ' + row.problem;
    }
    return result;
}

/// A request on the device of a list that has the name in the invocation.
template <class Request, class... Arguments>
Result request(Session& session, const Invocation& invocation, BluetoothDeviceListType type,
               const char* label, std::chrono::milliseconds limit, const char* before,
               const char* behind, Arguments... arguments) {
    const std::string& name = invocation.arguments.front();
    const Device device = session.host.device(type, name);
    const auto answer = session.host.perform(
        [&](const Host::Callback& callback) {
            return std::make_shared<Request>(callback, arguments..., name);
        },
        label, limit);
    session.host.manager().scanDevicesInfo();  // the shell completes names from the lists
    Result result = toResult(answer, inQuotes(name), before + inQuotes(name) + behind);
    if (result.status == ExitStatus::requestFailed &&
        session.host.manager().getMajorDeviceClass(device.info) == MAJOR_CLASS_OTHER) {
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
    const auto answer = host.perform(
        [](const Host::Callback& callback) {
            return std::make_shared<ScanBluetoothRequest>(callback);
        },
        "Scanning", corvane::scanLength);
    Result result = toResult(answer, "the scan", "");
    result.data["devices"] = nullptr;
    if (result.status != ExitStatus::success) return result;
    // The request succeeds also when BlueZ could not start the discovery.
    if (host.errorCount() > before) {
        result.status = ExitStatus::refused;
        result.problem = "BlueZ did not discover; is Bluetooth on? See status";
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
    std::vector<std::vector<std::string>> rows;
    for (const Device& device : session.host.devices(type)) {
        rows.push_back({escaped(device.info.macAddress), escaped(device.info.name),
                        kindOf(device.info.deviceClass), idText(device, device.info.vendorId),
                        idText(device, device.info.productId), flagsOf(device)});
        result.data["devices"].push_back(toJson(device));
    }
    constexpr std::size_t shortest = 10;
    result.text = rows.empty() ? "No devices"
                               : table({{"ADDRESS", Column::whole},
                                        {"NAME", Column::whole},
                                        {"KIND", shortest},
                                        {"VENDOR", 0},
                                        {"PRODUCT", 0},
                                        {"FLAGS", shortest}},
                                       rows, Console::width());
    return result;
}

Result findDevice(Session& session, const Invocation& invocation) {
    const Device device = session.host.device(ALL_DEVICES, invocation.arguments.front());
    Result result;
    result.data = toJson(device);
    result.text = pairs({{"Address", escaped(device.info.macAddress)},
                         {"Name", escaped(device.info.name)},
                         {"Class", hexadecimal(device.info.deviceClass, 6)},
                         {"Kind", kindOf(device.info.deviceClass)},
                         {"Vendor", idText(device, device.info.vendorId)},
                         {"Product", idText(device, device.info.productId)},
                         {"Version", idText(device, device.info.versionId)},
                         {"Paired", yesOrNo(device.paired)},
                         {"Connected", yesOrNo(device.connected)},
                         {"Playback device", yesOrNo(device.playback)}});
    return result;
}

Result pairDevice(Session& session, const Invocation& invocation) {
    return act(
        session, invocation.arguments.front(), "Paired with", "not paired with",
        [](BluetoothManager& manager, const char* address) { return manager.pairDevice(address); });
}

Result trustDevice(Session& session, const Invocation& invocation) {
    return act(session, invocation.arguments.front(), "Trusts", "cannot trust",
               [](BluetoothManager& manager, const char* address) {
                   return manager.deviceSetTrusted(address, true);
               });
}

Result forgetDevice(Session& session, const Invocation& invocation) {
    return act(session, invocation.arguments.front(), "Forgot", "cannot forget",
               [](BluetoothManager& manager, const char* address) {
                   return manager.deletePairedDevice(address);
               });
}

Result connectDevice(Session& session, const Invocation& invocation) {
    return request<ConnectBluetoothRequest>(session, invocation, PAIRED_DEVICES, "Connecting",
                                            unknownLength, "Connected ", "", session.host.hid());
}

Result disconnectDevice(Session& session, const Invocation& invocation) {
    // A device that is not connected would be tried until somebody cancels.
    return request<DisconnectBluetoothRequest>(session, invocation, CONNECTED_DEVICES,
                                               "Disconnecting", unknownLength, "Disconnected ", "",
                                               session.host.hid());
}

Result waitForPairing(Session& session, const Invocation& invocation) {
    return request<WaitBluetoothPairingRequest>(session, invocation, ALL_DEVICES,
                                                "Waiting for pairing", corvane::pairingLength, "",
                                                " is paired");
}

}  // namespace corvanectl
