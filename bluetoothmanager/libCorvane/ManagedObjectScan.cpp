#include "BluetoothManager.h"

#include "Bluez.h"
#include "Handles.h"
#include "LogAppender.h"
#include "SystemBus.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

using corvane::VariantPtr;

namespace {

// We read the reply by child index: with a format string and borrowed strings GLib would first
// flatten the whole reply and allocate every child a second time.
VariantPtr child(const VariantPtr& container, gsize index) {
    return VariantPtr(g_variant_get_child_value(container.get(), index));
}

std::string_view text(GVariant* value) {
    gsize length = 0;
    const gchar* start = g_variant_get_string(value, &length);
    return {start, length};
}

/// Deliberate: a loose match. BlueZ's device interface passes, and so does any other interface with
/// "device" in its name, upper or lower case; each yields a record. Held by
/// DeviceScan.EveryInterfaceWithDeviceInItsNameYieldsARecord.
bool looksLikeADevice(std::string_view interface) {
    constexpr std::string_view wanted = "device";
    return std::search(interface.begin(), interface.end(), wanted.begin(), wanted.end(),
                       [](char a, char b) { return g_ascii_tolower(a) == b; }) != interface.end();
}

struct FoundDevice {
    BluetoothConnectionInfo info;
    bool paired = false;
    bool connected = false;
};

/// A property that we read: its type and what to do with its value.
struct Wanted {
    std::string_view name;
    GVariantClass type;
    void (*take)(FoundDevice& device, GVariant* value, BluetoothManager& manager);
};

constexpr std::array<Wanted, 6> wantedProperties{{
    {"Address", G_VARIANT_CLASS_STRING,
     [](FoundDevice& device, GVariant* value, BluetoothManager& /*manager*/) {
         device.info.macAddress = text(value);
     }},
    {"Name", G_VARIANT_CLASS_STRING,
     [](FoundDevice& device, GVariant* value, BluetoothManager& /*manager*/) {
         device.info.name = text(value);
     }},
    {"Modalias", G_VARIANT_CLASS_STRING,
     [](FoundDevice& device, GVariant* value, BluetoothManager& manager) {
         const ModaliasIds ids = manager.parseModalias(std::string(text(value)));
         device.info.vendorId = ids.vendorId;
         device.info.productId = ids.productId;
         device.info.versionId = ids.versionId;
     }},
    {"Class", G_VARIANT_CLASS_UINT32,
     [](FoundDevice& device, GVariant* value, BluetoothManager& /*manager*/) {
         device.info.deviceClass = g_variant_get_uint32(value);
     }},
    {"Paired", G_VARIANT_CLASS_BOOLEAN,
     [](FoundDevice& device, GVariant* value, BluetoothManager& /*manager*/) {
         device.paired = g_variant_get_boolean(value) != FALSE;
     }},
    {"Connected", G_VARIANT_CLASS_BOOLEAN,
     [](FoundDevice& device, GVariant* value, BluetoothManager& /*manager*/) {
         device.connected = g_variant_get_boolean(value) != FALSE;
     }},
}};

/// Reads one property, a name and a value. Ignores unknown names and values of another type. If a
/// property occurs twice, the later one wins.
void apply(FoundDevice& device, const VariantPtr& property, BluetoothManager& manager) {
    const VariantPtr name = child(property, 0);
    const std::string_view nameText = text(name.get());
    const auto* const wanted =
        std::find_if(wantedProperties.begin(), wantedProperties.end(),
                     [nameText](const Wanted& known) { return known.name == nameText; });
    // Two thirds of the properties are not ours: skip them without unpacking.
    if (wanted == wantedProperties.end()) return;
    const VariantPtr value(g_variant_get_variant(child(property, 1).get()));
    if (g_variant_classify(value.get()) == wanted->type) wanted->take(device, value.get(), manager);
}

FoundDevice readDevice(const VariantPtr& properties, BluetoothManager& manager) {
    FoundDevice device;
    const gsize count = g_variant_n_children(properties.get());
    for (gsize i = 0; i < count; ++i) apply(device, child(properties, i), manager);
    if (device.info.name.empty()) device.info.name = device.info.macAddress;
    return device;
}

void store(const FoundDevice& device, BluetoothManager& manager) {
    manager.addNewDeviceToList(ALL_DEVICES, device.info);
    if (device.paired) manager.addNewDeviceToList(PAIRED_DEVICES, device.info);
    if (device.connected) manager.addNewDeviceToList(CONNECTED_DEVICES, device.info);
}

/// Directs the replies to this thread's asynchronous calls to the default main context, which the
/// scan runs, even if the thread has its own context.
class DefaultContext {
public:
    DefaultContext() {
        if (pushed) g_main_context_push_thread_default(nullptr);
    }
    ~DefaultContext() {
        if (pushed) g_main_context_pop_thread_default(nullptr);
    }
    DefaultContext(const DefaultContext&) = delete;
    DefaultContext& operator=(const DefaultContext&) = delete;

private:
    const bool pushed = g_main_context_get_thread_default() != nullptr;
};

}  // namespace

