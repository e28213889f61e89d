// Input: BlueZ's reply to GetManagedObjects as a list of items, each ended by a zero byte, which no
// D-Bus text can hold. Every input is a reply that GDBus would pass on; an empty one is an error.
//
//   INAME        a new interface
//   sNAME=TEXT   a text; b: a boolean, true for an odd number of bytes; u: a number made of the
//                bytes; anything else: an object path
//
// The lists are compared with those that a walk through the items gives.

#include "Edges.h"
#include "Machine.h"

#include <gio/gio.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

using corvane::fuzz::manager;
using corvane::fuzz::require;
using corvane::test::edges;

namespace {

using Devices = std::vector<BluetoothConnectionInfo>;

GVariant* answer = nullptr;  // null: an error; the library takes it

std::string validText(std::string_view bytes) {
    gchar* const valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
    std::string text = valid;
    g_free(valid);
    return text;
}

std::vector<std::string> itemsOf(std::string_view input) {
    std::vector<std::string> items;
    while (!input.empty()) {
        const std::string_view item = input.substr(0, input.find('\0'));
        input.remove_prefix(std::min(item.size() + 1, input.size()));
        if (!item.empty()) items.push_back(item.front() + validText(item.substr(1)));
    }
    return items;
}

/// A device as read from its properties, and the lists that it is in.
struct Walked {
    BluetoothConnectionInfo device;
    std::array<bool, 3> listed{true, false, false};
};

/// Adds a property to a reply and to the device that it describes.
void addProperty(const std::string& item, GVariantBuilder& properties, Walked& walked) {
    const auto equals = item.find('=');
    if (equals == 0 || equals == std::string::npos) return;
    const std::string property = item.substr(0, equals);
    const std::string text = item.substr(equals + 1);
    const bool flag = text.size() % 2 == 1;
    guint32 number = 0;
    for (const char c : text) number = number << 8 | static_cast<unsigned char>(c);
    GVariant* const value = property[0] == 's'   ? g_variant_new_string(text.c_str())
                            : property[0] == 'b' ? g_variant_new_boolean(flag ? TRUE : FALSE)
                            : property[0] == 'u' ? g_variant_new_uint32(number)
                                                 : g_variant_new_object_path("/a");
    g_variant_builder_add(&properties, "{sv}", property.c_str() + 1, value);

    BluetoothConnectionInfo& device = walked.device;
    if (property == "sAddress") device.macAddress = text;
    if (property == "sName") device.name = text;
    if (property == "uClass") device.deviceClass = number;
    if (property == "bPaired") walked.listed[PAIRED_DEVICES] = flag;
    if (property == "bConnected") walked.listed[CONNECTED_DEVICES] = flag;
    if (property == "sModalias") {
        const ModaliasIds ids = manager().parseModalias(text);
        device.vendorId = ids.vendorId;
        device.productId = ids.productId;
        device.versionId = ids.versionId;
    }
}

/// Builds the reply and the lists that it must give.
GVariant* build(const std::vector<std::string>& items, std::array<Devices, 3>& lists) {
    GVariantBuilder interfaces;
    g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
    for (auto item = items.begin(); item != items.end();) {
        const std::string name = item->substr(1);
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
        Walked walked;
        while (++item != items.end() && item->front() != 'I')
            addProperty(*item, properties, walked);
        g_variant_builder_add(&interfaces, "{sa{sv}}", name.c_str(), &properties);

        if (walked.device.name.empty()) walked.device.name = walked.device.macAddress;
        gchar* const folded = g_ascii_strdown(name.c_str(), -1);
        for (std::size_t i = 0; std::strstr(folded, "device") && i < lists.size(); ++i) {
            if (walked.listed.at(i)) lists.at(i).push_back(walked.device);
        }
        g_free(folded);
    }
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    g_variant_builder_add(&objects, "{oa{sa{sv}}}", "/org/bluez/hci0/dev", &interfaces);
    return g_variant_ref_sink(g_variant_new("(a{oa{sa{sv}}})", &objects));
}

bool same(const BluetoothConnectionInfo& a, const BluetoothConnectionInfo& b) {
    return a.macAddress == b.macAddress && a.name == b.name && a.deviceClass == b.deviceClass &&
           a.vendorId == b.vendorId && a.productId == b.productId && a.versionId == b.versionId;
}

}  // namespace

/// GDBus's, which checks the type of a reply before.
extern "C" GVariant* g_dbus_connection_call_finish(GDBusConnection* /*connection*/,
                                                   GAsyncResult* /*result*/, GError** /*error*/) {
    return answer;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto* const noConnection = reinterpret_cast<GDBusConnection*>(&answer);
    static auto* const loop = g_main_loop_new(nullptr, FALSE);
    constexpr std::array types{ALL_DEVICES, PAIRED_DEVICES, CONNECTED_DEVICES};
    std::array<Devices, 3> expected;
    for (const auto type : types) manager().getBluetoothDeviceList(type).clear();
    answer =
        size == 0 ? nullptr : build(itemsOf({reinterpret_cast<const char*>(data), size}), expected);
    BluetoothManager::bluezListDevices(noConnection, nullptr, loop);
    for (const auto type : types) {
        const auto& list = manager().getBluetoothDeviceList(type);
        const Devices& walked = expected.at(static_cast<std::size_t>(type));
        require(std::equal(list.begin(), list.end(), walked.begin(), walked.end(), same),
                "the lists are those of a plain walk");
    }
    require(edges().log().size() == (size > 0 ? 0U : 1U), "only a failed call is logged");
    edges().forget();
    return 0;
}
