#include "ManagerTest.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/stat.h>

using namespace corvane::test;
using namespace testing;

namespace {

/// The adapter settings that were tried, in order.
std::string settings(const std::vector<std::string>& events) {
    const std::vector<std::pair<const char*, const char*>> names{
        {"'Powered'", "power "},
        {".RegisterAgent", "agent "},
        {"RequestDefaultAgent", "default "},
        {"0x400448DD", "scan "},
        {"'Alias'", "name "},
        {"'Pairable'", "pairable "},
        {"'PairableTimeout'", "timeout "},
        {"hci_write_class", "class "},
        {"0x400448E2", "link "}};
    std::string result;
    for (const std::string& event : events) {
        for (const auto& [text, name] : names) {
            if (event.find(text) != std::string::npos) result += name;
        }
    }
    return result;
}

}  // namespace

class BringUp : public ManagerTest {};

TEST_F(BringUp, ContinuesAsFarAsEachFailureAllows) {
    constexpr char everything[] = "power agent default scan name pairable timeout class link ";
    constexpr char unpairable[] =
        "setBluetoothComponents : failed to configure pairable properties";
    const struct {
        const char* failing;  // a call to BlueZ or, with a small letter, to the controller
        bool result;
        const char* tried;
        std::size_t errors;
        const char* lastError = "";
    } rows[]{
        {"Nothing", true, everything, 0},
        {"Set Powered", true, everything, 3, "setBluetoothComponents : adapterActivate failed"},
        {"RegisterAgent", false, "power agent link ", 2, "Not able to register agent"},
        {"ioctl", false, "power agent default scan link ", 2, "Can't set MASTER mode on hci"},
        {"Set Alias", false, "power agent default scan name link ", 2,
         "Not able to set Alias property"},
        {"Set Pairable", false, "power agent default scan name pairable class link ", 3,
         unpairable},
        {"Set PairableTimeout", false, everything, 3, unpairable},
        {"hci_write_class_of_dev", true, everything, 1, "Can not set HCI class"}};
    manager();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failing);
        forget();
        bluez.fail("*", row.failing, "org.bluez.Error.Failed", "No", 1);
        edges().failingHci = {row.failing};
        EXPECT_EQ(manager().setBluetoothComponents(true), row.result);
        EXPECT_EQ(settings(happened({Kind::BUS, Kind::HCI})), row.tried);
        EXPECT_EQ(errors().size(), row.errors);
        EXPECT_EQ(row.errors > 0 ? errors().back() : "", row.lastError);
        EXPECT_EQ(log().front(), "DEBUG setBluetoothComponents : 1");
    }
}

class Stack : public ManagerTest {};

TEST_F(Stack, BringUpContinuesWithoutTheBusNames) {
    edges().missingNames = {"org.bluez", "org.freedesktop.DBus"};
    EXPECT_TRUE(manager().setBluetoothComponents(true)) << "BlueZ is late, but answers";
    EXPECT_THAT(log(), ElementsAre("DEBUG setBluetoothComponents : 1", "INFO hci0 is up.",
                                   "ERROR setBluetoothDaemon : Cannot start bluetooth daemon!",
                                   "ERROR setBluetoothComponents : setBluetoothDaemon failed",
                                   "ERROR setBluetoothComponents : "
                                   "waitUntilDBusNameExist(FREEDESKTOP_DBUS_NAME) failed",
                                   "DEBUG Successfully set Powered property to 1"));
    EXPECT_EQ(edges().log()[2].function, "bool BluetoothManager::setBluetoothDaemon(bool)");
}

TEST_F(Stack, TearDownOfEverythingReturnsFalseButOfTheDaemonTrue) {
    EXPECT_TRUE(manager().setBluetoothDaemon(false));
    EXPECT_FALSE(manager().setBluetoothComponents(false));
    EXPECT_THAT(log(), ElementsAre("DEBUG setBluetoothComponents : 0",
                                   "DEBUG setBluetoothComponents : Disabling all..",
                                   "DEBUG Successfully set Powered property to 0"));
}

