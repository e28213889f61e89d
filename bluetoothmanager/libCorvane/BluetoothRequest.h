#pragma once

#include "CorvaneExport.h"

#include <atomic>
#include <functional>
#include <string>

/// The outcome of a request, given to its callback exactly once.
enum BluetoothRequestAnswers : int {
    REQUEST_SUCCESS = 0,  ///< the request did its work
    REQUEST_TIMEOUT = 1,  ///< the wait for pairing ran out of time
    REQUEST_CANCELLED =
        2,  ///< cancelled, seen by the check that follows the time check of a waiting loop
    REQUEST_CONNECT_FAILED = 3,  ///< paired, but the playback device could not be connected
    REQUEST_FAILED =
        4,  ///< failed, device class not handled, or cancelled before or between the steps
    REQUEST_DEVICE_NOT_FOUND = 5,  ///< after pairing, the device is not among the paired ones
};

/// One long operation. Built by the host with a callback, started once by
/// BluetoothManager::makeRequest(), held by shared_ptr: by the host, the manager and the running
/// thread. executeRequest() runs on the request's own thread; cancelRequest(), isStillRunning() and
/// getRequestName() may be called from any other thread meanwhile.
///
/// Only the three operations of the manager's own requests are virtual, in this order: it is an
/// interface, new ones go last.
class CORVANE_EXPORT BluetoothRequest {
public:
    /// @param callback  called once, on the request's thread, with the answer; may be empty
    explicit BluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback);
    BluetoothRequest(const BluetoothRequest&) = delete;
    BluetoothRequest& operator=(const BluetoothRequest&) = delete;

    /// The body: does the work, calls the callback. Exceptions that leave it end the process.
    virtual void executeRequest() = 0;

    virtual ~BluetoothRequest();

    /// The hook with which a request would undo a half-done step after cancellation. Every request
    /// leaves it empty and nothing calls it.
    virtual void requestCancelFallback() = 0;

    /// Asks the request to stop. Returns at once; the answer comes through the callback. Harmless
    /// before the start, after the end, and when repeated.
    void cancelRequest();

    /// Whether executeRequest() is between its start and its end. False until the new thread has
    /// got there. The connect request is over before its callback is called, the others after it
    /// has returned.
    bool isStillRunning();

    /// The request's name. Deliberate: the requests that are built with a callback keep "Generic
    /// BluetoothRequest", all but the connect request; logs of the field are searched for these
    /// names. Held by RequestNames.DependOnTheConstructor.
    std::string getRequestName();

protected:
    std::atomic<bool> cancelFlag;
    /// Deliberate: a plain bool, written by the request's thread and read by others without
    /// synchronisation. It is only polled, and a value read late does no harm. Named in the thread
    /// sanitizer's suppressions.
    bool runningFlag;
    std::string requestName;
    std::function<void(BluetoothRequestAnswers)> answerCallback;

    /// Calls the callback, when there is one, with the answer.
    void answer(BluetoothRequestAnswers value);
};
