#include "BluetoothManager.h"

static_assert(__cplusplus < 201703L, "a host in C++14, with constants that need a definition");
static_assert(BluetoothManager::appleVendorId == 0x004C, "still a constant expression");

const std::uint16_t& vendorIdInCxx14() { return BluetoothManager::appleVendorId; }
