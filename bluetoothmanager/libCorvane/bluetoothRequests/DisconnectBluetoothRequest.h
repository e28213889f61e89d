#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

namespace hwcommon {
class DBusBluetoothHidProxy;
}

/// Disconnects a device, chosen by its name in the lists of the last scan: through BlueZ, and for a
/// computer or a phone from the host's HID service as well.
///
/// Answers: REQUEST_SUCCESS, or REQUEST_FAILED (unknown name, class not handled, cancelled). A
/// disconnection that BlueZ refuses is tried again, without a pause, until it succeeds or the
/// request is cancelled.
class CORVANE_EXPORT DisconnectBluetoothRequest : public BluetoothRequest {
public:
    /// Without callback, HID service and name.
    DisconnectBluetoothRequest();

    /// @param callback    told the answer; may be empty
    /// @param hidProxy    the host's HID service; borrowed, must outlive the request; with null it
    /// is left out
    /// @param deviceName  the name as the lists have it, compared byte for byte
    DisconnectBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback,
                               hwcommon::DBusBluetoothHidProxy* hidProxy, std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

private:
    hwcommon::DBusBluetoothHidProxy* hidProxy = nullptr;
    std::string deviceName;
};
