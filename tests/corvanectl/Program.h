#pragma once

#include "Folder.h"
#include "TestBus.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace corvane::test {

using Json = nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Words = std::vector<std::string>;

/// One device of each kind that the requests tell apart.
const Device phone{"00:11:22:33:44:01",        "Phone", 0x5A020C, false, false,
                   "bluetooth:v004CpABCDd0100"};
const Device speaker{"00:11:22:33:44:02", "Living room", 0x240414, true, false};
const Device keyboard{"00:11:22:33:44:03", "Keyboard", 0x000540, true, true};

/// How a run of corvanectl ended, and what it printed.
struct Ran {
    int status = -1;  // -1: ended by a signal
    std::string output;
    std::string errors;
};

std::string contentOf(const std::string& file);

/// A machine of the test's own: bus, services, files, shell. Waits are over at once.
class Corvanectl : public testing::Test {
protected:
    Corvanectl();

    /// The shell command that runs corvanectl on this machine.
    static std::string command(const Words& arguments);

    /// Runs it in the folder of its files, with arguments, and lines on standard input.
    /// @param redirection  of the shell
    Ran run(const Words& arguments, const std::string& input = "",
            const std::string& redirection = "") const;

    /// Runs it with --json. @return the objects
    std::vector<Json> json(Words arguments, const std::string& input = "") const;

    /// A file of the machine, see Preload.cpp.
    void write(const std::string& name, const std::string& text) const;

    /// The shell commands so far.
    std::string commands() const { return contentOf(root / "commands"); }

    void setIdentity(const std::string& text);

    PrivateBus bus;
    FakeBluez bluez{bus.address()};
    const Folder root;
};

}  // namespace corvane::test
