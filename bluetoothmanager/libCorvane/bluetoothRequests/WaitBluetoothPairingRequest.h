#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

/// Lets one device, selected by its name, pair with the appliance. Makes the adapter discoverable
/// for 300 seconds and the device trusted; neither is undone, whatever the answer.
///
/// A phone or a computer pairs by itself: the request waits just over 60 seconds for it to be
/// connected. The request itself pairs an audio/video device and connects it if it plays audio.
///
/// Answers: any of BluetoothRequestAnswers; REQUEST_FAILED at once for a device of another or
/// unknown class.
class CORVANE_EXPORT WaitBluetoothPairingRequest : public BluetoothRequest {
public:
    /// Builds a request without callback and name.
    WaitBluetoothPairingRequest();

    /// Builds a request.
    /// @param callback    gets the answer; may be empty
    /// @param deviceName  the device's name, compared byte for byte
    WaitBluetoothPairingRequest(std::function<void(BluetoothRequestAnswers)> callback,
                                std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

private:
    std::string deviceName;
};
