#include "Command.h"
#include "Groups.h"

#include <algorithm>
#include <sstream>

namespace corvanectl {

const std::vector<Command>& commands() {
    static const std::vector<Command> table{
        {"on", Takes::nothing, "", switchOn, "switch Bluetooth on",
         "Does nothing when the persisted setting says on already. It succeeded when the setting "
         "is on, BlueZ is on the bus and the library logged no error meanwhile."},
        {"off", Takes::optionalChoice, "forced", switchOff, "switch Bluetooth off",
         "Does nothing when the persisted setting says off already. With forced, the power line "
         "that the Wi-Fi shares goes down as well. It succeeded when the setting is off, BlueZ "
         "has left the bus and the library logged no error meanwhile; that the adapter could not "
         "be powered down is no error when BlueZ was not running before."},
        {"status", Takes::nothing, "", showStatus, "show setting, board, adapter, services, lists",
         ""},
        {"airplane", Takes::choice, "on|off", airplane,
         "power the radio hardware down for flight, or up again",
         "Lowers every enable line, the one that the Wi-Fi shares included, and unloads the "
         "kernel modules, or reverts that. Daemons and setting are left alone: switch off first. "
         "It succeeded when the library logged no error and, for on, the adapter is gone."},
        {"scan", Takes::nothing, "", scan, "discover devices for ten seconds", ""},
        {"devices", Takes::optionalChoice, "all|paired|connected", listDevices,
         "list the devices that BlueZ knows", "Without an argument: all."},
        {"find", Takes::knownDevice, "", findDevice, "show what is known of one device",
         "Tells also whether it is a playback device."},
        {"pair", Takes::knownDevice, "", pairDevice, "pair with a device that was found", ""},
        {"wait-pair", Takes::knownDevice, "", waitForPairing,
         "let a device pair with the appliance",
         "Makes the appliance discoverable and trusts the device. A phone or a computer has 60 "
         "seconds to pair and connect by itself; an audio device is paired and connected."},
        {"trust", Takes::knownDevice, "", trustDevice,
         "accept the connections of a device without asking", ""},
        {"connect", Takes::pairedDevice, "", connectDevice, "connect a paired device",
         "A playback device takes the place of the one that is connected."},
        {"disconnect", Takes::connectedDevice, "", disconnectDevice,
         "disconnect a connected device",
         "A disconnection that BlueZ refuses is tried again until it is cancelled."},
        {"forget", Takes::knownDevice, "", forgetDevice,
         "remove a device's pairing and all that BlueZ knows of it", ""},
        {"cancel", Takes::nothing, "", cancelNothing, "cancel the running request",
         "For standard input and the shell: a line that says cancel while a request runs. Ctrl-C "
         "does the same; a second Ctrl-C leaves."},
        {"watch-log", Takes::watch, "", watchLog,
         "run a command, then wait for a text in the system log",
         "PATTERN is a basic regular expression without a single quote, TIMEOUT is in "
         "milliseconds, COMMAND is any of these commands. Only lines that the log has gained "
         "since just before the command count."},
        {"doctor", Takes::nothing, "", examineBoard, "examine the board without touching the radio",
         "Tells for each file, program and service that the library relies on what was looked "
         "for, what was found, and what to do about it."},
        {"quit", Takes::nothing, "", quit, "leave; what follows is not run", ""},
        {"help", Takes::optionalCommand, "", showHelp, "explain the commands, or one of them", ""},
    };
    return table;
}

const Command* findCommand(const std::string& name) {
    const auto& table = commands();
    const auto match = std::find_if(table.begin(), table.end(),
                                    [&](const Command& row) { return row.name == name; });
    return match == table.end() ? nullptr : &*match;
}

std::string synopsisOf(const Command& command) {
    switch (command.takes) {
        case Takes::nothing:
            return "";
        case Takes::choice:
            return command.choices;
        case Takes::optionalChoice:
            return std::string("[") + command.choices + "]";
        case Takes::knownDevice:
        case Takes::pairedDevice:
        case Takes::connectedDevice:
            return "NAME";
        case Takes::optionalCommand:
            return "[COMMAND]";
        case Takes::watch:
            return "PATTERN TIMEOUT -- COMMAND";
    }
    return "";
}

std::vector<std::string> choicesOf(const Command& command) {
    std::vector<std::string> choices;
    std::istringstream text(command.choices);
    for (std::string choice; std::getline(text, choice, '|');) choices.push_back(choice);
    return choices;
}

}  // namespace corvanectl
