#include "Program.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <sstream>

#include <unistd.h>

namespace corvane::test {
namespace {

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
    ASSERT_TRUE(shell->shows("corvane (on)> "));
    shell->type("\x04");
    EXPECT_EQ(shell->end(), 0);
}

TEST_F(Corvanectl, ShellCompletesCommandsChoicesAndDeviceNames) {
    bluez.setDevices({phone, speaker, {keyboard.address, "Living room 2"}});
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("> "));
    shell->type("devi\t\r");
    ASSERT_TRUE(shell->shows("Living room 2"));
    shell->type("airplane o\t\t");
    ASSERT_TRUE(shell->shows("off  on"));
    // The quote that the name needs comes by itself; what two names share stops before they differ.
    shell->type(
        "\x15"
        "find Liv\t");
    ASSERT_TRUE(shell->shows("\"Living room"));
    shell->type("\"\r");
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
    ASSERT_TRUE(shell->shows("the scan was cancelled\r\n"));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("half a line");
    ASSERT_TRUE(shell->shows("half a line"));
    ASSERT_TRUE(shell->waits());
    shell->interrupt();
    ASSERT_TRUE(shell->shows("Ctrl-C again leaves"));
    ASSERT_TRUE(shell->shows("> "));
    shell->type("cancel\r");
    ASSERT_TRUE(shell->shows("No request is running"));
    ASSERT_TRUE(shell->shows("> "));

    shell->type("wait-pair Phone\r");
    ASSERT_TRUE(shell->shows("Waiting for pairing"));
    shell->type("cancel\rdevices\r");
    ASSERT_TRUE(shell->shows("was cancelled"));
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
    EXPECT_EQ(sequence->end(), 12);
    EXPECT_THAT(sequence->screen(), Not(HasSubstr("Living room")));
}

TEST_F(Corvanectl, ShellGoesOnWithoutABoard) {
    bluez.release("org.corvane.Hardware");
    const auto shell = onTerminal({});
    ASSERT_TRUE(shell->shows("no board identity"));
    ASSERT_TRUE(shell->shows("corvane (no board)> "));
}

TEST_F(Corvanectl, SaysWhatACommandWaitsFor) {
    setenv("CORVANE_TEST_SPEED", "1", 1);
    setIdentity("<identity><model>6</model><family>3</family><serial>S</serial></identity>");
    std::filesystem::remove(root / "sys/class/bluetooth/hci0");
    ASSERT_TRUE(onTerminal({"status"})->shows("Waiting for the Wi-Fi's /sys/class/net/wlan0"));
    bluez.ignore(phone.path(), "Pair");
    std::filesystem::create_directory(root / "sys/class/bluetooth/hci0");
    EXPECT_TRUE(onTerminal({"pair", "Phone"})->shows("pair  2 s"));
}

TEST_F(Corvanectl, TablesKeepNamesWholeInANarrowTerminal) {
    bluez.setDevices({{phone.address, "A loudspeaker", 0x240414, true, true}});
    const std::vector<std::pair<unsigned short, std::string>> missing{
        {80, "KIND, VENDOR, PRODUCT"}, {40, "FLAGS, KIND, VENDOR, PRODUCT"}};
    for (const auto& [columns, headings] : missing) {
        const auto terminal = onTerminal({"devices"}, columns);
        EXPECT_EQ(terminal->end(), 0);
        EXPECT_THAT(terminal->screen(), HasSubstr(" A loudspeaker"));
        EXPECT_THAT(terminal->screen(), HasSubstr("(no room for " + headings.substr(0, 11)));
        std::istringstream lines(terminal->screen());
        for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), columns + 1U);
    }
}

}  // namespace
}  // namespace corvane::test
