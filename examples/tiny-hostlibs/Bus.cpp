// Waits for names on the system bus, through GIO, which works from any thread.

#include "LogAppender.h"
#include "hwcommon/DBusBluetoothHidProxy.h"
#include "hwcommon/DBusProxy.h"

#include <gio/gio.h>
#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

bool hasOwner(GDBusConnection* bus, const std::string& name) {
    GVariant* const reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr) return false;
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    return owned != FALSE;
}

}  // namespace

namespace hwcommon {

DBusProxy::DBusProxy(sdbus::IConnection& /*bus: GIO has its own*/) {}

bool DBusProxy::waitUntilDBusNameExist(const std::string& name, unsigned timeout) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    constexpr milliseconds poll{100};

    const auto limit = steady_clock::now() + milliseconds(timeout);
    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "no system bus to wait for " << name << " on");
        return false;
    }
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    bool found = hasOwner(bus, name);
    while (!found && steady_clock::now() < limit) {
        std::this_thread::sleep_until(std::min(limit, steady_clock::now() + poll));
        found = hasOwner(bus, name);
    }
    g_object_unref(bus);
    return found;
}

// This board connects only audio devices: it has no HID service, and no use for the connection.
DBusBluetoothHidProxy::DBusBluetoothHidProxy(sdbus::IConnection& /*bus*/) {}

std::string DBusBluetoothHidProxy::connectBtHidDevice(const std::string& address) {
    return "No HID service for " + address;
}

std::string DBusBluetoothHidProxy::disconnectBtHidDevice(const std::string& address) {
    return "No HID service for " + address;
}

}  // namespace hwcommon
