#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

namespace hwcommon {
class DBusBluetoothHidProxy;
}

/// Disconnects a device, selected by its name in the lists of the last scan: through BlueZ and, for
/// a computer or a phone, from the host's HID service too.
///
/// Answers: REQUEST_SUCCESS, or REQUEST_FAILED (unknown name, class not handled, cancelled). If
/// BlueZ refuses, the request tries again without a pause until it succeeds or is cancelled.
class CORVANE_EXPORT DisconnectBluetoothRequest : public BluetoothRequest {
public:
    /// Builds a request without callback, HID service and name.
    DisconnectBluetoothRequest();

    /// Builds a request.
    /// @param callback    gets the answer; may be empty
    /// @param hidProxy    the host's HID service; must outlive the request; null to leave it out
    /// @param deviceName  the device's name, compared byte for byte
    DisconnectBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback,
                               hwcommon::DBusBluetoothHidProxy* hidProxy, std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

private:
    hwcommon::DBusBluetoothHidProxy* hidProxy = nullptr;
    std::string deviceName;
};
