#pragma once

#include "BluetoothRequest.h"
#include "CorvaneExport.h"

#include <functional>

/// Discovers devices for ten seconds. BlueZ collects what is found; read it afterwards with
/// BluetoothManager::scanDevicesInfo() and the lists.
///
/// Answers: REQUEST_SUCCESS after the ten seconds, whether or not BlueZ could start the discovery;
/// REQUEST_FAILED or REQUEST_CANCELLED after a cancellation, depending on which check sees it
/// first.
class CORVANE_EXPORT ScanBluetoothRequest : public BluetoothRequest {
public:
    /// Without a callback: nobody is told.
    ScanBluetoothRequest();
    explicit ScanBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback);

    void executeRequest() override;
    void requestCancelFallback() override;
};