bool BluetoothManager::scanDevicesInfo() {
    for (const auto type : {ALL_DEVICES, PAIRED_DEVICES, CONNECTED_DEVICES}) {
        getBluetoothDeviceList(type).clear();
    }
    GDBusConnection* const connection = corvane::current(dbusConnection);
    if (connection == nullptr) {
        // Without a call there is no reply to end the loop.
        bluezListDevices(nullptr, nullptr, mainLoop);
        return true;
    }
    {
        const DefaultContext answered;
        g_dbus_connection_call(
            connection, corvane::bluez::busName, "/", "org.freedesktop.DBus.ObjectManager",
            "GetManagedObjects", nullptr, G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE,
            -1, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer userData) {
                bluezListDevices(reinterpret_cast<GDBusConnection*>(source), result, userData);
            },
            mainLoop);
    }
    g_main_loop_run(mainLoop);
    return true;
}

void BluetoothManager::bluezListDevices(GDBusConnection* connection, GAsyncResult* result,
                                        gpointer userData) {
    auto* const loop = static_cast<GMainLoop*>(userData);
    const VariantPtr reply(connection == nullptr
                               ? nullptr
                               : g_dbus_connection_call_finish(connection, result, nullptr));
    if (!reply) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Unable to get result for GetManagedObjects");
        g_main_loop_quit(loop);
        return;
    }

    BluetoothManager& manager = getInstance();
    const VariantPtr objects = child(reply, 0);
    const gsize objectCount = g_variant_n_children(objects.get());
    for (gsize i = 0; i < objectCount; ++i) {
        const VariantPtr object = child(objects, i);
        const VariantPtr interfaces = child(object, 1);
        const gsize interfaceCount = g_variant_n_children(interfaces.get());
        for (gsize j = 0; j < interfaceCount; ++j) {
            const VariantPtr interface = child(interfaces, j);
            if (!looksLikeADevice(text(child(interface, 0).get()))) continue;
            store(readDevice(child(interface, 1), manager), manager);
        }
    }
    g_main_loop_quit(loop);
}

ModaliasIds BluetoothManager::parseModalias(const std::string& modalias) {
    static const std::string btFormat = "%*[a-z]:v%4xp%4xd%4x";
    unsigned vendor = 0;
    unsigned product = 0;
    unsigned version = 0;
    // NOLINTNEXTLINE(cert-err34-c): four digits cannot overflow
    if (std::sscanf(modalias.c_str(), btFormat.c_str(), &vendor, &product, &version) != 3)
        return {};
    return {static_cast<std::uint16_t>(vendor), static_cast<std::uint16_t>(product),
            static_cast<std::uint16_t>(version)};
}
