#include "BluetoothManager.h"

#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

bool BluetoothManager::adapterScan(bool start) {
    if (bluezAdapterCallMethod(start ? "StartDiscovery" : "StopDiscovery", "") == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(),
                    (start ? "Not able to scan for new devices" : "Not able to stop scanning"));
    return false;
}

bool BluetoothManager::deletePairedDevice(const gchar* macAddress) {
    const std::string devicePart = convertMacAddressToBluezDbusFormat(macAddress);
    if (bluezAdapterCallMethod("RemoveDevice", devicePart.c_str()) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to remove device");
    return false;
}

bool BluetoothManager::pairDevice(const gchar* macAddress) {
    const std::string devicePart = convertMacAddressToBluezDbusFormat(macAddress);
    if (bluezDeviceCallMethod("Pair", devicePart.c_str()) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to pair device");
    return false;
}

bool BluetoothManager::connectDevice(const gchar* macAddress) {
    const std::string devicePart = convertMacAddressToBluezDbusFormat(macAddress);
    if (bluezDeviceCallMethod("Connect", devicePart.c_str()) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to connect device");
    return false;
}

bool BluetoothManager::disconnectDevice(const gchar* macAddress) {
    const std::string devicePart = convertMacAddressToBluezDbusFormat(macAddress);
    if (bluezDeviceCallMethod("Disconnect", devicePart.c_str()) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to disconnect device");
    return false;
}

bool BluetoothManager::agentRegister(bool enable) {
    if (!enable) {
        if (bluezAgentCallMethod("UnregisterAgent", "") == 0) return true;
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to unregister agent");
        return false;
    }
    if (bluezAgentCallMethod("RegisterAgent", "NoInputNoOutput") != 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to register agent");
        return false;
    }
    if (bluezAgentCallMethod("RequestDefaultAgent", "") != 0) {
        // Deliberate: the agent stays registered, because it still serves our own pairings. Held by
        // AgentRegister.LeavesTheRegistrationWhenItCannotBeTheDefault.
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to request default agent");
        return false;
    }
    return true;
}

bool BluetoothManager::adapterActivate(bool on) {
    if (bluezAdapterSetProperty("Powered", g_variant_new_boolean(on)) != 0) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set Powered property to " << on);
        return false;
    }
    LOG4CPLUS_DEBUG(LogAppender::getLogger(), "Successfully set Powered property to " << on);
    return true;
}

bool BluetoothManager::adapterSetDiscoverable(bool on) {
    if (bluezAdapterSetProperty("Discoverable", g_variant_new_boolean(on)) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set Discoverable property");
    return false;
}

bool BluetoothManager::adapterSetDiscoverableTimeout(int seconds) {
    GVariant* value = g_variant_new_uint32(static_cast<guint32>(seconds));
    if (bluezAdapterSetProperty("DiscoverableTimeout", value) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set DiscoverableTimeout property");
    return false;
}

bool BluetoothManager::adapterSetPairable(bool on) {
    if (bluezAdapterSetProperty("Pairable", g_variant_new_boolean(on)) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set Pairable property");
    return false;
}

bool BluetoothManager::adapterSetPairableTimeout(int seconds) {
    GVariant* value = g_variant_new_uint32(static_cast<guint32>(seconds));
    if (bluezAdapterSetProperty("PairableTimeout", value) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set PairableTimeout property");
    return false;
}

bool BluetoothManager::adapterSetName(const gchar* name) {
    // Other devices see the alias; BlueZ's Name is read-only.
    const bool valid = name != nullptr && g_utf8_validate(name, -1, nullptr) != FALSE;
    GVariant* value = valid ? g_variant_new_string(name) : nullptr;
    if (bluezAdapterSetProperty("Alias", value) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set Alias property");
    return false;
}

bool BluetoothManager::deviceSetTrusted(const gchar* macAddress, bool trusted) {
    const std::string devicePart = convertMacAddressToBluezDbusFormat(macAddress);
    GVariant* value = g_variant_new_boolean(trusted);
    if (bluezDeviceSetProperty(devicePart.c_str(), "Trusted", value) == 0) return true;
    LOG4CPLUS_ERROR(LogAppender::getLogger(), "Not able to set Trusted property");
    return false;
}
