#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

namespace hwcommon {
class DBusBluetoothHidProxy;
}

/// Connects a paired device, selected by its name in the lists of the last scan.
///
/// The host's HID service connects computers and phones. BlueZ connects playback devices, after the
/// request has disconnected every other connected playback device; if that fails, the HID service
/// is tried.
///
/// Answers: REQUEST_SUCCESS, or REQUEST_FAILED (unknown name, class not handled, no connection,
/// cancelled before the attempt). A cancellation during the attempt has no effect. The callback may
/// start the next request, because isStillRunning() is already false.
class CORVANE_EXPORT ConnectBluetoothRequest : public BluetoothRequest {
public:
    /// Builds a request.
    /// @param callback    gets the answer; may be empty
    /// @param hidProxy    the host's HID service; must outlive the request; null fails like a
    ///                    refused connection
    /// @param deviceName  the device's name, compared byte for byte
    ConnectBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback,
                            hwcommon::DBusBluetoothHidProxy* hidProxy, std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

    /// Disconnects all other playback devices, then connects this one. Blocks until BlueZ has
    /// answered.
    /// @return whether BlueZ connected it; false also when no paired playback device has the name
    bool toggleAudioDevices();

private:
    hwcommon::DBusBluetoothHidProxy* hidProxy;
    std::string deviceName;

    BluetoothRequestAnswers connectThroughHid(const std::string& address);
};
