#pragma once

#include "UniqueFd.h"

namespace board {

/// Opens a serial line or pseudo terminal for raw bytes.
/// @throws std::system_error naming the path
UniqueFd openRaw(const char* path);

/// Attaches an open line to the kernel's Bluetooth UART driver, with the H4 protocol.
/// @return the number of the new hci device
/// @throws std::system_error if the driver refuses
/// @throws std::runtime_error if the driver is not loaded
int attachH4(int line);

}  // namespace board
