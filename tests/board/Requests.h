#pragma once

#include "BluetoothManager.h"

#include "Board.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A started request and its one answer.
class Started {
public:
    /// Builds the request with its own callback and passes it to the manager.
    /// @param arguments  the arguments of the request's constructor after the callback
    template <class Request, class... Arguments>
    static Started make(Arguments&&... arguments) {
        auto promise = std::make_shared<std::promise<BluetoothRequestAnswers>>();
        Started started;
        started.answers = promise->get_future();
        started.request = std::make_shared<Request>(
            [promise](BluetoothRequestAnswers answer) { promise->set_value(answer); },
            std::forward<Arguments>(arguments)...);
        started.accepted = BluetoothManager::getInstance().makeRequest(started.request);
        return started;
    }

    bool isRunning() const { return request->isStillRunning(); }

    bool isAnsweredIn(unsigned milliseconds) const {
        return answers.wait_for(std::chrono::milliseconds(milliseconds)) ==
               std::future_status::ready;
    }

    /// Waits for the answer and the end of the request.
    /// @return the answer; -1 if none came in time
    int answer() {
        if (!accepted || !isAnsweredIn(board::patience)) return -1;
        const int value = answers.get();
        return board::waitFor([this] { return !request->isStillRunning(); }) ? value : -1;
    }

private:
    std::shared_ptr<BluetoothRequest> request;
    std::future<BluetoothRequestAnswers> answers;
    bool accepted = false;
};

/// Fills the lists until they contain all named devices. One scan finds all on an idle machine; a
/// busy one may need more. BlueZ forgets a device that is neither paired nor trusted 30 s after a
/// search.
inline bool areNear(const std::vector<std::string>& names) {
    BluetoothManager& manager = BluetoothManager::getInstance();
    constexpr int scans = 10;
    for (int scan = 0; manager.scanDevicesInfo(); ++scan) {
        const auto listed = manager.getBluetoothDeviceListNames(ALL_DEVICES);
        if (std::all_of(names.begin(), names.end(), [&](const std::string& name) {
                return std::count(listed.begin(), listed.end(), name) >=
                       std::count(names.begin(), names.end(), name);
            })) {
            return true;
        }
        if (scan == scans || Started::make<ScanBluetoothRequest>().answer() != REQUEST_SUCCESS) {
            return false;
        }
    }
    return false;
}
