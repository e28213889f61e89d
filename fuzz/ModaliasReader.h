#pragma once

#include "BluetoothDevices.h"

#include <string>

namespace corvane::fuzz {

/// The ids of a modalias by hand, to compare with: what "%*[a-z]:v%4xp%4xd%4x" means to the C
/// library's scanf, which takes blanks, a sign and 0x for a number too.
ModaliasIds readModalias(const std::string& text);

}  // namespace corvane::fuzz
