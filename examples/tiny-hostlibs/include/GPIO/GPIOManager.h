#pragma once

namespace GPIO {

enum class Direction {};  // 1: output
enum class Value {};      // 0 or 1

class GPIOManager {
public:
    int exportPin(unsigned pin);
    int setDirection(unsigned pin, Direction direction);
    int getValue(unsigned pin);
    int setValue(unsigned pin, Value value);
};

}  // namespace GPIO
