#include "Session.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <deque>
#include <iomanip>
#include <regex>
#include <sstream>

namespace corvanectl {

namespace {

using Words = std::deque<std::string>;

Result cancelNothing(Session& /*session*/, const Invocation& /*invocation*/) {
    // Commands run one after the other: the running request reads this line itself.
    return {ExitStatus::success, "No request is running", "", {{"cancelled", false}}};
}

Result quit(Session& session, const Invocation& /*invocation*/) {
    session.stopping = true;
    return {};
}

std::string usageOf(const Command& command) {
    return std::string(command.name) + (*command.takes == '\0' ? "" : " ") + command.takes;
}

Result showHelp(Session& /*session*/, const Invocation& invocation) {
    Result result{ExitStatus::success, commandList(), "", {{"commands", Json::array()}}};
    for (const Command& command : commands()) {
        if (!invocation.arguments.empty()) {
            if (command.name != invocation.arguments.front()) continue;
            result.text = usageOf(command) + "\n  " + command.help + "\n  " + command.details;
        }
        result.data["commands"].push_back(
            {{"usage", usageOf(command)}, {"help", command.help}, {"details", command.details}});
    }
    result.text = wrapped(result.text, terminalColumns(Streams::output));
    return result;
}

Failure wrongUse(const Command& command, const std::string& text) {
    return {ExitStatus::usage,
            std::string(command.name) + ": " + escaped(text) + "; use: " + usageOf(command)};
}

std::string take(Words& words) {
    std::string word = std::move(words.front());
    words.pop_front();
    return word;
}

bool isWholeLine(const std::string& word) { return word.find_first_of(" \t") != std::string::npos; }

const Command& commandNamed(const std::string& name) {
    if (const Command* const command = findCommand(name)) return *command;
    throw Failure(ExitStatus::usage,
                  name.compare(0, 1, "-") == 0
                      ? inQuotes(name) + " is not a command; options go before the first command"
                      : "unknown command " + inQuotes(name) + "; help lists the commands");
}

/// @param taken  what the argument stands for, a word of Command::takes
/// @return what is wrong with an argument; empty for nothing
std::string faultIn(std::string argument, const std::string& taken) {
    if (argument.empty()) return taken + " must not be empty";
    if (taken == "[COMMAND]") commandNamed(argument);
    if (taken == "TIMEOUT") return CLI::Range(0U, 999999999U)(argument);
    return isChoice(taken) ? CLI::IsMember(choicesOf(taken))(argument) : "";
}

/// Takes a command's name and its arguments, or a whole line, from the front.
Invocation takeCommand(Words& words) {
    const std::string name = take(words);
    if (isWholeLine(name)) return parseLine(name);
    const Command& command = commandNamed(name);
    Invocation invocation{&command, {}, nullptr};
    for (const std::string& taken : splitWords(command.takes)) {
        if (taken == "COMMAND") {
            invocation.arguments.pop_back();  // the --
            if (!words.empty()) invocation.inner = std::make_shared<Invocation>(takeCommand(words));
            if (invocation.inner && invocation.inner->command != nullptr) break;
            throw wrongUse(command, "the command is missing");
        }
        const bool optional = taken.front() == '[';
        if (words.empty() && !optional) throw wrongUse(command, taken + " is required");
        const std::string next = words.empty() ? "" : words.front();
        const bool nextIsCommand = findCommand(next) != nullptr || isWholeLine(next);
        const bool absent = taken == "[--anonymous]" ? next != "--anonymous"
                            : taken == "[COMMAND]"   ? false
                                                     : nextIsCommand;
        if (words.empty() || (optional && absent)) continue;
        const std::string fault = faultIn(next, taken);
        if (!fault.empty()) throw wrongUse(command, fault);
        invocation.arguments.push_back(take(words));
    }
    return invocation;
}

}  // namespace

const std::vector<Command>& commands() {
    static const std::vector<Command> table{
        {"on", "", switchOn, "switch Bluetooth on",
         "Does nothing when the persisted setting is already on. Succeeds when the setting is on, "
         "BlueZ is on the bus, and the adapter is powered, pairable and has its name."},
        {"off", "[forced]", switchOff, "switch Bluetooth off",
         "Does nothing when the persisted setting is already off. With forced, the power line "
         "shared with the Wi-Fi goes down as well. Succeeds when the setting is off, BlueZ has "
         "left the bus and the adapter is gone."},
        {"status", "", showStatus, "show setting, board, adapter, services and device counts", ""},
        {"airplane", "on|off", airplane, "power the radio hardware down for flight, or up again",
         "on lowers every enable line, including the one shared with the Wi-Fi, and unloads the "
         "kernel modules; off reverts that. Daemons and setting stay as they are: switch off "
         "first. Succeeds when the library logged no error and, for on, the adapter is gone."},
        {"scan", "", scan, "discover devices for ten seconds", ""},
        {"devices", "[all|paired|connected]", listDevices, "list the devices that BlueZ knows",
         "Without an argument: all."},
        {"find", "NAME", findDevice, "show what is known about a device",
         "Includes whether it is a playback device."},
        {"pair", "NAME", pairDevice, "pair with a device that was found", ""},
        {"wait-pair", "NAME", waitForPairing, "let a device pair with the appliance",
         "Makes the appliance discoverable and trusts the device. A phone or a computer has 60 "
         "seconds to pair and connect by itself; an audio device is paired and connected."},
        {"trust", "NAME", trustDevice, "accept connections from a device without asking", ""},
        {"connect", "NAME", connectDevice, "connect a paired device",
         "A playback device replaces the connected one."},
        {"disconnect", "NAME", disconnectDevice, "disconnect a connected device",
         "Retries until cancelled when BlueZ refuses."},
        {"forget", "NAME", forgetDevice, "remove a device and its pairing from BlueZ", ""},
        {"cancel", "", cancelNothing, "cancel the running request",
         "For standard input and the shell: type it while a request runs. Ctrl-C does the same; a "
         "second Ctrl-C leaves."},
        {"watch-log", "PATTERN TIMEOUT -- COMMAND", watchLog,
         "run a command, then wait for a text in the system log",
         "PATTERN is a basic regular expression, TIMEOUT is in milliseconds, COMMAND is any of "
         "these commands. Only lines logged since just before the command count."},
        {"doctor", "", examineBoard, "examine the board without touching the radio",
         "Says for each file, program and service that the library relies on what was expected, "
         "what was found, and how to fix it."},
        {"report", "[--anonymous] FILE", writeReport, "write a tar archive to attach to a mail",
         "Contains doctor's findings, versions, identity, logs since the last boot, BlueZ's "
         "objects and, when BlueZ runs and btmon is installed, the trace of a scan. --anonymous "
         "leaves out names, addresses and the trace."},
        {"quit", "", quit, "leave without running what follows", ""},
        {"help", "[COMMAND]", showHelp, "explain the commands, or one of them", ""},
    };
    return table;
}

const Command* findCommand(const std::string& name) {
    const auto& table = commands();
    const auto match = std::find_if(table.begin(), table.end(),
                                    [&](const Command& row) { return row.name == name; });
    return match == table.end() ? nullptr : &*match;
}

bool isChoice(const std::string& taken) { return std::regex_match(taken, std::regex("[^A-Z]+")); }

std::vector<std::string> choicesOf(std::string list) {
    if (list.front() == '[') list = list.substr(1, list.size() - 2);
    std::istringstream stream(list);
    std::vector<std::string> choices;
    for (std::string choice; std::getline(stream, choice, '|');) choices.push_back(choice);
    return choices;
}

std::string commandList() {
    constexpr int column = 34;
    std::ostringstream list;
    for (const Command& command : commands()) {
        list << "  " << std::left << std::setw(column) << usageOf(command) << "  " << command.help
             << '\n';
    }
    return list.str();
}

Invocation parseLine(const std::string& line) {
    const std::vector<std::string> split = splitWords(line);
    Words words(split.begin(), split.end());
    if (words.empty() || words.front().compare(0, 1, "#") == 0) return {};
    Invocation invocation = takeCommand(words);
    if (!words.empty()) {
        throw wrongUse(*invocation.command, "unexpected argument " + words.front() +
                                                "; put a name with blanks in quotes");
    }
    return invocation;
}

std::vector<Invocation> parseArguments(const std::vector<std::string>& arguments) {
    std::vector<Invocation> result;
    Words words(arguments.begin(), arguments.end());
    while (!words.empty()) {
        Invocation invocation = takeCommand(words);
        if (invocation.command != nullptr) result.push_back(std::move(invocation));
    }
    return result;
}

}  // namespace corvanectl
