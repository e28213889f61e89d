#pragma once

#include "BluetoothManager.h"

#include "Board.h"

#include <chrono>
#include <future>
#include <memory>
#include <utility>

/// A request that was started, and its one answer.
class Started {
public:
    /// Makes the request with a callback of its own and hands it to the manager.
    /// @param arguments  what the request's constructor takes behind the callback
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

    bool wasAccepted() const { return accepted; }

    bool isRunning() const { return request->isStillRunning(); }

    /// Waits for the answer and for the request's end. @return the answer; -1 when none came in
    /// time
    int answer(std::chrono::seconds time = std::chrono::seconds(90)) {
        if (!accepted || answers.wait_for(time) != std::future_status::ready) return -1;
        const int value = answers.get();
        return board::waitFor([this] { return !request->isStillRunning(); }, 1000) ? value : -1;
    }

private:
    std::shared_ptr<BluetoothRequest> request;
    std::future<BluetoothRequestAnswers> answers;
    bool accepted = false;
};
