#include "BluetoothManager.h"

#include "Bluez.h"
#include "Handles.h"
#include "LogAppender.h"
#include "SystemBus.h"

#include <log4cplus/loggingmacros.h>

#include <algorithm>
#include <cstring>
#include <system_error>

using corvane::current;
using corvane::ErrorPtr;
using corvane::messageOf;
using corvane::VariantPtr;

namespace bluez = corvane::bluez;

namespace {

constexpr char propertiesInterface[] = "org.freedesktop.DBus.Properties";

// The bus disconnects a sender that exceeds these limits: names of 255 bytes (D-Bus specification,
// "Valid Names") and messages of 32 MiB (dbus-daemon's default); 4096 bytes are left for the
// header.
constexpr std::size_t longestName = 255;
constexpr std::size_t largestMessage = (32U << 20U) - 4096;

std::string devicePath(const char* devicePart) {
    return std::string(bluez::devicePathPrefix) + devicePart;
}

/// Makes an error. We check for what GDBus would answer with a critical warning, or the bus by
/// closing the connection.
ErrorPtr ownError(GIOErrorEnum code, const std::string& text) {
    return ErrorPtr(g_error_new_literal(G_IO_ERROR, code, text.c_str()));
}

bool isText(const char* text) {
    return text != nullptr && g_utf8_validate(text, -1, nullptr) != FALSE;
}

bool isName(const char* name) { return isText(name) && std::strlen(name) <= longestName; }

bool isPath(const std::string& path) { return g_variant_is_object_path(path.c_str()) != FALSE; }

ErrorPtr noPath(const std::string& path) {
    return ownError(G_IO_ERROR_INVALID_ARGUMENT, "not the object path of a device: " + path);
}

/// @return why the call cannot be sent; null when it can
ErrorPtr obstacle(GDBusConnection* connection, const std::string& path, const char* method,
                  GVariant* arguments) {
    if (connection == nullptr) {
        return ownError(G_IO_ERROR_NOT_CONNECTED, "no connection to the system bus");
    }
    if (!isPath(path)) return noPath(path);
    if (!isName(method) || g_dbus_is_member_name(method) == FALSE) {
        return ownError(G_IO_ERROR_INVALID_ARGUMENT, "not a valid method name");
    }
    const std::size_t size = arguments == nullptr ? 0 : g_variant_get_size(arguments);
    if (path.size() + size > largestMessage) {
        return ownError(G_IO_ERROR_INVALID_ARGUMENT, "too large for the bus");
    }
    if (const int lack = corvane::lackOfDescriptors(1); lack != 0) {
        return ownError(G_IO_ERROR_FAILED, std::generic_category().message(lack));
    }
    return nullptr;
}

/// Calls a BlueZ method and discards the reply. Errors include a missing connection, an invalid
/// path or name, and no free descriptor.
/// @param arguments  floating, consumed; null for none
/// @return null on success
ErrorPtr call(GDBusConnection* connection, const std::string& path, const char* interface,
              const char* method, GVariant* arguments) {
    if (ErrorPtr refusal = obstacle(connection, path, method, arguments)) {
        const VariantPtr unsent(arguments == nullptr ? nullptr : g_variant_ref_sink(arguments));
        return refusal;
    }
    GError* error = nullptr;
    const VariantPtr reply(g_dbus_connection_call_sync(
        connection, bluez::busName, path.c_str(), interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
    if (error == nullptr && !reply) return ownError(G_IO_ERROR_FAILED, "no reply");
    return ErrorPtr(error);
}

ErrorPtr setProperty(GDBusConnection* connection, const std::string& path, const char* interface,
                     const char* property, GVariant* value) {
    if (value == nullptr || !isName(property)) {
        const VariantPtr unsent(value == nullptr ? nullptr : g_variant_ref_sink(value));
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
    const ErrorPtr error = isPath(device) ? call(current(dbusConnection), bluez::adapterPath,
                                                 bluez::adapterInterface, method, arguments)
                                          : noPath(device);
    if (!error) return 0;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "bluezAdapterCallMethod : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezDeviceCallMethod(const char* method, const char* devicePart) {
    const ErrorPtr error = call(current(dbusConnection), devicePath(devicePart),
                                bluez::deviceInterface, method, nullptr);
    if (!error) return 0;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "bluezDeviceCallMethod : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezAgentCallMethod(const char* method, const char* capability) {
    // No object exists at this path: with NoInputNoOutput the kernel pairs without asking the
    // agent.
    static constexpr char agentPath[] = "/org/corvane";
    const auto arguments = [capability] {
        return *capability == '\0'
                   ? g_variant_new("(o)", static_cast<const char*>(agentPath))
                   : g_variant_new("(os)", static_cast<const char*>(agentPath), capability);
    };
    const ErrorPtr error = isText(capability)
                               ? call(current(dbusConnection), bluez::agentManagerPath,
                                      bluez::agentManagerInterface, method, arguments())
                               : ownError(G_IO_ERROR_INVALID_ARGUMENT, "not a valid capability");
    if (!error) return 0;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "bluezAgentCallMethod : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezAdapterSetProperty(const char* property, GVariant* value) {
    const ErrorPtr error = setProperty(current(dbusConnection), bluez::adapterPath,
                                       bluez::adapterInterface, property, value);
    if (!error) return 0;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "bluezAdapterSetProperty "
                                                  << (property != nullptr ? property : "")
                                                  << " failed : " << messageOf(*error));
    return 1;
}

int BluetoothManager::bluezDeviceSetProperty(const char* devicePart, const char* property,
                                             GVariant* value) {
    const ErrorPtr error = setProperty(current(dbusConnection), devicePath(devicePart),
                                       bluez::deviceInterface, property, value);
    if (!error) return 0;
    // Deliberate: unlike for the adapter, only the caller's record names the property; searches of
    // field logs rely on both forms. Held by BluezOperation.LogsARefusalTwice.
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "bluezDeviceSetProperty : " << messageOf(*error));
    return 1;
}
