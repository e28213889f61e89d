// Input: a D-Bus message as on the wire, BlueZ's reply to GetManagedObjects. What GDBus would not
// pass on is left aside; the lists are compared with those of a plain walk.

#include "Bluez.h"
#include "Edges.h"
#include "Machine.h"
#include "ModaliasReader.h"

#include <algorithm>
#include <string>

using namespace corvane::fuzz;
using corvane::test::edges;

namespace {

struct Lists {
    std::vector<BluetoothConnectionInfo> all;
    std::vector<BluetoothConnectionInfo> paired;
    std::vector<BluetoothConnectionInfo> connected;
};

bool isADevice(std::string interface) {
    for (char& c : interface) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return interface.find("device") != std::string::npos;
}

void add(const Interface& interface, Lists& lists) {
    BluetoothConnectionInfo device;
    bool paired = false;
    bool connected = false;
    for (const Property& property : interface.properties) {
        GVariant* const value = property.value.get();
        const std::string what = std::string(g_variant_get_type_string(value)) + property.name;
        if (what == "sAddress") device.macAddress = g_variant_get_string(value, nullptr);
        if (what == "sName") device.name = g_variant_get_string(value, nullptr);
        if (what == "uClass") device.deviceClass = g_variant_get_uint32(value);
        if (what == "bPaired") paired = g_variant_get_boolean(value) != FALSE;
        if (what == "bConnected") connected = g_variant_get_boolean(value) != FALSE;
        if (what == "sModalias") {
            const ModaliasIds ids = readModalias(g_variant_get_string(value, nullptr));
            device.vendorId = ids.vendorId;
            device.productId = ids.productId;
            device.versionId = ids.versionId;
        }
    }
    if (device.name.empty()) device.name = device.macAddress;
    lists.all.push_back(device);
    if (paired) lists.paired.push_back(device);
    if (connected) lists.connected.push_back(device);
}

bool same(const BluetoothConnectionInfo& a, const BluetoothConnectionInfo& b) {
    return a.macAddress == b.macAddress && a.name == b.name && a.deviceClass == b.deviceClass &&
           a.vendorId == b.vendorId && a.productId == b.productId && a.versionId == b.versionId;
}

void requireSame(BluetoothDeviceListType type,
                 const std::vector<BluetoothConnectionInfo>& expected) {
    const auto& list = manager().getBluetoothDeviceList(type);
    require(std::equal(list.begin(), list.end(), expected.begin(), expected.end(), same),
            "the lists are those of a plain walk");
    require(manager().getBluetoothDeviceListSize(type) == expected.size(), "the list's size");
}

/// What a host does with the first devices.
void use(const std::vector<BluetoothConnectionInfo>& devices) {
    constexpr std::size_t some = 4;
    for (std::size_t i = 0; i < std::min(devices.size(), some); ++i) {
        const BluetoothConnectionInfo& device = devices[i];
        const auto found = manager().getDeviceInfo(ALL_DEVICES, device.name);
        const auto first = std::find_if(devices.begin(), devices.end(),
                                        [&](const auto& each) { return each.name == device.name; });
        require(found && same(*found, *first), "a name finds its first record");
        manager().isPlaybackDevice(device);
        manager().pairDevice(device.macAddress.c_str());
        manager().deviceSetTrusted(device.macAddress.c_str(), true);
        manager().deletePairedDevice(device.macAddress.c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Message message = messageOf(data, size);
    if (!message) return 0;
    Reply reply;
    const bool readable = readReply(message, reply);
    Lists expected;
    for (const Object& object : reply) {
        for (const Interface& interface : object.interfaces) {
            if (isADevice(interface.name)) add(interface, expected);
        }
    }
    bluezAnswers(message);
    require(manager().scanDevicesInfo(), "a scan with a connection returns true");
    requireSame(ALL_DEVICES, expected.all);
    requireSame(PAIRED_DEVICES, expected.paired);
    requireSame(CONNECTED_DEVICES, expected.connected);
    require(edges().log().size() == (readable ? 0U : 1U), "what is no list of objects is logged");
    use(expected.all);
    edges().forget();
    return 0;
}
