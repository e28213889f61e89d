#pragma once

#include "UniqueFd.h"

namespace board {

/// Opens a serial line or pseudo terminal for raw bytes. Throws std::system_error naming the path.
UniqueFd openRaw(const char* path);

/// Hands an open line to the kernel's Bluetooth UART driver with the H4 protocol.
/// @return the number of the hci device that the kernel made
/// Throws std::system_error when the driver refuses, std::runtime_error when it is not loaded.
int attachH4(int line);

}  // namespace board
