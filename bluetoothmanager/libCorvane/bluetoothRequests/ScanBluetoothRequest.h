#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>

/// Discovers devices for ten seconds. BlueZ collects them; call
/// BluetoothManager::scanDevicesInfo() afterwards and read the lists.
///
/// Answers: REQUEST_SUCCESS after ten seconds, even if BlueZ could not start the discovery; after a
/// cancellation REQUEST_FAILED or REQUEST_CANCELLED, depending on which check sees it first.
class CORVANE_EXPORT ScanBluetoothRequest : public BluetoothRequest {
public:
    /// Builds a request without a callback.
    ScanBluetoothRequest();

    /// Builds a request.
    /// @param callback  gets the answer; may be empty
    explicit ScanBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback);

    void executeRequest() override;
    void requestCancelFallback() override;
};
