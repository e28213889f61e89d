#pragma once

#include "Folder.h"
#include "TestBus.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace corvane::test {

/// How a run of corvanectl ended, and what it printed.
struct Ran {
    int status = -1;
    std::string output;
    std::string errors;

    /// The lines of the output, each parsed.
    std::vector<nlohmann::json> json() const;
};

/// corvanectl on a pseudo-terminal.
class Terminal {
public:
    Terminal(const std::vector<std::string>& arguments, unsigned short columns);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(const std::string& text);
    void interrupt() { type("\x03"); }

    /// Waits until the text has come, behind what earlier calls have found.
    testing::AssertionResult shows(const std::string& text);

    /// Waits until the program waits for input: a signal that comes a moment earlier does not end
    /// libedit's read.
    bool waits() const;

    /// Waits for the end. @return the exit status, -1 when it does not come
    int end();

    /// All that came so far.
    const std::string& screen() const { return all; }

private:
    bool readMore();

    pid_t pid = -1;
    int master = -1;
    std::string all;
    std::size_t seen = 0;
};

/// A machine of the test's own: bus, services, files, shell.
class Corvanectl : public testing::Test {
protected:
    Corvanectl();

    /// Runs it with arguments, and lines on standard input.
    /// @param script  shell script that runs it as "$@"
    Ran run(const std::vector<std::string>& arguments, const std::string& input = "",
            const std::string& script = "\"$@\"");

    static auto onTerminal(const std::vector<std::string>& arguments,
                           unsigned short columns = 100) {
        return std::make_unique<Terminal>(arguments, columns);
    }

    /// A file of the machine. An empty text removes it.
    void write(const std::string& path, const std::string& text);
    std::string read(const std::string& path) const;

    /// The shell commands so far.
    std::string commands() const { return read("commands"); }

    void setIdentity(const std::string& text);

    /// What the adapter shows, each as a variant in GVariant's text form.
    void setAdapter(const std::string& powered, const std::string& pairable,
                    const std::string& alias);

    PrivateBus bus;
    FakeBluez bluez{bus.address()};
    const Folder folder;
    const std::filesystem::path& root = folder.path();
};

/// One device of each kind that the requests tell apart.
extern const Device phone;
extern const Device speaker;
extern const Device keyboard;

}  // namespace corvane::test
