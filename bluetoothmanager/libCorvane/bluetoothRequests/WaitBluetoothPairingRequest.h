#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>
#include <string>

/// Lets one device, chosen by its name, pair with the appliance. Makes the adapter discoverable for
/// 300 seconds and marks the device trusted; both stay so whatever the answer.
///
/// A phone or a computer pairs by itself: the request waits, for just over 60 seconds, until it is
/// connected. An audio/video device is paired actively and, if it is a playback device, connected.
///
/// Answers: all of BluetoothRequestAnswers; REQUEST_FAILED at once for a device of another class or
/// of no known class.
class CORVANE_EXPORT WaitBluetoothPairingRequest : public BluetoothRequest {
public:
    /// Without callback and name.
    WaitBluetoothPairingRequest();

    /// @param callback    told the answer; may be empty
    /// @param deviceName  the name as the lists have it, compared byte for byte
    WaitBluetoothPairingRequest(std::function<void(BluetoothRequestAnswers)> callback,
                                std::string deviceName);

    void executeRequest() override;
    void requestCancelFallback() override;

private:
    std::string deviceName;
};
