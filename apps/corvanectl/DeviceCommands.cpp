#include "DeviceKinds.h"
#include "Groups.h"
#include "Session.h"
#include "Table.h"
#include "Text.h"

#include <algorithm>

namespace corvanectl {

namespace {

struct ListName {
    const char* name;
    BluetoothDeviceListType type;
};

constexpr std::array<ListName, 3> listNames{
    {{"all", ALL_DEVICES}, {"paired", PAIRED_DEVICES}, {"connected", CONNECTED_DEVICES}}};

/// Whether the device stands in a list of the last scan.
bool isIn(BluetoothManager& manager, BluetoothDeviceListType type,
          const BluetoothConnectionInfo& device) {
    const auto& list = manager.getBluetoothDeviceList(type);
    return std::any_of(list.begin(), list.end(), [&](const BluetoothConnectionInfo& other) {
        return other.macAddress == device.macAddress;
    });
}

/// The ids of a modalias: a vendor that is 0 means that the device told none.
std::string idText(const BluetoothConnectionInfo& device, std::uint16_t id) {
    return device.vendorId == 0 ? "-" : hexadecimal(id, 4);
}

Json describe(BluetoothManager& manager, const BluetoothConnectionInfo& device) {
    Json object;
    putName(object, "address", device.macAddress);
    putName(object, "name", device.name);
    object["class"] = hexadecimal(device.deviceClass, 6);
    object["kind"] = kindOf(device.deviceClass);
    object["vendor"] = device.vendorId;
    object["product"] = device.productId;
    object["version"] = device.versionId;
    object["paired"] = isIn(manager, PAIRED_DEVICES, device);
    object["connected"] = isIn(manager, CONNECTED_DEVICES, device);
    object["playback"] = manager.isPlaybackDevice(device);
    return object;
}

std::string flagsOf(const Json& description) {
    std::vector<std::string> flags;
    for (const char* flag : {"paired", "connected", "playback"}) {
        if (description[flag].get<bool>()) flags.emplace_back(flag);
    }
    return joined(flags);
}

/// An operation on one device: finds it, runs it, tells.
Result act(Session& session, const std::string& name, const char* done, const char* failed,
           bool (*operation)(BluetoothManager&, const char* address)) {
    const BluetoothConnectionInfo device = session.device(ALL_DEVICES, name);
    Result result;
    putName(result.data, "address", device.macAddress);
    putName(result.data, "name", device.name);
    if (!operation(session.manager(), device.macAddress.c_str())) {
        result.status = ExitStatus::refused;
        result.problem = std::string(failed) + ' ' + inQuotes(name) + " (" +
                         escaped(device.macAddress) + "); the log tells BlueZ's reason";
        return result;
    }
    session.manager().scanDevicesInfo();  // the shell completes names from the lists
    result.text =
        std::string(done) + ' ' + inQuotes(name) + " (" + escaped(device.macAddress) + ')';
    return result;
}

}  // namespace

Result listDevices(Session& session, const Invocation& invocation) {
    const std::string wanted = invocation.arguments.empty() ? "all" : invocation.arguments.front();
    const auto list = std::find_if(listNames.begin(), listNames.end(),
                                   [&](const ListName& row) { return row.name == wanted; });
    session.refresh();
    BluetoothManager& manager = session.manager();

    Result result;
    result.data["list"] = list->name;
    result.data["devices"] = Json::array();
    std::vector<std::vector<std::string>> rows;
    for (const auto& device : manager.getBluetoothDeviceInfoList(list->type)) {
        Json description = describe(manager, device);
        rows.push_back({escaped(device.macAddress), escaped(device.name),
                        kindOf(device.deviceClass), idText(device, device.vendorId),
                        idText(device, device.productId), flagsOf(description)});
        result.data["devices"].push_back(std::move(description));
    }
    result.text = rows.empty() ? "No devices"
                               : table({{"ADDRESS", false},
                                        {"NAME", true},
                                        {"KIND", true},
                                        {"VENDOR", false},
                                        {"PRODUCT", false},
                                        {"FLAGS", true}},
                                       rows);
    return result;
}

Result findDevice(Session& session, const Invocation& invocation) {
    const BluetoothConnectionInfo device =
        session.device(ALL_DEVICES, invocation.arguments.front());
    Result result;
    result.data = describe(session.manager(), device);
    const auto yesOrNo = [&](const char* flag) {
        return result.data[flag].get<bool>() ? "yes" : "no";
    };
    result.text = pairs({{"Address", escaped(device.macAddress)},
                         {"Name", escaped(device.name)},
                         {"Class", hexadecimal(device.deviceClass, 6)},
                         {"Kind", kindOf(device.deviceClass)},
                         {"Vendor", idText(device, device.vendorId)},
                         {"Product", idText(device, device.productId)},
                         {"Version", idText(device, device.versionId)},
                         {"Paired", yesOrNo("paired")},
                         {"Connected", yesOrNo("connected")},
                         {"Playback device", yesOrNo("playback")}});
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

}  // namespace corvanectl
