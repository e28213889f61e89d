#include "BluetoothManager.h"

#include "Bluez.h"
#include "Handles.h"
#include "Logging.h"

#include <algorithm>

using corvane::ErrorPtr;
using corvane::messageOf;
using corvane::VariantPtr;

namespace bluez = corvane::bluez;

namespace {

constexpr char propertiesInterface[] = "org.freedesktop.DBus.Properties";

std::string devicePath(const char* devicePart) {
    return std::string(bluez::devicePathPrefix) + devicePart;
}

/// Calls a method of BlueZ and waits for the answer, which is not looked at.
/// @param arguments  floating, consumed; null for none
/// @return null on success, otherwise the bus's error; a missing connection is an error like any
/// other
ErrorPtr call(GDBusConnection* connection, const char* path, const char* interface,
              const char* method, GVariant* arguments) {
    if (connection == nullptr) {
        if (arguments != nullptr) g_variant_unref(g_variant_ref_sink(arguments));
        return ErrorPtr(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED,
                                            "no connection to the system bus"));
    }
    GError* error = nullptr;
    const VariantPtr reply(
        g_dbus_connection_call_sync(connection, bluez::busName, path, interface, method, arguments,
                                    nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
    return ErrorPtr(error);
}

ErrorPtr setProperty(GDBusConnection* connection, const char* path, const char* interface,
                     const char* property, GVariant* value) {
    return call(connection, path, propertiesInterface, "Set",
                g_variant_new("(ssv)", interface, property, value));
}

}  // namespace

std::string BluetoothManager::convertMacAddressToBluezDbusFormat(const char* macAddress) const {
    std::string part(macAddress);
    std::replace(part.begin(), part.end(), ':', '_');
    return part;
}

int BluetoothManager::bluezAdapterCallMethod(const char* method, const char* devicePart) {
    GVariant* arguments =
        *devicePart == '\0' ? nullptr : g_variant_new("(o)", devicePath(devicePart).c_str());
    const ErrorPtr error =
        call(dbusConnection, bluez::adapterPath, bluez::adapterInterface, method, arguments);
    if (!error) return 0;
    CORVANE_ERROR("bluezAdapterCallMethod"
                  << " : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezDeviceCallMethod(const char* method, const char* devicePart) {
    const ErrorPtr error = call(dbusConnection, devicePath(devicePart).c_str(),
                                bluez::deviceInterface, method, nullptr);
    if (!error) return 0;
    CORVANE_ERROR("bluezDeviceCallMethod"
                  << " : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezAgentCallMethod(const char* method, const char* capability) {
    // Nothing is served at this path: with the capability NoInputNoOutput the kernel pairs without
    // asking the agent.
    constexpr char agentPath[] = "/org/corvane";
    GVariant* arguments =
        *capability == '\0'
            ? g_variant_new("(o)", static_cast<const char*>(agentPath))
            : g_variant_new("(os)", static_cast<const char*>(agentPath), capability);
    const ErrorPtr error = call(dbusConnection, bluez::agentManagerPath,
                                bluez::agentManagerInterface, method, arguments);
    if (!error) return 0;
    CORVANE_ERROR("bluezAgentCallMethod"
                  << " : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezAdapterSetProperty(const char* property, GVariant* value) {
    const ErrorPtr error =
        setProperty(dbusConnection, bluez::adapterPath, bluez::adapterInterface, property, value);
    if (!error) return 0;
    CORVANE_ERROR("bluezAdapterSetProperty"
                  << " " << property << " failed : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezDeviceSetProperty(const char* devicePart, const char* property,
                                             GVariant* value) {
    const ErrorPtr error = setProperty(dbusConnection, devicePath(devicePart).c_str(),
                                       bluez::deviceInterface, property, value);
    if (!error) return 0;
    // Deliberate: the property is left to the caller's record here, unlike for the adapter; log
    // searches in the field rely on both forms. Held by PropertyWrites.LogTheWriteThenTheProperty.
    CORVANE_ERROR("bluezDeviceSetProperty"
                  << " : " << messageOf(*error));
    return 1;
}
