#pragma once

#include <BluetoothManager.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <memory>
#include <thread>

// Runs a request to its end and returns its answer; REQUEST_FAILED if another one is running.
template <class Request, class... Arguments>
BluetoothRequestAnswers perform(BluetoothManager& bluetooth, const Arguments&... arguments) {
    // The callback runs on the request's own thread, so it only passes the answer on.
    auto answer = std::make_shared<std::promise<BluetoothRequestAnswers>>();
    auto request = std::make_shared<Request>(
        [answer](BluetoothRequestAnswers value) { answer->set_value(value); }, arguments...);
    if (!bluetooth.makeRequest(request)) return REQUEST_FAILED;
    const BluetoothRequestAnswers value = answer->get_future().get();
    // The request counts as running until its callback has returned; the next one would be refused.
    while (request->isStillRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return value;
}

// Runs the host's work and leaves the process with the status that it returns.
template <class Work>
[[noreturn]] void runAndLeave(const Work& work) {
    int status = EXIT_FAILURE;
    try {
        status = work();
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
    }
    // After a request the manager must not be destroyed: leave without running destructors.
    std::cout << std::flush;
    std::quick_exit(status);
}
