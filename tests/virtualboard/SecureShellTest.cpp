#include "Folder.h"
#include "SecureShell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

class SecureShell : public testing::Test {
protected:
    int run(const std::vector<std::string>& command) {
        ssh.start(command, false, folder / "output");
        std::optional<int> status;
        while (!(status = ssh.status())) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return *status;
    }

    corvane::test::Folder folder;
    board::SecureShell ssh{folder / "key", folder / "log"};
};

TEST_F(SecureShell, PassesWordsUnchangedAndReturnsTheStatus) {
    // Runs the command here, as the board's shell does there.
    std::ofstream(folder / "ssh") << "#!/bin/sh\nfor last; do :; done\nexec sh -c \"$last\"\n";
    std::filesystem::permissions(folder / "ssh", std::filesystem::perms::owner_all);
    const std::string path = std::getenv("PATH");
    setenv("PATH", (folder.path().string() + ":" + path).c_str(), 1);
    EXPECT_EQ(run({"printf", "%s|", "it's", "$HOME *", "", "a\nb"}), 0);
    std::ifstream output(folder / "output");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(output), {}), "it's|$HOME *||a\nb|");
    EXPECT_EQ(run({"sh", "-c", "exit 255"}), 255);
    EXPECT_EQ(run({"no such program"}), 127);
    setenv("PATH", path.c_str(), 1);
}

TEST_F(SecureShell, TellsItsOwnFailureFromTheCommands) {
    // Nobody listens on the reserved port.
    EXPECT_THAT([this] { run({"true"}); }, testing::ThrowsMessage<std::runtime_error>(
                                               testing::HasSubstr("Connection refused")));
}

}  // namespace