TEST_F(Stack, ProductFamilyOneRunsNoAudioBridgeAndModelNameStaysOneShellWord) {
    useBoard(2, 1);
    edges().modelName = "Bob's; reboot '";
    manager().setBluetoothServices(true);
    manager().setBluetoothServices(false);
    EXPECT_THAT(happened({Kind::SHELL}),
                ElementsAre("start-stop-daemon -S -b -q -m -p /var/run/hw_bluez_hid.pid -x "
                            "/bin/hw_bluez_hid 7 'Bob'\\''s; reboot '\\''' --no-close;",
                            "/sbin/kill_and_wait.sh hw_bluez_hid;"));
}

class SystemLogWatcher : public ManagerTest {
protected:
    SystemLogWatcher() {
        manager();
        Clock::stop();
    }

    bool watch(const std::string& pattern, unsigned timeout, bool act = true) {
        return manager().execAndWaitForSystemLog(
            [act] {
                edges().note(Kind::SHELL, "action");
                return act;
            },
            pattern, timeout);
    }

    std::vector<std::string> events() { return happened({Kind::SHELL, Kind::SLEEP, Kind::LOG}); }

    const std::string snapshot = "cp /var/log/messages /tmp/messages_ref";
    const std::string poll = "popen r diff /var/log/messages /tmp/messages_ref | grep 'up'";
};

TEST_F(SystemLogWatcher, PollsEveryQuarterOfASecondUntilItFinds) {
    edges().pipes = {std::nullopt, std::string(5000, 'x')};
    edges().interruptedReads = 2;
    EXPECT_TRUE(watch("up", 1000));
    EXPECT_THAT(events(),
                ElementsAre(snapshot, "action", poll,
                            "ERROR execAndWaitForSystemLog command failed: " + poll.substr(8),
                            "wait 250", poll, "TRACE execAndWaitForSystemLog found : up", "pclose"))
        << "an interrupted read continues, a failed one does not end the wait";
}

TEST_F(SystemLogWatcher, TimesOutAfterTheLimitCountedFromTheCall) {
    EXPECT_FALSE(watch("up", 500));
    EXPECT_THAT(events(),
                ElementsAre(snapshot, "action", poll, "pclose", "wait 250", poll, "pclose",
                            "wait 250", poll, "pclose", "wait 250", poll, "pclose",
                            "ERROR execAndWaitForSystemLog : Timeout while waiting for 'up' in "
                            "/var/log/messages"))
        << "500 ms are not yet beyond 500";
    EXPECT_EQ(edges().log()[0].function,
              "bool BluetoothManager::execAndWaitForSystemLog(std::function<bool()>, std::string, "
              "unsigned int)");

    forget();
    edges().onShell = [](const std::string&) { Clock::advance(std::chrono::milliseconds(1)); };
    EXPECT_FALSE(watch("up", 0));
    EXPECT_THAT(happened({Kind::SLEEP}), IsEmpty()) << "the time for the snapshot counts";
}

TEST_F(SystemLogWatcher, SkipsTheWaitWhenTheActionSaysSo) {
    EXPECT_FALSE(watch("up", 1000, false));
    EXPECT_THAT(events(), ElementsAre(snapshot, "action",
                                      "TRACE execAndWaitForSystemLog log monitoring skipped: up"));
    EXPECT_THROW(manager().execAndWaitForSystemLog(nullptr, "up", 1000), std::bad_function_call);
}

TEST_F(SystemLogWatcher, EndsWithoutARecordWhenTheManagerGoes) {
    edges().notifiedAtWait = 1;
    EXPECT_FALSE(watch("up", 60000));
    EXPECT_THAT(events(), ElementsAre(snapshot, "action", poll, "pclose", "wait 250", poll,
                                      "pclose", "wait 250"));
}

/// With a system log and real commands.
class SystemLogFile : public SystemLogWatcher {
protected:
    SystemLogFile() {
        manager();
        edges().folder = folder;
        write("messages", "old: the line\n");
    }
    ~SystemLogFile() override { edges().folder.clear(); }

