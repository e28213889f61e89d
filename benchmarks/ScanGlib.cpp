// Lists BlueZ's devices, once for each line of standard input: through the library, through what
// else a C++ program on GLib or sdbus-c++ would use, and by a call whose reply is dropped, which is
// the floor. All in one program, so that they start from the same state.
//
// Usage: corvane-bench-scan-glib WAY   (see the table of ways)

#include "BluetoothManager.h"

#include "Machine.h"
#include "Measuring.h"

#include <gio/gio.h>
#include <sdbus-c++/sdbus-c++.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr char busName[] = "org.bluez";
constexpr char managerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char deviceInterface[] = "org.bluez.Device1";

/// What the library's record holds, and which lists would hold it.
struct Device {
    BluetoothConnectionInfo info;
    bool paired = false;
    bool connected = false;
};
using Devices = std::vector<Device>;

/// Takes over a property that GLib's peers have at hand as a variant.
void apply(Device& device, const char* name, GVariant* value) {
    if (std::strcmp(name, "Address") == 0) {
        device.info.macAddress = g_variant_get_string(value, nullptr);
    } else if (std::strcmp(name, "Name") == 0) {
        device.info.name = g_variant_get_string(value, nullptr);
    } else if (std::strcmp(name, "Modalias") == 0) {
        device.info.vendorId = BluetoothManager::getInstance()
                                   .parseModalias(g_variant_get_string(value, nullptr))
                                   .vendorId;
    } else if (std::strcmp(name, "Class") == 0) {
        device.info.deviceClass = g_variant_get_uint32(value);
    } else if (std::strcmp(name, "Paired") == 0) {
        device.paired = g_variant_get_boolean(value) != FALSE;
    } else if (std::strcmp(name, "Connected") == 0) {
        device.connected = g_variant_get_boolean(value) != FALSE;
    }
}

/// The library's own call on the default main context; `take` gets the reply.
template <class Take>
std::int64_t callAndTake(const Take& take) {
    struct Waiting {
        GMainLoop* loop;
        const Take& take;
    };
    static GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    static GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const std::int64_t start = corvane::bench::nanoseconds();
    Waiting waiting{loop, take};
    g_dbus_connection_call(
        bus, busName, "/", managerInterface, "GetManagedObjects", nullptr,
        G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            const auto* const caller = static_cast<Waiting*>(data);
            GVariant* const reply =
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
            if (reply == nullptr) std::abort();
            caller->take(reply);
            g_variant_unref(reply);
            g_main_loop_quit(caller->loop);
        },
        &waiting);
    g_main_loop_run(loop);
    return corvane::bench::nanoseconds() - start;
}

std::int64_t drop(unsigned& count) {
    return callAndTake([&count](GVariant* reply) {
        GVariant* const objects = g_variant_get_child_value(reply, 0);
        count = static_cast<unsigned>(g_variant_n_children(objects)) - 2;  // manager and adapter
        g_variant_unref(objects);
    });
}

std::int64_t library(unsigned& count) {
    BluetoothManager& manager = BluetoothManager::getInstance();
    const std::int64_t start = corvane::bench::nanoseconds();
    manager.scanDevicesInfo();
    const std::int64_t end = corvane::bench::nanoseconds();
    count = manager.getBluetoothDeviceListSize(ALL_DEVICES);
    return end - start;
}

/// The textbook's walk. `Borrow`: with & in the formats, texts and dictionaries are not copied.
template <bool Borrow>
Devices walk(GVariant* reply) {
    const auto release = [](char* text) {
        if constexpr (!Borrow) g_free(text);
    };
    Devices devices;
    GVariantIter* objects = nullptr;
    g_variant_get(reply, "(a{oa{sa{sv}}})", &objects);
    char* path = nullptr;
    GVariantIter* interfaces = nullptr;
    while (g_variant_iter_next(objects, Borrow ? "{&oa{sa{sv}}}" : "{oa{sa{sv}}}", &path,
                               &interfaces) != FALSE) {
        char* interface = nullptr;
        GVariantIter* properties = nullptr;
        while (g_variant_iter_next(interfaces, Borrow ? "{&sa{sv}}" : "{sa{sv}}", &interface,
                                   &properties) != FALSE) {
            if (std::strcmp(interface, deviceInterface) == 0) {
                Device device;
                char* name = nullptr;
                GVariant* value = nullptr;
                while (g_variant_iter_next(properties, Borrow ? "{&sv}" : "{sv}", &name, &value) !=
                       FALSE) {
                    apply(device, name, value);
                    release(name);
                    g_variant_unref(value);
                }
                devices.push_back(std::move(device));
            }
            release(interface);
            g_variant_iter_free(properties);
        }
        release(path);
        g_variant_iter_free(interfaces);
    }
    g_variant_iter_free(objects);
    return devices;
}

