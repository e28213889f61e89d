#include "BluetoothRequest.h"

#include <utility>

BluetoothRequest::BluetoothRequest(std::function<void(BluetoothRequestAnswers)> callback)
    : cancelFlag(false),
      runningFlag(false),
      requestName("Generic BluetoothRequest"),
      answerCallback(std::move(callback)) {}

BluetoothRequest::~BluetoothRequest() = default;

void BluetoothRequest::cancelRequest() { cancelFlag.store(true); }

bool BluetoothRequest::isStillRunning() { return runningFlag; }

std::string BluetoothRequest::getRequestName() { return requestName; }

void BluetoothRequest::answer(BluetoothRequestAnswers value) {
    if (answerCallback) answerCallback(value);
}
