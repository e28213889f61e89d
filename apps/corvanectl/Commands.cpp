#include "Console.h"
#include "Session.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <deque>
#include <iomanip>
#include <sstream>

namespace corvanectl {

namespace {

using Words = std::deque<std::string>;

Result cancelNothing(Session& /*session*/, const Invocation& /*invocation*/) {
    // Commands run one after the other: a request that runs sees the line itself.
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
    result.text = wrapped(result.text, Console::widthOrUsual());
    result.text.erase(result.text.find_last_not_of(" \n") + 1);
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
                      ? inQuotes(name) + " is no command; options stand before the first command"
                      : "unknown command " + inQuotes(name) + "; help lists the commands");
}

/// Checks the words that belong to a command. Throws CLI::ParseError.
void check(const Command& command, const std::vector<std::string>& arguments) {
    CLI::App grammar;
    grammar.set_help_flag();
    const std::vector<std::string> choices = choicesOf(command);
    std::istringstream takes(command.takes);
    for (std::string word; takes >> word && word != "--";) {
        if (word == "[--anonymous]") {
            grammar.add_flag("--anonymous");
            continue;
        }
        CLI::Option* const option = grammar.add_option(word);
        option->required(word.front() != '[');
        option->check(CLI::Validator(
            [](const std::string& text) { return text.empty() ? "must not be empty" : ""; }, ""));
        if (word == "TIMEOUT") option->check(CLI::Range(0U, 999999999U));
        if (word.find_first_of("abcdefghijklmnopqrstuvwxyz") != std::string::npos) {
            option->check(CLI::IsMember(choices));
        }
    }
    // From the last to the first, and as they are: only the file's command has options.
    std::vector<std::string> words(arguments.rbegin(), arguments.rend());
    if (command.run != writeReport) words.emplace_back("--");
    grammar.parse(words);
}

/// Takes a command's name and its arguments, or a whole line, from the front.
Invocation takeCommand(Words& words) {
    const std::string name = take(words);
    if (isWholeLine(name)) return parseLine(name);
    const Command& command = commandNamed(name);
    Invocation invocation{&command, {}, nullptr};
    std::istringstream takes(command.takes);
    for (std::string word; takes >> word && word != "--" && !words.empty();) {
        const bool isChoice = word.front() == '[' && word != "[COMMAND]";
        if (word == "[--anonymous]") {
            // It may stand on either side of the file.
            if (words.size() < 2 || (words[0] != word.substr(1, 11) && words[1] != "--anonymous")) {
                continue;
            }
        } else if (isChoice &&
                   (findCommand(words.front()) != nullptr || isWholeLine(words.front()))) {
            continue;
        }
        invocation.arguments.push_back(take(words));
    }
    try {
        check(command, invocation.arguments);
    } catch (const CLI::ParseError& error) {
        throw wrongUse(command, error.what());
    }
    if (command.run == showHelp && !invocation.arguments.empty()) {
        commandNamed(invocation.arguments.front());
    }
    if (command.run == watchLog) {
        // It would end the shell's command line.
        if (invocation.arguments.front().find('\0') != std::string::npos) {
            throw wrongUse(command, '"' + invocation.arguments.front() +
                                        "\" holds a zero byte; write . in its place");
        }
        if (words.empty() || take(words) != "--") {
            throw wrongUse(command, "expected -- behind the timeout");
        }
        if (!words.empty()) invocation.inner = std::make_shared<Invocation>(takeCommand(words));
        if (!invocation.inner || invocation.inner->command == nullptr) {
            throw wrongUse(command, "the command is missing");
        }
    }
    return invocation;
}

}  // namespace

const std::vector<Command>& commands() {
    static const std::vector<Command> table{
        {"on", "", switchOn, "switch Bluetooth on",
         "Does nothing when the persisted setting says on already. It succeeded when the setting "
         "is on, BlueZ is on the bus, and the adapter is powered, pairable and has its name."},
        {"off", "[forced]", switchOff, "switch Bluetooth off",
         "Does nothing when the persisted setting says off already. With forced, the power line "
         "that the Wi-Fi shares goes down as well. It succeeded when the setting is off, BlueZ "
         "has left the bus and the adapter is gone."},
        {"status", "", showStatus, "show setting, board, adapter, services, lists", ""},
        {"airplane", "on|off", airplane, "power the radio hardware down for flight, or up again",
         "Lowers every enable line, the one that the Wi-Fi shares included, and unloads the "
         "kernel modules, or reverts that. Daemons and setting are left alone: switch off first. "
         "It succeeded when the library logged no error and, for on, the adapter is gone."},
        {"scan", "", scan, "discover devices for ten seconds", ""},
        {"devices", "[all|paired|connected]", listDevices, "list the devices that BlueZ knows",
         "Without an argument: all."},
        {"find", "NAME", findDevice, "show what is known of one device",
         "Tells also whether it is a playback device."},
        {"pair", "NAME", pairDevice, "pair with a device that was found", ""},
        {"wait-pair", "NAME", waitForPairing, "let a device pair with the appliance",
         "Makes the appliance discoverable and trusts the device. A phone or a computer has 60 "
         "seconds to pair and connect by itself; an audio device is paired and connected."},
        {"trust", "NAME", trustDevice, "accept the connections of a device without asking", ""},
        {"connect", "NAME", connectDevice, "connect a paired device",
         "A playback device takes the place of the one that is connected."},
        {"disconnect", "NAME", disconnectDevice, "disconnect a connected device",
         "A disconnection that BlueZ refuses is tried again until it is cancelled."},
        {"forget", "NAME", forgetDevice, "remove a device's pairing and all that BlueZ knows of it",
         ""},
        {"cancel", "", cancelNothing, "cancel the running request",
         "For standard input and the shell: a line that says cancel while a request runs. Ctrl-C "
         "does the same; a second Ctrl-C leaves."},
        {"watch-log", "PATTERN TIMEOUT -- COMMAND", watchLog,
         "run a command, then wait for a text in the system log",
         "PATTERN is a basic regular expression, TIMEOUT is in "
         "milliseconds, COMMAND is any of these commands. Only lines that the log has gained "
         "since just before the command count."},
        {"doctor", "", examineBoard, "examine the board without touching the radio",
         "Tells for each file, program and service that the library relies on what was looked "
         "for, what was found, and what to do about it."},
        {"report", "[--anonymous] FILE", writeReport, "write a tar archive to attach to a mail",
         "Doctor's findings, versions, identity, logs since the last boot, BlueZ's objects and, "
         "when BlueZ runs and btmon is there, the trace of a scan."},
        {"quit", "", quit, "leave; what follows is not run", ""},
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

std::vector<std::string> choicesOf(const Command& command) {
    std::string takes = command.takes;
    takes.erase(
        std::remove_if(takes.begin(), takes.end(), [](char c) { return c == '[' || c == ']'; }),
        takes.end());
    std::replace(takes.begin(), takes.end(), '|', ' ');
    return splitWords(takes);
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
        throw wrongUse(*invocation.command, "one argument too many, " + words.front() +
                                                "; a name with blanks stands in quotes");
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
