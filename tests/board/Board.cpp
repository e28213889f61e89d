#include "Board.h"

#include "eepromXML.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace board {

std::string run(const std::string& commandLine) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((commandLine + " 2>&1").c_str(), "r"),
                                                     pclose);
    if (!pipe) throw std::runtime_error("cannot run " + commandLine);
    std::string output;
    std::array<char, 4096> buffer{};
    for (std::size_t n = 0; (n = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;) {
        output.append(buffer.data(), n);
    }
    return output;
}

int wiring() {
    static const std::regex argument(R"(corvane\.wiring=(\d))");
    const std::string commandLine = fileContent("/proc/cmdline");
    std::smatch match;
    if (!std::regex_search(commandLine, match, argument)) {
        throw std::runtime_error("this is not the virtual board; use script/board test");
    }
    return std::stoi(match[1]);
}

std::map<unsigned, int> lineLevels() {
    // A held line reads "gpio-153 (                    |corvane             ) out hi".
    static const std::regex line(R"(gpio-(\d+) .*\) (?:out|in ) (hi|lo))");
    // Kernel 7 counts the lines of each chip from 0, and its header has no range of numbers.
    static const std::regex chip(R"(^gpiochip(\d+): 32 GPIOs)");
    unsigned base = 0;
    std::map<unsigned, int> levels;
    std::istringstream lines(fileContent("/sys/kernel/debug/gpio"));
    std::smatch match;
    for (std::string text; std::getline(lines, text);) {
        if (std::regex_search(text, match, chip))
            base = 32 * static_cast<unsigned>(std::stoul(match[1]));
        if (!std::regex_search(text, match, line)) continue;
        levels[base + static_cast<unsigned>(std::stoul(match[1]))] = match[2] == "hi" ? 1 : 0;
    }
    return levels;
}

std::string adapterProperty(const std::string& name) {
    std::string reply = run(
        "dbus-send --system --print-reply=literal --reply-timeout=300000 --dest=org.bluez "
        "/org/bluez/hci0 org.freedesktop.DBus.Properties.Get string:org.bluez.Adapter1 string:" +
        name);
    static const std::regex value(R"(^\s*variant\s+(?:boolean |uint32 )?([^\n]*?)\s*$)");
    std::smatch match;
    return std::regex_search(reply, match, value) ? match[1].str() : reply;
}

std::string adapterFaults() {
    const eepromXML identity(fileContent("/etc/corvane/identity.xml"));
    const std::map<std::string, std::string> expected{
        {"Powered", "true"},
        {"Pairable", "true"},
        {"PairableTimeout", "0"},
        {"Alias", GetModelNameStringExternal(identity.GetModelType()) + " " +
                      identity.GetSerialNumberString(false)}};
    std::string faults;
    for (const auto& property : expected) {
        std::string shown;
        const auto reads = [&] {
            shown = adapterProperty(property.first);
            return shown == property.second;
        };
        if (!waitFor(reads, 60000)) faults += property.first + " is " + shown + "; ";
    }
    return faults;
}

bool busNameOwned(const std::string& name) {
    return run("dbus-send --system --print-reply=literal --reply-timeout=300000 "
               "--dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner string:" +
               name)
               .find("true") != std::string::npos;
}

namespace {

/// Counts the lines of a command's output.
unsigned countLines(const std::string& commandLine) {
    return static_cast<unsigned>(std::stoul(run(commandLine + " 2> /dev/null | wc -l")));
}

}  // namespace

unsigned processes(const std::string& path) {
    return countLines("ls -l /proc/[0-9]*/exe | grep -- ' -> " + path + "$'");
}

unsigned zombies() { return countLines("grep -s '^State:.*Z' /proc/[0-9]*/status"); }

std::string fileContent(const std::string& path) {
    // Reading fails for a process that ends meanwhile. This operator treats that as the end of the
    // file; the stream's iterators throw.
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

bool waitFor(const std::function<bool()>& condition, unsigned milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

}  // namespace board
