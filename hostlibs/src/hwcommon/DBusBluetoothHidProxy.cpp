#include "hwcommon/DBusBluetoothHidProxy.h"

#include "Bus.h"
#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

namespace hwcommon {

namespace {

constexpr char serviceName[] = "org.corvane.BluetoothHid";
constexpr char objectPath[] = "/org/corvane/BluetoothHid";
constexpr char interfaceName[] = "org.corvane.BluetoothHid1";

// The controller gives up on an absent phone after about 5 s, but a user may have to confirm on the
// phone.
constexpr std::chrono::seconds answerLimit{60};

std::string callService(const char* method, const std::string& address) {
    const NoSignals undisturbed;
    try {
        const auto connection = sdbus::createSystemBusConnection();
        std::string status;
        proxyFor(*connection, serviceName, objectPath)
            ->callMethod(method)
            .onInterface(interfaceName)
            .withTimeout(answerLimit)
            .withArguments(address)
            .storeResultsTo(status);
        return status;
    } catch (const std::exception& error) {
        std::string failure = std::string(method) + " failed: " + error.what();
        LOG4CPLUS_ERROR(LogAppender::getLogger(),
                        serviceName << ", device " << address << ": " << failure);
        return failure;
    }
}

}  // namespace

DBusBluetoothHidProxy::DBusBluetoothHidProxy(sdbus::IConnection& lent) : connection(lent) {}

std::string DBusBluetoothHidProxy::connectBtHidDevice(const std::string& address) {
    return callService("Connect", address);
}

std::string DBusBluetoothHidProxy::disconnectBtHidDevice(const std::string& address) {
    return callService("Disconnect", address);
}

}  // namespace hwcommon
