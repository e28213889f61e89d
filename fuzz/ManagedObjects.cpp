// Input: BlueZ's reply to GetManagedObjects as a list of items, each ended by a zero byte, which no
// D-Bus text can hold. Every input is a reply that GDBus would pass on:
//
//   O            a new object
//   INAME        a new interface of the object
//   sNAME=TEXT   a text; b: a boolean, true for an odd number of bytes; u: a number made of the
//                bytes; anything else: a value of another type
//   E            an error instead of a reply
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

struct Property {
    char kind;
    std::string name, text;
};
struct Interface {
    std::string name;
    std::vector<Property> properties;
};
struct Reply {
    std::vector<std::vector<Interface>> objects;
    bool isError = false;
};
using Devices = std::vector<BluetoothConnectionInfo>;

GVariant* answer = nullptr;  // null: an error

std::string validText(std::string_view bytes) {
    gchar* const valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
    std::string text = valid;
    g_free(valid);
    return text;
}

Reply readItems(std::string_view input) {
    Reply reply;
    while (!input.empty()) {
        const std::string_view item = input.substr(0, input.find('\0'));
        input.remove_prefix(std::min(item.size() + 1, input.size()));
        if (item.empty()) continue;
        const char kind = item.front();
        if (kind == 'E') reply.isError = true;
        if (kind == 'O' || reply.objects.empty()) reply.objects.emplace_back();
        auto& interfaces = reply.objects.back();
        if (kind == 'I') interfaces.push_back({validText(item.substr(1)), {}});
        const auto equals = item.find('=');
        if (equals == std::string_view::npos || interfaces.empty()) continue;
        interfaces.back().properties.push_back(
            {kind, validText(item.substr(1, equals - 1)), validText(item.substr(equals + 1))});
    }
    return reply;
}

bool isTrue(const Property& property) { return property.text.size() % 2 == 1; }

guint32 number(const Property& property) {
    guint32 value = 0;
    for (const char c : property.text) value = value << 8 | static_cast<unsigned char>(c);
    return value;
}

GVariant* valueOf(const Property& property) {
    constexpr std::array<const char*, 8> others{"objectpath '/a'", "b'bytes'",     "int32 5898764",
                                                "byte 1",          "<<'deeper'>>", "['a', 'b']",
                                                "@a{sv} {}",       "signature 's'"};
    if (property.kind == 's') return g_variant_new_string(property.text.c_str());
    if (property.kind == 'b') return g_variant_new_boolean(isTrue(property) ? TRUE : FALSE);
    if (property.kind == 'u') return g_variant_new_uint32(number(property));
    return g_variant_new_parsed(others.at(property.text.size() % others.size()));
}

GVariant* variantOf(const Reply& reply) {
    if (reply.isError) return nullptr;
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    for (const auto& object : reply.objects) {
        GVariantBuilder interfaces;
        g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
        for (const Interface& interface : object) {
            GVariantBuilder properties;
            g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
            for (const Property& property : interface.properties) {
                g_variant_builder_add(&properties, "{sv}", property.name.c_str(),
                                      valueOf(property));
            }
            g_variant_builder_add(&interfaces, "{sa{sv}}", interface.name.c_str(), &properties);
        }
        g_variant_builder_add(&objects, "{oa{sa{sv}}}", "/org/bluez/hci0/dev", &interfaces);
    }
    return g_variant_ref_sink(g_variant_new("(a{oa{sa{sv}}})", &objects));
}

void add(const Interface& interface, std::array<Devices, 3>& lists) {
    gchar* const folded = g_ascii_strdown(interface.name.c_str(), -1);
    const bool isDevice = std::strstr(folded, "device") != nullptr;
    g_free(folded);
    if (!isDevice) return;
    BluetoothConnectionInfo device;
    std::array<bool, 3> listed{true, false, false};
    for (const Property& property : interface.properties) {
        const std::string what = property.kind + property.name;
        if (what == "sAddress") device.macAddress = property.text;
        if (what == "sName") device.name = property.text;
        if (what == "uClass") device.deviceClass = number(property);
        if (what == "bPaired") listed[PAIRED_DEVICES] = isTrue(property);
        if (what == "bConnected") listed[CONNECTED_DEVICES] = isTrue(property);
        if (what == "sModalias") {
            const ModaliasIds ids = manager().parseModalias(property.text);
            device.vendorId = ids.vendorId;
            device.productId = ids.productId;
            device.versionId = ids.versionId;
        }
    }
    if (device.name.empty()) device.name = device.macAddress;
    for (std::size_t i = 0; i < lists.size(); ++i) {
        if (listed.at(i)) lists.at(i).push_back(device);
    }
}

