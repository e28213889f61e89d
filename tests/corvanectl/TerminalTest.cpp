#include "Program.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include <unistd.h>

namespace corvane::test {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

TEST_F(Corvanectl, ShellRunsCommandsAndShowsTheRadiosState) {
    bluez.release("org.bluez");
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("corvane (off)> "));
    shell->type("on\r");
    ASSERT_TRUE(shell->shows("hci0 is up."));  // a step, from the library's log
    ASSERT_TRUE(shell->shows("Bluetooth is on"));
    ASSERT_TRUE(shell->shows("corvane (on)> "));
    shell->type("nonsense\r");
    ASSERT_TRUE(shell->shows("unknown command"));
    shell->type("find Nobody\r");
    ASSERT_TRUE(shell->shows("no device named"));
    ASSERT_TRUE(shell->shows("corvane (on)> "));
    shell->type("\x04");
    EXPECT_EQ(shell->end(), 0);
}

TEST_F(Corvanectl, ShellCompletesCommandsChoicesAndDeviceNames) {
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("> "));
    shell->type("devi\t\r");
    ASSERT_TRUE(shell->shows("Living room"));
    shell->type("airplane o\t");
    ASSERT_TRUE(shell->shows("off\r\non"));
    shell->type(
        "\x15"
        "find Liv\t\r");
    ASSERT_TRUE(shell->shows("0x240414"));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("\x10\r");  // the history's last
    ASSERT_TRUE(shell->shows("0x240414"));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("quit\r");
    EXPECT_EQ(shell->end(), 0);

    const auto later = onTerminal({});
    ASSERT_TRUE(later->shows("> "));
    later->type("\x10\x10\r");  // the one before quit, from the run before
    ASSERT_TRUE(later->shows("0x240414"));
}

TEST_F(Corvanectl, CtrlCCancelsTheRequestAndASecondOneLeaves) {
    setenv("CORVANE_TEST_SPEED", "0", 1);
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("> "));
    shell->type("scan\r");
    ASSERT_TRUE(shell->shows("Scanning"));
    ASSERT_TRUE(shell->shows("s left"));
    shell->interrupt();
    ASSERT_TRUE(shell->shows("the scan "));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("half a line");
    shell->interrupt();
    ASSERT_TRUE(shell->shows("Ctrl-C again leaves"));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("cancel\r");
    ASSERT_TRUE(shell->shows("No request is running"));
    ASSERT_TRUE(shell->shows("> "));

    shell->type("wait-pair Phone\r");
    ASSERT_TRUE(shell->shows("Waiting for pairing"));
    shell->type("cancel\rdevices\r");
    ASSERT_TRUE(shell->shows("REQUEST_"));
    ASSERT_TRUE(shell->shows("Living room"));  // typed ahead, and run
    ASSERT_TRUE(shell->shows("> "));

    // A request that does not answer: its bus call never ends.
    bluez.ignore(speaker.path(), "Connect");
    shell->type("connect \"Living room\"\r");
    ASSERT_TRUE(shell->shows("Connecting"));
    // Cancelled before its thread has started it would answer at once.
    while (bluez.countCalls("Device1.Connect ") == 0) usleep(1000);
    shell->interrupt();
    ASSERT_TRUE(shell->shows("Cancelling"));
    shell->interrupt();
    EXPECT_EQ(shell->end(), 130);
}

TEST_F(Corvanectl, CtrlCEndsASequenceOfCommands) {
    setenv("CORVANE_TEST_SPEED", "0", 1);
    const auto sequence = onTerminal({"scan", "devices"});
    ASSERT_TRUE(sequence->shows("s left"));
    sequence->interrupt();
    EXPECT_THAT(sequence->end(), AnyOf(12, 14));
    EXPECT_THAT(sequence->screen(), Not(HasSubstr("Living room")));
}

TEST_F(Corvanectl, ShellGoesOnWithoutABoard) {
    bluez.release("org.corvane.Hardware");
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("no board identity"));
    ASSERT_TRUE(shell->shows("corvane (no board)> "));
    shell->type("doctor\r");
    ASSERT_TRUE(shell->shows("-> start the hardware service"));
}

TEST_F(Corvanectl, TablesFitTheTerminalAsItIsNow) {
    bluez.setDevices({{phone.address, std::string(100, 'n'), 0x5A020C}});
    const auto shell = onTerminal({}, 120);
    ASSERT_TRUE(shell->shows("> "));
    shell->resize(70);
    shell->type("devices\r");
    ASSERT_TRUE(shell->shows("nnn"));
    ASSERT_TRUE(shell->shows("> "));
    const std::string& screen = shell->screen();
    const std::size_t start = screen.find("ADDRESS");
    const std::size_t end = screen.find("corvane (", start);
    std::size_t width = 0;
    for (std::size_t i = start; i < end; ++i) {
        width = screen[i] == '\n' || screen[i] == '\r' ? 0 : width + 1;
        EXPECT_LE(width, 70U);
    }
}

}  // namespace
}  // namespace corvane::test