template <bool Borrow>
std::int64_t walkReply(unsigned& count) {
    return callAndTake(
        [&count](GVariant* reply) { count = static_cast<unsigned>(walk<Borrow>(reply).size()); });
}

std::int64_t objectManagerClient(unsigned& count) {
    const std::int64_t start = corvane::bench::nanoseconds();
    GDBusObjectManager* const client = g_dbus_object_manager_client_new_for_bus_sync(
        G_BUS_TYPE_SYSTEM, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE, busName, "/", nullptr, nullptr,
        nullptr, nullptr, nullptr);
    if (client == nullptr) std::abort();
    GList* const objects = g_dbus_object_manager_get_objects(client);
    Devices devices;
    for (const GList* entry = objects; entry != nullptr; entry = entry->next) {
        GDBusInterface* const proxy =
            g_dbus_object_get_interface(G_DBUS_OBJECT(entry->data), deviceInterface);
        if (proxy == nullptr) continue;
        Device device;
        for (const char* name : {"Address", "Name", "Modalias", "Class", "Paired", "Connected"}) {
            GVariant* const value = g_dbus_proxy_get_cached_property(G_DBUS_PROXY(proxy), name);
            if (value == nullptr) continue;
            apply(device, name, value);
            g_variant_unref(value);
        }
        devices.push_back(std::move(device));
        g_object_unref(proxy);
    }
    const std::int64_t time = corvane::bench::nanoseconds() - start;
    count = static_cast<unsigned>(devices.size());
    g_list_free_full(objects, g_object_unref);
    g_object_unref(client);
    return time;
}

std::int64_t sdbusMaps(unsigned& count) {
    using Objects =
        std::map<sdbus::ObjectPath, std::map<std::string, std::map<std::string, sdbus::Variant>>>;
#if CORVANE_SDBUS_MAJOR >= 2
    static const auto proxy = sdbus::createProxy(
        sdbus::createSystemBusConnection(), sdbus::ServiceName{busName}, sdbus::ObjectPath{"/"});
#else
    static const auto proxy = sdbus::createProxy(sdbus::createSystemBusConnection(), busName, "/");
#endif
    const std::int64_t start = corvane::bench::nanoseconds();
    Objects objects;
    proxy->callMethod("GetManagedObjects").onInterface(managerInterface).storeResultsTo(objects);
    Devices devices;
    for (const auto& [path, interfaces] : objects) {
        const auto found = interfaces.find(deviceInterface);
        if (found == interfaces.end()) continue;
        const auto& properties = found->second;
        Device device;
        const auto get = [&properties](const char* name, auto& field) {
            const auto property = properties.find(name);
            if (property == properties.end()) return;
            field = property->second.get<std::remove_reference_t<decltype(field)>>();
        };
        std::string modalias;
        get("Address", device.info.macAddress);
        get("Name", device.info.name);
        get("Class", device.info.deviceClass);
        get("Paired", device.paired);
        get("Connected", device.connected);
        get("Modalias", modalias);
        device.info.vendorId = BluetoothManager::getInstance().parseModalias(modalias).vendorId;
        devices.push_back(std::move(device));
    }
    const std::int64_t time = corvane::bench::nanoseconds() - start;
    count = static_cast<unsigned>(devices.size());
    return time;
}

const std::map<std::string, std::int64_t (*)(unsigned&)> ways{
    {"floor", drop},
    {"library", library},
    {"walk-copying", walkReply<false>},
    {"walk-borrowing", walkReply<true>},
    {"object-manager-client", objectManagerClient},
    {"sdbus-maps", sdbusMaps},
};

}  // namespace

int main(int argc, char** argv) {
    const auto way = ways.find(argc == 2 ? argv[1] : "");
    if (way == ways.end()) {
        std::fputs("usage: corvane-bench-scan-glib WAY, one of:", stderr);
        for (const auto& known : ways) std::fprintf(stderr, " %s", known.first.c_str());
        std::fputc('\n', stderr);
        return 2;
    }
    corvane::bench::useNoHardware();
    BluetoothManager::getInstance();
    return corvane::bench::serveRounds(way->second);
}
