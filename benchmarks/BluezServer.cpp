// Stands in for bluetoothd, with as many devices as wanted, for what is measured against it: its
// own share in a call is small. The reply to GetManagedObjects is marshalled once and copied for
// each caller, which is why this is built on libdbus, as bluetoothd itself is.
//
// Usage: corvane-bench-bluez DEVICES
//   Owns org.bluez and org.corvane.Hardware on the system bus (DBUS_SYSTEM_BUS_ADDRESS), prints
//   "ready" and serves until it is ended or the bus goes. Properties are read from the devices;
//   every other call is agreed to.

#include "Devices.h"

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unordered_map>

#include <dbus/dbus.h>

namespace {

using MessagePtr = std::unique_ptr<DBusMessage, void (*)(DBusMessage*)>;

// A Laird ST60-SIPT board: the one wiring without enable lines.
constexpr char identity[] =
    "<identity><model>6</model><family>3</family><serial>SN12345678</serial><revision>7</revision>"
    "</identity>";

std::unordered_map<std::string, GVariant*> interfacesOf;  // by object path

MessagePtr own(DBusMessage* message) { return {message, dbus_message_unref}; }

/// A method reply with the body that GLib has built, without its addressee.
MessagePtr marshal(GVariant* body) {
    GDBusMessage* const message = g_dbus_message_new();
    g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(message, 1);
    g_dbus_message_set_serial(message, 1);
    g_dbus_message_set_body(message, body);
    gsize size = 0;
    guchar* const blob =
        g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    MessagePtr reply = own(dbus_message_demarshal(reinterpret_cast<const char*>(blob),
                                                  static_cast<int>(size), nullptr));
    g_free(blob);
    g_object_unref(message);
    return reply;
}

/// The properties of an interface; null when there is none such.
GVariant* propertiesOf(const char* path, const char* interface) {
    const auto object = interfacesOf.find(path);
    if (object == interfacesOf.end()) return nullptr;
    return g_variant_lookup_value(object->second, interface, nullptr);
}

/// The names alone, each with its own end tag: tools look there for an interface before they use
/// it.
std::string introspect(const char* path) {
    std::string xml = "<node>";
    const auto add = [&xml](const std::string& name) {
        xml += "<interface name=\"" + name + "\"></interface>";
    };
    const auto object = interfacesOf.find(path);
    if (object == interfacesOf.end()) {
        add("org.freedesktop.DBus.ObjectManager");
    } else {
        GVariantIter iterator;
        g_variant_iter_init(&iterator, object->second);
        const char* name = nullptr;
        while (g_variant_iter_next(&iterator, "{&sa{sv}}", &name, nullptr) != FALSE) add(name);
    }
    return xml + "</node>";
}

MessagePtr readProperties(DBusMessage* call) {
    const char* interface = nullptr;
    const char* name = nullptr;
    const bool one = dbus_message_is_method_call(call, DBUS_INTERFACE_PROPERTIES, "Get") != 0;
    if (dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &interface,
                              one ? DBUS_TYPE_STRING : DBUS_TYPE_INVALID, &name,
                              DBUS_TYPE_INVALID) == 0) {
        return own(nullptr);
    }
    GVariant* const properties = propertiesOf(dbus_message_get_path(call), interface);
    if (properties == nullptr) return own(nullptr);
    GVariant* const value = one ? g_variant_lookup_value(properties, name, nullptr) : nullptr;
    MessagePtr reply = own(nullptr);
    if (!one) reply = marshal(g_variant_new("(@a{sv})", properties));
    if (value != nullptr) reply = marshal(g_variant_new("(v)", value));
    if (value != nullptr) g_variant_unref(value);
    g_variant_unref(properties);
    return reply;
}

DBusHandlerResult serve(DBusConnection* connection, DBusMessage* call, void* listed) {
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    MessagePtr reply = own(nullptr);
    if (dbus_message_has_member(call, "GetManagedObjects") != 0) {
        reply = own(dbus_message_copy(static_cast<DBusMessage*>(listed)));
    } else if (dbus_message_has_member(call, "GetHardwareInfo") != 0) {
        reply = marshal(g_variant_new("(s)", static_cast<const char*>(identity)));
    } else if (dbus_message_has_member(call, "Introspect") != 0) {
        reply = marshal(g_variant_new("(s)", introspect(dbus_message_get_path(call)).c_str()));
    } else if (dbus_message_has_member(call, "Get") != 0 ||
               dbus_message_has_member(call, "GetAll") != 0) {
        reply = readProperties(call);
        if (!reply) {
            reply = own(dbus_message_new_error(call, DBUS_ERROR_INVALID_ARGS, "no such property"));
        }
    } else {
        reply = own(dbus_message_new_method_return(call));
    }
    dbus_message_set_reply_serial(reply.get(), dbus_message_get_serial(call));
    dbus_message_set_destination(reply.get(), dbus_message_get_sender(call));
    dbus_connection_send(connection, reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: corvane-bench-bluez DEVICES\n", stderr);
        return 2;
    }
    GVariant* const objects = g_variant_ref_sink(
        corvane::bench::managedObjects(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10))));
    GVariantIter iterator;
    g_variant_iter_init(&iterator, objects);
    const char* path = nullptr;
    GVariant* interfaces = nullptr;
    while (g_variant_iter_next(&iterator, "{&o@a{sa{sv}}}", &path, &interfaces) != FALSE) {
        interfacesOf[path] = interfaces;
    }
    const MessagePtr listed = marshal(g_variant_new("(@a{oa{sa{sv}}})", objects));

    DBusConnection* const connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    if (connection == nullptr ||
        dbus_connection_add_filter(connection, serve, listed.get(), nullptr) == 0) {
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
