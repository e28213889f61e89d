#pragma once

#include "BluetoothManager.h"

#include "Command.h"
#include "LineSource.h"
#include "LogRecords.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace corvanectl {

struct Options {
    bool json = false;
    bool keepGoing = false;
    bool tearDown = false;
    LogOptions log;
};

/// Runs commands in one process, one after the other, and reports what they leave: text on standard
/// output and problems on standard error, or a line of JSON each on standard output. Used from the
/// main thread.
class Session {
public:
    /// @param input  where a line "cancel" may come from while a request runs; null for nowhere
    Session(Options chosen, LineSource* input);

    /// Runs a command and reports it.
    ExitStatus run(const Invocation& invocation);

    /// Reports a command that could not be read.
    ExitStatus report(const Failure& failure);

    /// The status that the process ends with: that of the first failure.
    ExitStatus status() const { return firstFailure; }

    /// Whether the sequence goes on after a command with this status.
    bool goesOn(ExitStatus last) const;

    /// Leaves the process without destroying the manager, see BluetoothManager.
    [[noreturn]] void leave(ExitStatus status);

    // For commands.

    /// Ends the sequence after this command.
    void stop() { stopping = true; }
    bool stopped() const { return stopping; }

    /// What this process did last about airplane mode; the manager does not tell.
    bool airplane() const { return inAirplaneMode; }
    void noteAirplane(bool on) { inAirplaneMode = on; }

    /// The manager; the first call constructs it. Throws Failure (noBus, noIdentity) before the
    /// radio is touched.
    BluetoothManager& manager();
    bool managerIsUp() const { return constructed; }

    /// The host's HID service.
    hwcommon::DBusBluetoothHidProxy* hid();

    /// The board's identity, read at the first call. Throws Failure (noBus, noIdentity).
    const eepromXML& identity();

    /// Whether a bus name has an owner now.
    bool isOnTheBus(const std::string& busName);

    /// The persisted setting. Throws Failure (badSetting).
    bool setting();

    /// Refills the lists from BlueZ. Throws Failure (refused) when BlueZ did not answer.
    void refresh();

    /// Refills the lists and finds a device. Throws Failure (refused, noDevice).
    BluetoothConnectionInfo device(BluetoothDeviceListType type, const std::string& name);

    /// The library's errors since the command began.
    LoggedErrors errors() { return records->errors(); }

    using Callback = std::function<void(BluetoothRequestAnswers)>;
    using RequestMaker = std::function<std::shared_ptr<BluetoothRequest>(Callback)>;

    /// Runs a request to its answer, with a progress display. Ctrl-C and a line "cancel" cancel it.
    /// Throws Failure (busy).
    /// @param expected  how long it takes; 0 when nobody knows
    BluetoothRequestAnswers perform(const RequestMaker& make, const std::string& label,
                                    std::chrono::milliseconds expected);

    /// Shows the library's records as steps until the command ends.
    void showSteps();

    /// Runs a command without reporting it.
    Result runQuietly(const Invocation& invocation);

private:
    void print(const Invocation& invocation, const Result& result,
               std::chrono::milliseconds duration);
    void remember(ExitStatus status);
    bool showsProgress() const;
    sdbus::IConnection& bus();

    const Options options;
    LineSource* const lines;
    const log4cplus::helpers::SharedObjectPtr<LogRecords> records;
    ExitStatus firstFailure = ExitStatus::success;
    bool constructed = false;
    bool stopping = false;
    bool inAirplaneMode = false;
    std::unique_ptr<sdbus::IConnection> connection;
    std::optional<hwcommon::DBusBluetoothHidProxy> hidProxy;
    std::optional<eepromXML> board;
};

}  // namespace corvanectl
