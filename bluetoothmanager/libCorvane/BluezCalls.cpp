#include "BluetoothManager.h"

#include "Bluez.h"
#include "Handles.h"
#include "Logging.h"
#include "Resources.h"

#include <algorithm>
#include <system_error>

using corvane::ErrorPtr;
using corvane::messageOf;
using corvane::VariantPtr;

namespace bluez = corvane::bluez;

namespace {

constexpr char propertiesInterface[] = "org.freedesktop.DBus.Properties";

std::string devicePath(const char* devicePart) {
    return std::string(bluez::devicePathPrefix) + devicePart;
}

/// An error for what GDBus would refuse with a critical warning instead of an error.
ErrorPtr ownError(GIOErrorEnum code, const std::string& text) {
    return ErrorPtr(g_error_new_literal(G_IO_ERROR, code, text.c_str()));
}

bool isText(const char* text) { return g_utf8_validate(text, -1, nullptr) != FALSE; }

bool isPath(const std::string& path) { return g_variant_is_object_path(path.c_str()) != FALSE; }

ErrorPtr noPath(const std::string& path) {
    return ownError(G_IO_ERROR_INVALID_ARGUMENT, "not the object path of a device: " + path);
}

/// Calls a method of BlueZ and waits for the answer, which is not looked at.
/// @param arguments  floating, consumed; null for none
/// @return null on success, otherwise the bus's error; a missing connection, a name that is none
/// and a process without a descriptor left are errors like any other
ErrorPtr call(GDBusConnection* connection, const std::string& path, const char* interface,
              const char* method, GVariant* arguments) {
    const VariantPtr owned(arguments == nullptr ? nullptr : g_variant_ref_sink(arguments));
    if (connection == nullptr) {
        return ownError(G_IO_ERROR_NOT_CONNECTED, "no connection to the system bus");
    }
    if (!isPath(path)) return noPath(path);
    if (g_dbus_is_member_name(method) == FALSE) {
        return ownError(G_IO_ERROR_INVALID_ARGUMENT, std::string("not a method: ") + method);
    }
    if (const int lack = corvane::lackOfDescriptors(1); lack != 0) {
        return ownError(G_IO_ERROR_FAILED, std::generic_category().message(lack));
    }
    GError* error = nullptr;
    const VariantPtr reply(g_dbus_connection_call_sync(
        connection, bluez::busName, path.c_str(), interface, method, owned.get(), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
    return ErrorPtr(error);
}

ErrorPtr setProperty(GDBusConnection* connection, const std::string& path, const char* interface,
                     const char* property, GVariant* value) {
    if (value == nullptr || !isText(property)) {
        const VariantPtr unused(value == nullptr ? nullptr : g_variant_ref_sink(value));
        return ownError(G_IO_ERROR_INVALID_ARGUMENT, "not a valid property or value");
    }
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
    const std::string device = devicePath(devicePart);
    GVariant* arguments =
        *devicePart != '\0' && isPath(device) ? g_variant_new("(o)", device.c_str()) : nullptr;
    const ErrorPtr error = isPath(device) ? call(dbusConnection, bluez::adapterPath,
                                                 bluez::adapterInterface, method, arguments)
                                          : noPath(device);
    if (!error) return 0;
    CORVANE_ERROR("bluezAdapterCallMethod"
                  << " : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezDeviceCallMethod(const char* method, const char* devicePart) {
    const ErrorPtr error =
        call(dbusConnection, devicePath(devicePart), bluez::deviceInterface, method, nullptr);
    if (!error) return 0;
    CORVANE_ERROR("bluezDeviceCallMethod"
                  << " : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezAgentCallMethod(const char* method, const char* capability) {
    // Nothing is served at this path: with the capability NoInputNoOutput the kernel pairs without
    // asking the agent.
    static constexpr char agentPath[] = "/org/corvane";
    const auto arguments = [capability] {
        return *capability == '\0'
                   ? g_variant_new("(o)", static_cast<const char*>(agentPath))
                   : g_variant_new("(os)", static_cast<const char*>(agentPath), capability);
    };
    const ErrorPtr error = isText(capability)
                               ? call(dbusConnection, bluez::agentManagerPath,
                                      bluez::agentManagerInterface, method, arguments())
                               : ownError(G_IO_ERROR_INVALID_ARGUMENT, "not a valid capability");
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
    const ErrorPtr error = setProperty(dbusConnection, devicePath(devicePart),
                                       bluez::deviceInterface, property, value);
    if (!error) return 0;
    // Deliberate: the property is left to the caller's record here, unlike for the adapter; log
    // searches in the field rely on both forms. Held by PropertyWrites.LogTheWriteThenTheProperty.
    CORVANE_ERROR("bluezDeviceSetProperty"
                  << " : " << messageOf(*error));
    return 1;
}
