#pragma once

#include "BluetoothManager.h"

#include "Command.h"
#include "Process.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvanectl {

constexpr char bluezName[] = "org.bluez";
constexpr char hardwareName[] = "org.corvane.Hardware";
constexpr char hidName[] = "org.corvane.BluetoothHid";

/// A device and what the lists say of it.
struct Device {
    BluetoothConnectionInfo info;
    bool paired = false;
    bool connected = false;
    bool playback = false;
};

/// Drives the radio: the library's manager, the board's identity, the bus. Says nothing to the
/// user, but tells what it waits for. Used from the main thread.
class Host {
public:
    /// Told what is waited for, and how long at most; 0 when nobody knows.
    using Teller = std::function<void(const std::string& what, std::chrono::milliseconds limit)>;

    Host(LogRecords& logRecords, Teller tellWait)
        : records(logRecords), tell(std::move(tellWait)) {}

    /// The manager; the first call constructs it. Throws Failure (noBus, noIdentity) before the
    /// radio is touched.
    BluetoothManager& manager();
    bool managerIsUp() const { return constructed; }

    /// The board's identity, read at the first call. Throws Failure (noBus, noIdentity). Not const:
    /// another board's eepromXML may have getters that are not.
    eepromXML& identity();

    /// The host's HID service.
    hwcommon::DBusBluetoothHidProxy* hid();

    /// Whether a bus name has an owner now. Throws Failure (noBus).
    bool isOnTheBus(const std::string& busName);

    /// The persisted setting; none when it was not set since the last boot. Throws Failure
    /// (badSetting).
    std::optional<bool> setting();

    /// The name that the adapter gets: model and serial number.
    std::string boardName();

    /// What the adapter shows that is not as switching on leaves it.
    std::vector<std::string> adapterFaults();

    /// Refills the lists from BlueZ. Throws Failure (refused) when BlueZ did not answer.
    void refresh();

    /// The devices of a list as the last refresh() left it.
    std::vector<Device> devices(BluetoothDeviceListType type);

    /// Refills the lists and finds a device. Throws Failure (refused, noDevice).
    Device device(BluetoothDeviceListType type, const std::string& name);

    /// The library's errors since the command began.
    std::size_t errorCount() { return records.errors().total; }

    struct Answer {
        BluetoothRequestAnswers answer;
        bool cancelled;  ///< by us
    };
    using Callback = std::function<void(BluetoothRequestAnswers)>;
    using RequestMaker = std::function<std::shared_ptr<BluetoothRequest>(Callback)>;

    /// Runs a request to its answer. Ctrl-C and a line "cancel" cancel it. Throws Failure (busy).
    Answer perform(const RequestMaker& make, const std::string& what,
                   std::chrono::milliseconds limit);

    /// What this process did last about airplane mode; the manager does not tell.
    bool inAirplaneMode = false;

    /// Where a line "cancel" may come from while a request runs; null for nowhere.
    LineSource* cancelSource = nullptr;

private:
    sdbus::IConnection& bus();

    LogRecords& records;
    const Teller tell;
    bool constructed = false;
    std::unique_ptr<sdbus::IConnection> connection;
    std::optional<hwcommon::DBusBluetoothHidProxy> hidProxy;
    std::optional<eepromXML> board;
};

}  // namespace corvanectl
