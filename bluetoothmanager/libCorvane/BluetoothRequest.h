#pragma once

#include "CorvaneExport.h"

#include <atomic>
#include <functional>
#include <string>

/// The outcome of a request, given to its callback exactly once.
enum BluetoothRequestAnswers : int {
    REQUEST_SUCCESS = 0,         ///< the request did its work
    REQUEST_TIMEOUT = 1,         ///< the wait for pairing timed out
    REQUEST_CANCELLED = 2,       ///< cancelled in a waiting loop, after its check of the time
    REQUEST_CONNECT_FAILED = 3,  ///< paired, but the playback device could not be connected
    REQUEST_FAILED = 4,  ///< failed, device class not handled, or cancelled before or between steps
    REQUEST_DEVICE_NOT_FOUND = 5,  ///< the device is not in the paired list after pairing
};

/// One long operation. The host builds it with a callback and starts it once with
/// BluetoothManager::makeRequest(). The host, the manager and the running thread share it by
/// shared_ptr. executeRequest() runs on the request's own thread; any other thread may call
/// cancelRequest(), isStillRunning() and getRequestName() meanwhile.
///
/// The virtual functions are ABI: keep their order, add new ones last.
class CORVANE_EXPORT BluetoothRequest {
public:
    /// Builds a request.
    /// @param callback  called once with the answer, on the request's thread; may be empty
    explicit BluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback);
    BluetoothRequest(const BluetoothRequest&) = delete;
    BluetoothRequest& operator=(const BluetoothRequest&) = delete;

    /// Does the work and calls the callback. An exception that leaves it ends the process.
    virtual void executeRequest() = 0;

    virtual ~BluetoothRequest();

    /// A hook to undo a half-done step after a cancellation. Nothing calls it; every request
    /// implements it empty.
    virtual void requestCancelFallback() = 0;

    /// Asks the request to stop. Returns at once; the answer comes through the callback. A call
    /// before the start, after the end or a second time does no harm.
    void cancelRequest();

    /// Tells whether the request runs. The connect request stops running before it calls its
    /// callback, all others after the callback has returned.
    /// @return true between start and end of executeRequest(); false until the new thread is there
    bool isStillRunning();

    /// Returns the request's name.
    /// Deliberate: every request built with a callback, except the connect request, is named
    /// "Generic BluetoothRequest", because logs in the field are searched for these names. Held by
    /// RequestNames.DependOnTheConstructor.
    /// @return the name, as in log records
    std::string getRequestName();

protected:
    std::atomic<bool> cancelFlag;
    /// Deliberate: a plain bool that the request's thread writes and others read without
    /// synchronisation. It is only polled, and reading it late does no harm. Named in the thread
    /// sanitizer's suppressions.
    bool runningFlag;
    std::string requestName;
    std::function<void(BluetoothRequestAnswers)> answerCallback;

    /// Calls the callback, if there is one.
    /// @param value  the answer
    void answer(BluetoothRequestAnswers value);
};
