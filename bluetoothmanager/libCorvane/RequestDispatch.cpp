#include "BluetoothManager.h"

#include "Logging.h"

#include <utility>

bool BluetoothManager::makeRequest(std::shared_ptr<BluetoothRequest> request) {
    if (currentRequest && currentRequest->isStillRunning()) {
        CORVANE_DEBUG("Ongoing Bluetooth request: " << currentRequest->getRequestName());
        return false;
    }
    if (!request) {
        CORVANE_ERROR("makeRequest"
                      << " : no request given");
        return false;
    }
    if (requestThread.joinable()) requestThread.detach();
    currentRequest = std::move(request);
    requestThread = std::thread(&BluetoothRequest::executeRequest, currentRequest);
    return true;
}

void BluetoothManager::cancelRequest() {
    if (currentRequest) currentRequest->cancelRequest();
}
