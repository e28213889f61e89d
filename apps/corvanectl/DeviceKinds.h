#pragma once

#include <cstdint>
#include <string>

namespace corvanectl {

/// A Class of Device in words, "Phone, smartphone": major and minor device class by the Bluetooth
/// Assigned Numbers, Baseband. Numbers that are not assigned show as such.
std::string kindOf(std::uint32_t deviceClass);

}  // namespace corvanectl
