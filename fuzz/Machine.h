#pragma once

#include "BluetoothManager.h"

namespace corvane::fuzz {

/// Ends the process, which the fuzzer takes for a finding, unless the condition holds.
void require(bool holds, const char* what);

/// The manager, made at the first call on a machine of this process's own: no command of the
/// library reaches a shell, no file, line or radio is touched (tests/support/Interposed.cpp), and
/// that is tried before anything else. The bus is a private one without any service; the log is
/// kept in corvane::test::edges().
BluetoothManager& manager();

}  // namespace corvane::fuzz
