// Stands in for bluetoothd with any number of devices. The reply to GetManagedObjects is marshalled
// once and copied for each caller, so that the server's own share of a call is small.
//
// Usage: corvane-bench-bluez DEVICES
//   Owns org.bluez and org.corvane.Hardware on the system bus, prints "ready" and serves until it
//   is ended or the bus goes away. Every other call gets an empty reply.

#include <gio/gio.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <dbus/dbus.h>

namespace {

// A board with the wiring that has no enable lines.
constexpr char identity[] =
    "<identity><model>6</model><family>3</family><serial>SN12345678</serial><revision>7</revision>"
    "</identity>";

// What BlueZ 5.66 shows beside its devices, in GVariant text form.
constexpr char bluez[] =
    "{'org.freedesktop.DBus.Introspectable': {}, 'org.bluez.AgentManager1': {}, "
    "'org.bluez.ProfileManager1': @a{sv} {}}";
constexpr char adapter[] =
    "{'org.freedesktop.DBus.Introspectable': {}, 'org.bluez.Adapter1': {'Address': "
    "<'00:AA:01:00:00:42'>, 'AddressType': <'public'>, 'Name': <'C600'>, 'Alias': "
    "<'C600 SN12345678'>, 'Class': <uint32 8448>, 'Powered': <true>, 'Discoverable': <false>, "
    "'DiscoverableTimeout': <uint32 0>, 'Pairable': <true>, 'PairableTimeout': <uint32 0>, "
    "'Discovering': <false>, 'UUIDs': <['00001105-0000-1000-8000-00805f9b34fb', "
    "'0000110a-0000-1000-8000-00805f9b34fb', '0000110c-0000-1000-8000-00805f9b34fb', "
    "'0000110e-0000-1000-8000-00805f9b34fb', '0000111f-0000-1000-8000-00805f9b34fb', "
    "'00001200-0000-1000-8000-00805f9b34fb']>, 'Modalias': <'usb:v1D6Bp0246d0542'>}, "
    "'org.freedesktop.DBus.Properties': {}, 'org.bluez.GattManager1': {}, 'org.bluez.Media1': {}, "
    "'org.bluez.NetworkServer1': {}}";

struct Kind {
    const char* name;
    const char* own;  // the properties that only this kind has
};
constexpr char sensor[] =
    "'Appearance': <uint16 1344>, 'UUIDs': <['00001105-0000-1000-8000-00805f9b34fb']>, "
    "'ManufacturerData': <{uint16 89: <b'\\1\\2\\3\\4\\5\\6\\7\\10\\11\\12\\13'>}>, "
    "'ServiceData': <{'0000180f-0000-1000-8000-00805f9b34fb': <b''>}>";
#define CLASSIC_SERVICES                                                              \
    ", 'UUIDs': <['00001105-0000-1000-8000-00805f9b34fb', "                           \
    "'0000110a-0000-1000-8000-00805f9b34fb', '0000110c-0000-1000-8000-00805f9b34fb'," \
    "'0000110e-0000-1000-8000-00805f9b34fb', '0000111f-0000-1000-8000-00805f9b34fb'," \
    "'00001200-0000-1000-8000-00805f9b34fb']>"
constexpr std::array<Kind, 4> kinds{
    {{"Phone of room",
      "'Class': <uint32 5898764>, 'Icon': <'phone'>, 'Modalias': "
      "<'bluetooth:v004Cp0269d0001'>" CLASSIC_SERVICES},
     {"Loudspeaker",
      "'Class': <uint32 2360340>, 'Icon': <'audio-card'>, 'Modalias': "
      "<'bluetooth:v009Ep4020d0251'>" CLASSIC_SERVICES},
     {"Keyboard",
      "'Class': <uint32 1344>, 'Icon': <'input-keyboard'>, 'Modalias': "
      "<'usb:v05ACp0267d0066'>" CLASSIC_SERVICES},
     {"Notebook",
      "'Class': <uint32 1835276>, 'Icon': <'computer'>, 'Modalias': "
      "<'usb:v1D6Bp0246d0542'>" CLASSIC_SERVICES}}};

/// Every second device is a low-energy one, every tenth is paired, every fiftieth connected.
std::string device(unsigned index, const std::string& address) {
    const bool lowEnergy = index % 2 == 1;
    const Kind& kind = kinds.at(index / 2 % kinds.size());
    const std::string name = (lowEnergy ? "'Sensor " : '\'' + std::string(kind.name) + ' ') +
                             std::to_string(index) + '\'';
    const std::string paired = index % 10 == 0 ? "<true>" : "<false>";
    const std::string connected = index % 50 == 0 ? "<true>" : "<false>";
    return "{'org.freedesktop.DBus.Introspectable': {}, 'org.bluez.Device1': {'Address': <'" +
           address + "'>, 'AddressType': <'" + (lowEnergy ? "random" : "public") + "'>, 'Name': <" +
           name + ">, 'Alias': <" + name + ">, " + (lowEnergy ? sensor : kind.own) +
           ", 'Paired': " + paired + ", 'Bonded': " + paired + ", 'Trusted': " + paired +
           ", 'Blocked': <false>, 'LegacyPairing': <false>, 'RSSI': <int16 " +
           std::to_string(-40 - static_cast<int>(index % 50)) + ">, 'Connected': " + connected +
           ", 'Adapter': <objectpath '/org/bluez/hci0'>, 'TxPower': <int16 4>, "
           "'ServicesResolved': " +
           connected + "}, 'org.freedesktop.DBus.Properties': {}" +
           (index % 50 == 0 ? ", 'org.bluez.MediaControl1': {'Connected': <true>}}" : "}");
}

/// @return floating, of type (a{oa{sa{sv}}})
GVariant* managedObjects(unsigned devices) {
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    const auto add = [&objects](const char* path, const std::string& text) {
        GVariant* const interfaces =
            g_variant_parse(G_VARIANT_TYPE("a{sa{sv}}"), text.c_str(), nullptr, nullptr, nullptr);
        if (interfaces == nullptr) std::abort();
        g_variant_builder_add(&objects, "{o@a{sa{sv}}}", path, interfaces);
        g_variant_unref(interfaces);
    };
    add("/org/bluez", bluez);
    add("/org/bluez/hci0", adapter);
    for (unsigned i = 0; i < devices; ++i) {
        std::array<char, 18> address{};
        std::snprintf(address.data(), address.size(), "00:1A:7D:%02X:%02X:%02X", i >> 16 & 0xFF,
                      i >> 8 & 0xFF, i & 0xFF);
        std::string path = std::string("/org/bluez/hci0/dev_") + address.data();
        for (char& c : path) {
            if (c == ':') c = '_';
        }
        add(path.c_str(), device(i, address.data()));
    }
    return g_variant_new("(a{oa{sa{sv}}})", &objects);
}

/// A method reply with that body and no addressee.
DBusMessage* marshal(GVariant* body) {
    GDBusMessage* const message = g_dbus_message_new();
    g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(message, 1);
    g_dbus_message_set_serial(message, 1);
    g_dbus_message_set_body(message, body);
    gsize size = 0;
    guchar* const blob =
        g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    DBusMessage* const reply = dbus_message_demarshal(reinterpret_cast<const char*>(blob),
                                                      static_cast<int>(size), nullptr);
    g_free(blob);
    g_object_unref(message);
    return reply;
}

struct Replies {
    DBusMessage* objects;
    DBusMessage* hardware;
    DBusMessage* empty;
};

DBusHandlerResult serve(DBusConnection* connection, DBusMessage* call, void* data) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const auto* const replies = static_cast<const Replies*>(data);
    const auto* const wanted =
        dbus_message_has_member(call, "GetManagedObjects") != 0 ? replies->objects
        : dbus_message_has_member(call, "GetHardwareInfo") != 0 ? replies->hardware
                                                                : replies->empty;
    DBusMessage* const reply = dbus_message_copy(wanted);
    dbus_message_set_reply_serial(reply, dbus_message_get_serial(call));
    dbus_message_set_destination(reply, dbus_message_get_sender(call));
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: corvane-bench-bluez DEVICES\n", stderr);
        return 2;
    }
    const auto devices = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    Replies replies{marshal(managedObjects(devices)),
                    marshal(g_variant_new("(s)", static_cast<const char*>(identity))),
                    marshal(g_variant_new("()"))};
    DBusConnection* const connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    if (connection == nullptr ||
        dbus_connection_add_filter(connection, serve, &replies, nullptr) == 0) {
        std::fputs("corvane-bench-bluez: no system bus\n", stderr);
        return EXIT_FAILURE;
    }
    for (const char* name : {"org.bluez", "org.corvane.Hardware"}) {
        if (dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            std::fprintf(stderr, "corvane-bench-bluez: cannot own the bus name %s\n", name);
            return EXIT_FAILURE;
        }
    }
    std::puts("ready");
    std::fflush(stdout);
    while (dbus_connection_read_write_dispatch(connection, -1) != 0) {
    }
    return EXIT_SUCCESS;
}