bool same(const BluetoothConnectionInfo& a, const BluetoothConnectionInfo& b) {
    return a.macAddress == b.macAddress && a.name == b.name && a.deviceClass == b.deviceClass &&
           a.vendorId == b.vendorId && a.productId == b.productId && a.versionId == b.versionId;
}

/// What a host does with the first devices.
void use(const Devices& devices) {
    constexpr std::size_t some = 4;
    for (std::size_t i = 0; i < std::min(devices.size(), some); ++i) {
        const BluetoothConnectionInfo& device = devices[i];
        const auto found = manager().getDeviceInfo(ALL_DEVICES, device.name);
        require(found && found->name == device.name, "a listed device is found by its name");
        manager().isPlaybackDevice(device);
        manager().pairDevice(device.macAddress.c_str());
        manager().deviceSetTrusted(device.macAddress.c_str(), true);
        manager().deletePairedDevice(device.macAddress.c_str());
    }
}

}  // namespace

// GDBus, as far as the library uses it: BlueZ agrees to every call.
extern "C" {

void g_dbus_connection_call(GDBusConnection* connection, const gchar* /*busName*/,
                            const gchar* /*path*/, const gchar* /*interface*/, const gchar* method,
                            GVariant* /*parameters*/, const GVariantType* type,
                            GDBusCallFlags /*flags*/, gint /*timeout*/, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer userData) {
    require(std::strcmp(method, "GetManagedObjects") == 0, "the one call that does not wait");
    require(g_variant_type_equal(type, G_VARIANT_TYPE("(a{oa{sa{sv}}})")) != FALSE,
            "GDBus checks the reply's type");
    GTask* const task = g_task_new(connection, cancellable, callback, userData);
    if (answer == nullptr) {
        g_task_return_new_error(task, G_IO_ERROR, G_IO_ERROR_FAILED, "no reply");
    } else {
        g_task_return_pointer(task, g_variant_ref(answer),
                              reinterpret_cast<GDestroyNotify>(g_variant_unref));
    }
    g_object_unref(task);
}

GVariant* g_dbus_connection_call_finish(GDBusConnection* /*connection*/, GAsyncResult* result,
                                        GError** error) {
    return static_cast<GVariant*>(g_task_propagate_pointer(G_TASK(result), error));
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* /*connection*/, const gchar* /*busName*/,
                                      const gchar* path, const gchar* /*interface*/,
                                      const gchar* /*method*/, GVariant* parameters,
                                      const GVariantType* /*type*/, GDBusCallFlags /*flags*/,
                                      gint /*timeout*/, GCancellable* /*cancellable*/,
                                      GError** /*error*/) {
    require(g_variant_is_object_path(path) != FALSE, "calls go to object paths");
    if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
    return g_variant_ref_sink(g_variant_new("()"));
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Reply reply = readItems({reinterpret_cast<const char*>(data), size});
    std::array<Devices, 3> expected;
    if (!reply.isError) {
        for (const auto& object : reply.objects) {
            for (const Interface& interface : object) add(interface, expected);
        }
    }
    manager();
    answer = variantOf(reply);
    require(manager().scanDevicesInfo(), "a scan with a connection returns true");
    if (answer != nullptr) g_variant_unref(answer);
    for (const auto type : {ALL_DEVICES, PAIRED_DEVICES, CONNECTED_DEVICES}) {
        const auto& list = manager().getBluetoothDeviceList(type);
        const Devices& walked = expected.at(static_cast<std::size_t>(type));
        require(std::equal(list.begin(), list.end(), walked.begin(), walked.end(), same),
                "the lists are those of a plain walk");
        require(manager().getBluetoothDeviceListSize(type) == walked.size(), "the list's size");
    }
    require(edges().log().size() == (reply.isError ? 1U : 0U), "only a failed call is logged");
    use(expected[ALL_DEVICES]);
    edges().forget();
    return 0;
}
