#include "DeviceKinds.h"
#include "Groups.h"
#include "Session.h"
#include "Text.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <array>

namespace corvanectl {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds scanLength{10000};
constexpr milliseconds pairingLimit{60000};
constexpr milliseconds unknownLength{0};

struct AnswerRow {
    BluetoothRequestAnswers answer;
    const char* name;
    ExitStatus status;
    const char* problem;
};

constexpr std::array<AnswerRow, 6> answerRows{{
    {REQUEST_SUCCESS, "REQUEST_SUCCESS", ExitStatus::success, ""},
    {REQUEST_TIMEOUT, "REQUEST_TIMEOUT", ExitStatus::requestTimeout,
     "did not pair and connect in time; start the pairing on the device, then try again"},
    {REQUEST_CANCELLED, "REQUEST_CANCELLED", ExitStatus::requestCancelled, "was cancelled"},
    {REQUEST_CONNECT_FAILED, "REQUEST_CONNECT_FAILED", ExitStatus::requestConnectFailed,
     "paired, but could not be connected; try connect"},
    {REQUEST_FAILED, "REQUEST_FAILED", ExitStatus::requestFailed, "failed"},
    {REQUEST_DEVICE_NOT_FOUND, "REQUEST_DEVICE_NOT_FOUND", ExitStatus::requestDeviceNotFound,
     "is not among the paired devices after pairing; try again near the device"},
}};

Result toResult(BluetoothRequestAnswers answer, const std::string& what, const std::string& done) {
    const AnswerRow& row = answerRows.at(static_cast<std::size_t>(answer));
    Result result;
    result.status = row.status;
    result.data["answer"] = row.name;
    if (answer == REQUEST_SUCCESS) {
        result.text = done;
    } else {
        result.problem = what + ' ' + row.problem + " (" + row.name + ')';
    }
    return result;
}

/// What a request's failure may come from: it gives one answer for several causes.
std::string hintFor(const std::string& command, const BluetoothConnectionInfo& device) {
    const std::string kind = kindOf(device.deviceClass);
    return command + " handles computers, phones and audio devices; this one is: " + kind;
}

Result finished(Session& session, Result result, const char* command,
                const BluetoothConnectionInfo& device) {
    session.manager().scanDevicesInfo();  // the shell completes names from the lists
    if (result.status == ExitStatus::requestFailed &&
        session.manager().getMajorDeviceClass(device) == MAJOR_CLASS_OTHER) {
        result.problem += "; " + hintFor(command, device);
    }
    return result;
}

}  // namespace

Result scan(Session& session, const Invocation& /*invocation*/) {
    session.manager();
    const std::size_t before = session.errors().total;
    const auto answer = session.perform(
        [](const Session::Callback& callback) {
            return std::make_shared<ScanBluetoothRequest>(callback);
        },
        "Scanning", scanLength);
    Result result = toResult(answer, "the scan", "");
    if (answer != REQUEST_SUCCESS) return result;
    // The request succeeds also when BlueZ could not start the discovery.
    if (session.errors().total > before) {
        result.status = ExitStatus::refused;
        result.problem = "BlueZ did not discover; is Bluetooth on? See status";
        return result;
    }
    session.refresh();
    const unsigned count = session.manager().getBluetoothDeviceListSize(ALL_DEVICES);
    result.data["devices"] = count;
    result.text =
        "Scanned; BlueZ knows " + std::to_string(count) + (count == 1 ? " device" : " devices");
    return result;
}

Result connectDevice(Session& session, const Invocation& invocation) {
    const std::string& name = invocation.arguments.front();
    const BluetoothConnectionInfo device = session.device(PAIRED_DEVICES, name);
    const auto answer = session.perform(
        [&](const Session::Callback& callback) {
            return std::make_shared<ConnectBluetoothRequest>(callback, session.hid(), name);
        },
        "Connecting", unknownLength);
    return finished(session, toResult(answer, inQuotes(name), "Connected " + inQuotes(name)),
                    "connect", device);
}

Result disconnectDevice(Session& session, const Invocation& invocation) {
    const std::string& name = invocation.arguments.front();
    // A device that is not connected would be tried until somebody cancels.
    const BluetoothConnectionInfo device = session.device(CONNECTED_DEVICES, name);
    const auto answer = session.perform(
        [&](const Session::Callback& callback) {
            return std::make_shared<DisconnectBluetoothRequest>(callback, session.hid(), name);
        },
        "Disconnecting", unknownLength);
    return finished(session, toResult(answer, inQuotes(name), "Disconnected " + inQuotes(name)),
                    "disconnect", device);
}

Result waitForPairing(Session& session, const Invocation& invocation) {
    const std::string& name = invocation.arguments.front();
    const BluetoothConnectionInfo device = session.device(ALL_DEVICES, name);
    const auto answer = session.perform(
        [&](const Session::Callback& callback) {
            return std::make_shared<WaitBluetoothPairingRequest>(callback, name);
        },
        "Waiting for pairing", pairingLimit);
    return finished(session, toResult(answer, inQuotes(name), inQuotes(name) + " is paired"),
                    "wait-pair", device);
}

Result cancelNothing(Session& /*session*/, const Invocation& /*invocation*/) {
    // Commands run one after the other: a request that runs sees the line itself.
    Result result;
    result.data["cancelled"] = false;
    result.text = "No request is running";
    return result;
}

}  // namespace corvanectl
