#include "DeviceKinds.h"

#include <array>
#include <sstream>

namespace corvanectl {

namespace {

struct MajorClass {
    const char* name;
    const char* minors;  // from number 1 on, each ended by '|'; empty where none is assigned
};

constexpr std::uint32_t networkAccessPoint = 3;
constexpr std::uint32_t peripheral = 5;
constexpr std::uint32_t imaging = 6;
constexpr std::uint32_t uncategorized = 31;

constexpr std::array<MajorClass, 10> majorClasses{{
    {"Miscellaneous", ""},
    {"Computer", "desktop|server|laptop|handheld|palm-size|wearable|tablet|"},
    {"Phone", "cellular|cordless|smartphone|modem or gateway|ISDN|"},
    {"Network access point", ""},
    {"Audio/video",
     "headset|hands-free||microphone|loudspeaker|headphones|portable audio|car audio|set-top box|"
     "hi-fi|VCR|video camera|camcorder|video monitor|video display and loudspeaker|"
     "video conferencing||gaming or toy|"},
    {"Peripheral",
     "joystick|gamepad|remote control|sensing device|digitizer tablet|card reader|digital pen|"
     "handheld scanner|handheld gestural input|"},
    {"Imaging", ""},
    {"Wearable", "wristwatch|pager|jacket|helmet|glasses|pin|"},
    {"Toy", "robot|vehicle|doll|controller|game|"},
    {"Health",
     "blood pressure monitor|thermometer|weighing scale|glucose meter|pulse oximeter|"
     "heart or pulse rate monitor|health data display|step counter|body composition analyzer|"
     "peak flow monitor|medication monitor|knee prosthesis|ankle prosthesis|"
     "generic health manager|personal mobility device|"},
}};

}  // namespace

std::string kindOf(std::uint32_t deviceClass) {
    const std::uint32_t major = (deviceClass >> 8) & 0x1F;
    std::uint32_t minor = (deviceClass >> 2) & 0x3F;
    if (deviceClass == 0) return "unknown";
    if (major == uncategorized) return "Uncategorized";
    if (major >= majorClasses.size()) return "Major class " + std::to_string(major);
    const MajorClass& row = majorClasses.at(major);
    std::string text = row.name;
    if (major == networkAccessPoint) {
        // Upper three bits: how much of it is in use, in seven steps.
        const std::uint32_t load = minor >> 3;
        return text + (load == 0 ? ", fully available" : load == 7 ? ", no service" : ", in use");
    }
    if (major == imaging) {
        // One bit each.
        if ((minor & 0x04) != 0) text += ", display";
        if ((minor & 0x08) != 0) text += ", camera";
        if ((minor & 0x10) != 0) text += ", scanner";
        if ((minor & 0x20) != 0) text += ", printer";
        return text;
    }
    if (major == peripheral) {
        // Upper two bits: keyboard and pointing device; the others number further kinds.
        if ((minor & 0x10) != 0) text += ", keyboard";
        if ((minor & 0x20) != 0) text += ", pointing device";
        minor &= 0x0F;
    }
    if (minor == 0 || major == 0) return text;
    std::istringstream minors(row.minors);
    std::string name;
    for (std::uint32_t i = 0; i < minor; ++i) {
        if (!std::getline(minors, name, '|')) name.clear();
    }
    return text + ", " + (name.empty() ? "minor class " + std::to_string(minor) : name);
}

}  // namespace corvanectl
