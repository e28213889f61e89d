#pragma once

#include "BluetoothManager.h"

namespace corvane::fuzz {

/// Ends the process unless the condition holds; the fuzzer reports that as a finding.
void require(bool holds, const char* what);

/// The manager, on a simulated machine (tests/support/Interposed.cpp): its commands never reach a
/// shell, and it touches no file, line or radio. The bus is private and empty;
/// corvane::test::edges() keeps the log.
BluetoothManager& manager();

}  // namespace corvane::fuzz
