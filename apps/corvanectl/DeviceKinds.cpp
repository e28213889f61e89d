#include "DeviceKinds.h"

#include <array>
#include <vector>

namespace corvanectl {

namespace {

struct MajorClass {
    const char* name;
    std::vector<const char*> minors;  // by number; null where none is assigned
};

constexpr std::uint32_t networkAccessPoint = 3;
constexpr std::uint32_t peripheral = 5;
constexpr std::uint32_t imaging = 6;
constexpr std::uint32_t uncategorized = 31;

const std::array<MajorClass, 10>& majorClasses() {
    static const std::array<MajorClass, 10> table{{
        {"Miscellaneous", {}},
        {"Computer",
         {nullptr, "desktop", "server", "laptop", "handheld", "palm-size", "wearable", "tablet"}},
        {"Phone", {nullptr, "cellular", "cordless", "smartphone", "modem or gateway", "ISDN"}},
        {"Network access point", {}},
        {"Audio/video",
         {nullptr, "headset", "hands-free", nullptr, "microphone", "loudspeaker", "headphones",
          "portable audio", "car audio", "set-top box", "hi-fi", "VCR", "video camera", "camcorder",
          "video monitor", "video display and loudspeaker", "video conferencing", nullptr,
          "gaming or toy"}},
        {"Peripheral",
         {nullptr, "joystick", "gamepad", "remote control", "sensing device", "digitizer tablet",
          "card reader", "digital pen", "handheld scanner", "handheld gestural input"}},
        {"Imaging", {}},
        {"Wearable", {nullptr, "wristwatch", "pager", "jacket", "helmet", "glasses", "pin"}},
        {"Toy", {nullptr, "robot", "vehicle", "doll", "controller", "game"}},
        {"Health",
         {nullptr, "blood pressure monitor", "thermometer", "weighing scale", "glucose meter",
          "pulse oximeter", "heart or pulse rate monitor", "health data display", "step counter",
          "body composition analyzer", "peak flow monitor", "medication monitor", "knee prosthesis",
          "ankle prosthesis", "generic health manager", "personal mobility device"}},
    }};
    return table;
}

void add(std::string& text, const char* word) {
    text += ", ";
    text += word;
}

}  // namespace

std::string kindOf(std::uint32_t deviceClass) {
    const std::uint32_t major = (deviceClass >> 8) & 0x1F;
    std::uint32_t minor = (deviceClass >> 2) & 0x3F;
    if (deviceClass == 0) return "unknown";
    if (major == uncategorized) return "Uncategorized";
    if (major >= majorClasses().size()) return "Major class " + std::to_string(major);
    const MajorClass& row = majorClasses().at(major);
    std::string text = row.name;
    if (major == networkAccessPoint) {
        // Upper three bits: how much of it is in use, in seven steps.
        const std::uint32_t load = minor >> 3;
        if (load == 0) return text + ", fully available";
        return load == 7 ? text + ", no service" : text + ", in use";
    }
    if (major == imaging) {
        // One bit each.
        if ((minor & 0x04) != 0) add(text, "display");
        if ((minor & 0x08) != 0) add(text, "camera");
        if ((minor & 0x10) != 0) add(text, "scanner");
        if ((minor & 0x20) != 0) add(text, "printer");
        return text;
    }
    if (major == peripheral) {
        // Upper two bits: keyboard and pointing device; the others number further kinds.
        const std::uint32_t input = minor >> 4;
        minor &= 0x0F;
        if ((input & 1) != 0) add(text, "keyboard");
        if ((input & 2) != 0) add(text, "pointing device");
    }
    if (minor == 0) return text;
    if (minor < row.minors.size() && row.minors[minor] != nullptr) {
        add(text, row.minors[minor]);
    } else if (major != 0) {
        text += ", minor class " + std::to_string(minor);
    }
    return text;
}

}  // namespace corvanectl
