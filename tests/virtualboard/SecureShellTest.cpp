#include "SecureShell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class SecureShell : public testing::Test {
protected:
    SecureShell() {
        fs::create_directory(folder);
        // Runs the command here, as the board's shell does there.
        std::ofstream(folder / "ssh") << "#!/bin/sh\nfor last; do :; done\nexec sh -c \"$last\"\n";
        fs::permissions(folder / "ssh", fs::perms::owner_all);
    }
    ~SecureShell() override {
        setenv("PATH", path.c_str(), 1);
        fs::remove_all(folder);
    }

    void useStandIn() const { setenv("PATH", (folder.string() + ":" + path).c_str(), 1); }

    int run(const std::vector<std::string>& command) {
        ssh.start(command, false, folder / "output");
        for (;;) {
            if (const auto status = ssh.status()) return *status;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::string output() const {
        std::ostringstream text;
        text << std::ifstream(folder / "output").rdbuf();
        return text.str();
    }

    const std::string path = getenv("PATH");
    const fs::path folder = fs::path(testing::TempDir()) / ("ssh-" + std::to_string(getpid()));
    board::SecureShell ssh{folder / "key", folder / "log"};
};

TEST_F(SecureShell, PassesWordsUnchangedAndReturnsTheStatus) {
    useStandIn();
    EXPECT_EQ(run({"printf", "%s|", "it's", "$HOME *", "", "a\nb"}), 0);
    EXPECT_EQ(output(), "it's|$HOME *||a\nb|");
    EXPECT_EQ(run({"sh", "-c", "exit 255"}), 255);
    EXPECT_EQ(run({"no such program"}), 127);
}

TEST_F(SecureShell, TellsItsOwnFailureFromTheCommands) {
    // Nobody listens on the reserved port.
    try {
        run({"true"});
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("Connection refused"));
    }
}

}  // namespace
