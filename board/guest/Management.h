#pragma once

#include <cstdint>
#include <vector>

namespace board {

/// The commands of the kernel's Bluetooth management interface that the board uses.
enum ManagementCommand : std::uint16_t { READ_INFO = 0x0004, SET_DEVICE_ID = 0x0028 };

/// Sends one command for an hci device and waits for the answer.
/// @return the answer's status, 0 for success
/// @throws std::system_error if the kernel cannot be asked
int manage(int device, ManagementCommand command, const std::vector<std::uint8_t>& parameters);

}  // namespace board
