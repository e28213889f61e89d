#include "BluetoothManager.h"

#include "LogAppender.h"

#include <log4cplus/loggingmacros.h>

#include <future>
#include <utility>

bool BluetoothManager::makeRequest(std::shared_ptr<BluetoothRequest> request) {
    if (currentRequest && currentRequest->isStillRunning()) {
        LOG4CPLUS_DEBUG(LogAppender::getLogger(),
                        "Ongoing Bluetooth request: " << currentRequest->getRequestName());
        return false;
    }
    if (!request) {
        LOG4CPLUS_ERROR(LogAppender::getLogger(), "makeRequest : no request given");
        return false;
    }
    if (requestThread.joinable()) requestThread.detach();
    currentRequest = std::move(request);
    // The callback of a short request may call makeRequest() at once. By then requestThread must
    // hold the thread of that request.
    std::promise<void> stored;
    requestThread = std::thread(
        [ready = stored.get_future()](const std::shared_ptr<BluetoothRequest>& started) {
            ready.wait();
            started->executeRequest();
        },
        currentRequest);
    stored.set_value();
    return true;
}

void BluetoothManager::cancelRequest() {
    if (currentRequest) currentRequest->cancelRequest();
}
