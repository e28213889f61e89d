#include "Devices.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace corvane::bench {

namespace {

constexpr char bluez[] = "org.bluez.";
constexpr char bus[] = "org.freedesktop.DBus.";

/// One kind of classic device.
struct Kind {
    const char* name;
    guint32 deviceClass;
    const char* icon;
    const char* modalias;
};
constexpr std::array<Kind, 4> kinds{{
    {"Phone of room", 0x5A020C, "phone", "bluetooth:v004Cp0269d0001"},
    {"Loudspeaker", 0x240414, "audio-card", "bluetooth:v009Ep4020d0251"},
    {"Keyboard", 0x000540, "input-keyboard", "usb:v05ACp0267d0066"},
    {"Notebook", 0x1C010C, "computer", "usb:v1D6Bp0246d0542"},
}};

constexpr std::array<const char*, 6> classicServices{
    "00001105-0000-1000-8000-00805f9b34fb", "0000110a-0000-1000-8000-00805f9b34fb",
    "0000110c-0000-1000-8000-00805f9b34fb", "0000110e-0000-1000-8000-00805f9b34fb",
    "0000111f-0000-1000-8000-00805f9b34fb", "00001200-0000-1000-8000-00805f9b34fb"};

class Properties {
public:
    Properties() { g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}")); }
    void add(const char* name, GVariant* value) {
        g_variant_builder_add(&builder, "{sv}", name, value);
    }
    void add(const char* name, const char* text) { add(name, g_variant_new_string(text)); }
    void add(const char* name, bool value) { add(name, g_variant_new_boolean(value ? 1 : 0)); }
    void add(const char* name, guint32 number) { add(name, g_variant_new_uint32(number)); }
    GVariant* end() { return g_variant_builder_end(&builder); }

private:
    GVariantBuilder builder{};
};

GVariant* bytes(unsigned seed, unsigned count) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("ay"));
    for (unsigned i = 0; i < count; ++i) {
        g_variant_builder_add(&builder, "y", static_cast<guchar>(seed * 31 + i));
    }
    return g_variant_new_variant(g_variant_builder_end(&builder));
}

GVariant* services(bool all) {
    return g_variant_new_strv(classicServices.data(),
                              static_cast<gssize>(all ? classicServices.size() : 1));
}

GVariant* device(unsigned index, const char* address) {
    const bool lowEnergy = index % 2 == 1;
    const bool paired = index % 10 == 0;
    const bool connected = index % 50 == 0;
    const Kind& kind = kinds.at(index / 2 % kinds.size());
    const std::string name =
        std::string(lowEnergy ? "Sensor" : kind.name) + ' ' + std::to_string(index);
    Properties properties;
    properties.add("Address", address);
    properties.add("AddressType", lowEnergy ? "random" : "public");
    properties.add("Name", name.c_str());
    properties.add("Alias", name.c_str());
    if (lowEnergy) {
        properties.add("Appearance", g_variant_new_uint16(0x0540));
    } else {
        properties.add("Class", kind.deviceClass);
        properties.add("Icon", kind.icon);
    }
    properties.add("Paired", paired);
    properties.add("Bonded", paired);
    properties.add("Trusted", paired);
    properties.add("Blocked", false);
    properties.add("LegacyPairing", false);
    properties.add("RSSI",
                   g_variant_new_int16(static_cast<gint16>(-40 - static_cast<int>(index % 50))));
    properties.add("Connected", connected);
    properties.add("UUIDs", services(!lowEnergy));
    if (!lowEnergy) properties.add("Modalias", kind.modalias);
    properties.add("Adapter", g_variant_new_object_path("/org/bluez/hci0"));
    if (lowEnergy) {
        GVariantBuilder data;
        g_variant_builder_init(&data, G_VARIANT_TYPE("a{qv}"));
        g_variant_builder_add(&data, "{q@v}", 0x0059, bytes(index, 12));
        properties.add("ManufacturerData", g_variant_builder_end(&data));
        g_variant_builder_init(&data, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&data, "{s@v}", "0000180f-0000-1000-8000-00805f9b34fb",
                              bytes(index, 1));
        properties.add("ServiceData", g_variant_builder_end(&data));
    }
    properties.add("TxPower", g_variant_new_int16(4));
    properties.add("ServicesResolved", connected);
    return properties.end();
}

GVariant* adapter() {
    Properties properties;
    properties.add("Address", "00:AA:01:00:00:42");
    properties.add("AddressType", "public");
    properties.add("Name", "C600");
    properties.add("Alias", "C600 SN12345678");
    properties.add("Class", 0x2100U);
    properties.add("Powered", true);
    properties.add("Discoverable", false);
    properties.add("DiscoverableTimeout", 0U);
    properties.add("Pairable", true);
    properties.add("PairableTimeout", 0U);
    properties.add("Discovering", false);
    properties.add("UUIDs", services(true));
    properties.add("Modalias", "usb:v1D6Bp0246d0542");
    return properties.end();
}

/// An object: Introspectable, the named interfaces, Properties.
class Object {
public:
    Object() {
        g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa{sv}}"));
        add(bus, "Introspectable", Properties().end());
    }
    Object& add(const char* prefix, const char* name, GVariant* properties) {
        g_variant_builder_add(&builder, "{s@a{sv}}", (std::string(prefix) + name).c_str(),
                              properties);
        return *this;
    }
    void end(GVariantBuilder& objects, const char* path) {
        g_variant_builder_add(&objects, "{o@a{sa{sv}}}", path, g_variant_builder_end(&builder));
    }

private:
    GVariantBuilder builder{};
};

}  // namespace

GVariant* managedObjects(unsigned devices) {
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    Object()
        .add(bluez, "AgentManager1", Properties().end())
        .add(bluez, "ProfileManager1", Properties().end())
        .end(objects, "/org/bluez");
    Object()
        .add(bluez, "Adapter1", adapter())
        .add(bus, "Properties", Properties().end())
        .add(bluez, "GattManager1", Properties().end())
        .add(bluez, "Media1", Properties().end())
        .add(bluez, "NetworkServer1", Properties().end())
        .end(objects, "/org/bluez/hci0");
    for (unsigned i = 0; i < devices; ++i) {
        std::array<char, 18> address{};
        std::snprintf(address.data(), address.size(), "00:1A:7D:%02X:%02X:%02X", i >> 16 & 0xFF,
                      i >> 8 & 0xFF, i & 0xFF);
        std::string path = std::string("/org/bluez/hci0/dev_") + address.data();
        for (char& c : path) {
            if (c == ':') c = '_';
        }
        Object object;
        object.add(bluez, "Device1", device(i, address.data()))
            .add(bus, "Properties", Properties().end());
        if (i % 50 == 0) {
            Properties control;
            control.add("Connected", true);
            object.add(bluez, "MediaControl1", control.end());
        }
        object.end(objects, path.c_str());
    }
    return g_variant_builder_end(&objects);
}

}  // namespace corvane::bench
