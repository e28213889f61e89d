#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

namespace hwcommon {
class DBusBluetoothHidProxy;
}

/// Connects to a paired device, chosen by its name in the lists of the last scan.
///
/// A computer or a phone is connected through the host's HID service. A playback device is
/// connected through BlueZ after every other connected playback device has been disconnected; where
/// that fails, the HID service is tried.
///
/// Answers: REQUEST_SUCCESS, or REQUEST_FAILED (unknown name, class not handled, no connection,
/// cancelled before the attempt). A cancellation during the attempt has no effect. isStillRunning()
/// is false already inside the callback, so the callback may start the next request.
class CORVANE_EXPORT ConnectBluetoothRequest : public BluetoothRequest {
public:
    /// @param callback    told the answer; may be empty
    /// @param hidProxy    the host's HID service; borrowed, must outlive the request; null counts
    /// as an attempt that
    ///                    failed
    /// @param deviceName  the name as the lists have it, compared byte for byte
    ConnectBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback,
                            hwcommon::DBusBluetoothHidProxy* hidProxy, std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

    /// The audio path: disconnects the other playback devices, connects this one. Blocks until
    /// BlueZ has answered.
    /// @return true when BlueZ made the connection; false also when the name is not that of a
    /// paired playback device
    bool toggleAudioDevices();

private:
    hwcommon::DBusBluetoothHidProxy* hidProxy;
    std::string deviceName;

    BluetoothRequestAnswers connectThroughHid(const std::string& address);
};
