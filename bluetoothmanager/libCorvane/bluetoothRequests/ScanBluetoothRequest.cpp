#include "BluetoothManager.h"

#include "RadioWirings.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"

#include <chrono>
#include <utility>

ScanBluetoothRequest::ScanBluetoothRequest() : BluetoothRequest(nullptr) {
    requestName = "ScanBluetoothRequest";
}

ScanBluetoothRequest::ScanBluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback)
    : BluetoothRequest(std::move(callback)) {}

void ScanBluetoothRequest::executeRequest() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;

    runningFlag = true;
    const auto start = steady_clock::now();
    BluetoothManager::getInstance().adapterScan(true);

    BluetoothRequestAnswers result = REQUEST_FAILED;
    // Deliberate: the loop spins on the clock, so that it sees a cancellation at once and ends
    // after exactly ten seconds. Do not sleep or wait here. Held by
    // ScanRequest.AnswersACancellationAtOnce.
    while (true) {
        if (cancelFlag.load()) {
            result = REQUEST_FAILED;
            break;
        }
        if (duration_cast<milliseconds>(steady_clock::now() - start) > corvane::scanLength) {
            result = REQUEST_SUCCESS;
            break;
        }
        if (cancelFlag.load()) {
            result = REQUEST_CANCELLED;
            break;
        }
    }

    BluetoothManager::getInstance().adapterScan(false);
    answer(result);
    runningFlag = false;
}

void ScanBluetoothRequest::requestCancelFallback() {}
