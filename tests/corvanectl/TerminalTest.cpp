#include "Program.h"

#include <cstdlib>
#include <regex>
#include <utility>

#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {
namespace {

/// A program on a pseudo-terminal.
class Terminal {
public:
    explicit Terminal(const std::string& command, int columns = 100) {
        const std::string line = "exec " + command;
        const winsize size{24, static_cast<unsigned short>(columns), 0, 0};
        pid = forkpty(&master, nullptr, nullptr, &size);
        if (pid != 0) return;
        alarm(300);  // ends it when it hangs
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    ~Terminal() {
        close(master);  // hangs up
        waitpid(pid, nullptr, 0);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Types, then waits until a text has come behind what earlier calls have found; again and
    /// again.
    void talk(const std::vector<std::pair<std::string, std::string>>& dialogue) {
        for (const auto& [typed, shown] : dialogue) {
            ASSERT_EQ(write(master, typed.data(), typed.size()),
                      static_cast<ssize_t>(typed.size()));
            while (screen.find(shown, seen) == std::string::npos) {
                ASSERT_TRUE(readMore()) << "no \"" << shown << "\" in:\n" << screen;
            }
            seen = screen.find(shown, seen) + shown.size();
        }
    }

    /// Waits until it waits for input: a signal that comes a moment earlier does not end libedit's
    /// read.
    void awaitRead() const {
        const std::string state = "/proc/" + std::to_string(pid) + "/stat";
        while (contentOf(state).find(") S") == std::string::npos) usleep(1000);
    }

    /// Waits for its end. @return the exit status, -1 after a signal
    int end() {
        while (readMore()) {
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string screen;  // all that came so far

private:
    bool readMore() {
        char buffer[4096];
        const ssize_t got = read(master, buffer, sizeof buffer);
        if (got > 0) screen.append(static_cast<const char*>(buffer), static_cast<std::size_t>(got));
        return got > 0;
    }

    pid_t pid = -1;
    int master = -1;
    std::size_t seen = 0;
};

constexpr char interrupt[] = "\x03";

TEST_F(Corvanectl, ShellRunsCommandsAndShowsTheRadiosState) {
    bluez.release("org.bluez");
    Terminal shell(command({}));
    shell.talk({{"", "corvane (off)> "},
                {"on\r", "hci0 is up."},  // a step, from the library's log
                {"", "Bluetooth is on"},
                {"", "corvane (on)> "},
                {"nonsense\r", "unknown command"},
                {"", "corvane (on)> "},
                {"\x04", ""}});
    EXPECT_EQ(shell.end(), 0);
    bluez.release("org.corvane.Hardware");
    Terminal(command({})).talk({{"", "no board identity"}, {"", "corvane (no board)> "}});
}

TEST_F(Corvanectl, ShellCompletesCommandsChoicesAndDeviceNames) {
    bluez.setDevices({phone, speaker, {keyboard.address, "Living room 2"}});
    Terminal shell(command({}));
    // The quote that the name needs comes by itself; what two names share stops before they differ.
    shell.talk({{"", "> "},
                {"devi\t\r", "Living room 2"},
                {"airplane o\t\t", "off  on"},
                {"\025find Liv\t", "\"Living room"},
                {"\"\r", "0x240414"},
                {"", "> "},
                {"quit\r", ""}});
    EXPECT_EQ(shell.end(), 0);
    // The history: the line before quit, from the run before.
    Terminal(command({})).talk({{"", "> "}, {"\x10\x10\r", "0x240414"}});
}

TEST_F(Corvanectl, CtrlCCancelsTheRequestAndASecondOneLeaves) {
    unsetenv("CORVANE_TEST_HURRY");
    Terminal shell(command({}));
    shell.talk({{"", "> "},
                {"wait-pair Phone\r", "Waiting for pairing"},
                {"", "s left"},
                {interrupt, "\"Phone\" was cancelled\r\n"},
                {"", "> "},
                {"half a line", "half a line"}});
    shell.awaitRead();
    shell.talk({{interrupt, "Ctrl-C again leaves"},
                {"", "> "},
                {"cancel\r", "No request is running"},
                {"", "> "},
                {"wait-pair Phone\r", "Waiting for pairing"},
                {"cancel\rdevices\r", "was cancelled"},
                {"", "Living room"},  // typed ahead, and run
                {"", "> "}});
    // A request that does not answer: its bus call never ends.
    bluez.ignore(speaker.path(), "Connect");
    shell.talk({{"connect \"Living room\"\r", "Connecting"}});
    // Cancelled before its thread has started it would answer at once.
    while (bluez.countCalls("Device1.Connect ") == 0) usleep(1000);
    shell.talk({{interrupt, "Cancelling"}, {interrupt, ""}});
    EXPECT_EQ(shell.end(), 130);
}

TEST_F(Corvanectl, CtrlCEndsASequenceOfCommands) {
    unsetenv("CORVANE_TEST_HURRY");
    Terminal sequence(command({"scan", "devices"}));
    sequence.talk({{"", "s left"}, {interrupt, "the scan was cancelled"}});
    EXPECT_EQ(sequence.end(), 12);
    EXPECT_THAT(sequence.screen, Not(HasSubstr("Living room")));
}

TEST_F(Corvanectl, SaysWhatACommandWaitsFor) {
    unsetenv("CORVANE_TEST_HURRY");
    bluez.ignore(phone.path(), "Pair");
    Terminal(command({"pair", "Phone"})).talk({{"", "pair  2 s"}});
    setIdentity("<identity><model>6</model><family>3</family><serial>S</serial></identity>");
    std::filesystem::remove(root / "hci0");
    Terminal(command({"status"})).talk({{"", "Waiting for the Wi-Fi's /sys/class/net/wlan0"}});
}

TEST_F(Corvanectl, TablesKeepNamesWholeInANarrowTerminal) {
    unsetenv("CORVANE_TEST_HURRY");  // no progress within the lines
    bluez.setDevices({{phone.address, "A loudspeaker", 0x240414, true, true}});
    for (const int columns : {80, 40}) {
        Terminal terminal(command({"devices"}), columns);
        EXPECT_EQ(terminal.end(), 0);
        EXPECT_THAT(terminal.screen, HasSubstr(" A loudspeaker"));
        EXPECT_THAT(terminal.screen, HasSubstr(columns == 80 ? "room for KIND" : "room for FLAGS"));
        const std::regex tooLong(".{" + std::to_string(columns + 1) + "}");
        EXPECT_FALSE(std::regex_search(terminal.screen, tooLong)) << terminal.screen;
    }
}

}  // namespace
}  // namespace corvane::test