    void write(const std::string& name, const std::string& text,
               std::ios_base::openmode mode = std::ios_base::trunc) {
        std::ofstream(folder / name, mode) << text;
    }
    std::string read(const std::string& name) {
        std::ifstream file(folder / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// Tells whether the pattern is found after the action has changed the log.
    bool finds(const std::string& pattern, const std::function<void()>& action) {
        const auto act = [&action] {
            action();
            return true;
        };
        return manager().execAndWaitForSystemLog(act, pattern, 300);
    }

    const Folder ownFolder;
    const std::filesystem::path& folder = ownFolder.path();
};

TEST_F(SystemLogFile, MayBeReplacedOrMissingDuringAWait) {
    EXPECT_TRUE(finds("it came", [this] { write("messages", "it came\n", std::ios_base::app); }));
    EXPECT_FALSE(finds("it came", [] {})) << "that line is old now";

    const auto rotate = [this](const std::string& text) {
        std::filesystem::rename(folder / "messages", folder / "messages.1");
        if (!text.empty()) write("messages", text);
    };
    EXPECT_TRUE(finds("new line", [&] { rotate("the new line\n"); }));
    EXPECT_FALSE(finds("newer", [&] { rotate(""); })) << "there is no log for a while";
    write("messages", "old: the line\n");
    EXPECT_TRUE(finds("old: the line", [&] { rotate("something else\n"); }))
        << "lines that are gone differ from the snapshot too";
    EXPECT_FALSE(finds("it came", [this] { write("messages", std::string("\0it came\n", 9)); }))
        << "diff treats a log with a zero byte, as after a power cut, as binary";
    EXPECT_EQ(errors().size(), 3U);
}

TEST_F(SystemLogFile, MatchesNothingWithoutASnapshot) {
    const auto reappear = [this] { write("messages", "old: the line\n"); };
    std::filesystem::remove(folder / "messages");
    EXPECT_FALSE(finds("old: the line", reappear)) << "it is not new";
    EXPECT_FALSE(std::filesystem::exists(folder / "messages_ref"));
    write("messages", "");
    EXPECT_TRUE(finds("old: the line", reappear)) << "the copy of an empty log is a snapshot";
    EXPECT_FALSE(finds("old: the line", [] {}));
    std::filesystem::remove(folder / "messages");
    EXPECT_FALSE(finds("old: the line", reappear));
    EXPECT_EQ(read("messages_ref"), "old: the line\n") << "an earlier copy stays";
}

TEST_F(SystemLogFile, IsSearchedForPatternsWithQuotes) {
    const auto log = [this](const std::string& line) {
        return [this, line] { write("messages", line + "\n", std::ios_base::app); };
    };
    EXPECT_TRUE(finds("Bob's", log("Bob's phone")));
    const std::string harm = "'; touch " + (folder / "harm").string() + "; echo '";
    EXPECT_FALSE(finds(harm, log("Bob's tablet")));
    EXPECT_FALSE(std::filesystem::exists(folder / "harm"));
}

TEST_F(SystemLogFile, IsNeverCopiedThroughAPlantedLinkOrPipe) {
    const auto snapshotIsGood = [this] {
        edges().forget();
        return finds("it came", [this] {
            EXPECT_EQ(read("messages_ref"), read("messages"));
            write("messages", "it came\n", std::ios_base::app);
        });
    };
    write("victim", "untouched");
    std::filesystem::create_symlink(folder / "victim", folder / "messages_ref");
    EXPECT_TRUE(snapshotIsGood());
    std::filesystem::remove(folder / "messages_ref");
    std::filesystem::create_hard_link(folder / "victim", folder / "messages_ref");
    EXPECT_TRUE(snapshotIsGood());
    std::filesystem::remove(folder / "messages_ref");
    ASSERT_EQ(mkfifo((folder / "messages_ref").c_str(), 0666), 0);
    EXPECT_TRUE(snapshotIsGood());
    EXPECT_TRUE(std::filesystem::is_regular_file(folder / "messages_ref"));
    EXPECT_EQ(read("victim"), "untouched");
    EXPECT_THAT(errors(), IsEmpty());

    std::filesystem::remove(folder / "messages_ref");
    std::filesystem::create_directory(folder / "messages_ref");
    EXPECT_FALSE(finds("it came", [] {}));
    EXPECT_TRUE(std::filesystem::is_empty(folder / "messages_ref"));
    EXPECT_THAT(errors(), Contains("execAndWaitForSystemLog command failed: diff /var/log/messages "
                                   "/tmp/messages_ref | grep 'it came'"));
}
