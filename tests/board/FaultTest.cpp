// Faults of the controller and its attach tools. After each one the radio is switched off with the
// fault and on without it; then everything must work. The tests share one process, because it has
// one manager.

#include "Board.h"
#include "Faults.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char rfkill[] = "/usr/sbin/rfkill";

bool isWiringOne() { return board::wiring() == 1; }

std::string attachTool() { return isWiringOne() ? "/usr/bin/hciattach" : "/usr/bin/rtk_hciattach"; }

/// Checks that the lines match the expected ones, as far as those are given.
void expectRecords(const std::string& records, const std::vector<std::string>& expected) {
    std::size_t at = 0;
    for (const std::string& record : expected) {
        const std::size_t found = records.find("ERROR " + record, at);
        EXPECT_NE(found, std::string::npos) << record << "\nis missing or too early in\n"
                                            << records;
        at = found == std::string::npos ? at : found + 1;
    }
    std::size_t count = 0;
    for (at = 0; (at = records.find("ERROR ", at)) != std::string::npos; ++at) ++count;
    EXPECT_EQ(count, expected.size()) << records;
}

/// A fault, and how to repair it.
struct Trouble {
    const char* name;
    std::string breaks, mends;
    // Whether kernel and BlueZ already know, if they are told.
    bool (*isSeen)() = [] { return true; };
};

/// The kernel takes the reset for a hardware error: it logs that and restarts the controller.
bool isRestarted() {
    if (board::fileContent("/var/log/messages").find("hci0: hardware error") == std::string::npos) {
        return false;
    }
    std::this_thread::sleep_for(seconds(1));  // it comes down first
    return board::run("hciconfig hci0").find("UP RUNNING") != std::string::npos;
}

bool isOff() { return board::adapterProperty("Powered") == "false"; }

bool hasNoAdapter() { return board::adapterProperty("Powered").rfind("Error ", 0) == 0; }

const Trouble silence{"Silent", "peers radio silent", "peers radio normal"};
const Trouble refusals{"Refusing", "peers radio refuse", "peers radio normal"};
const Trouble aReset{"Resetting", "peers radio reset", "true", isRestarted};

struct BeforeRow : Trouble {
    bool hasDevice;      // hci0 exists despite the fault
    const char* reason;  // BlueZ's reason not to switch it on
};

class FaultBeforeBringUp : public Fault, public testing::WithParamInterface<BeforeRow> {};

}  // namespace

TEST_P(FaultBeforeBringUp, IsLoggedAndCuredByOffAndOn) {
    manager().setEnabled(false, false);
    onBoard(GetParam().breaks);
    records.clear();
    const auto start = steady_clock::now();
    manager().setEnabled(true, false);
    EXPECT_LT(steady_clock::now() - start, endsWithin);
    EXPECT_EQ(board::fileContent("/tmp/bluetoothEnabled"), "1");

    std::vector<std::string> expected{
        std::string("bluezAdapterSetProperty Powered failed : ") + GetParam().reason,
        "Not able to set Powered property to 1", "setBluetoothComponents : adapterActivate failed",
        "Can't set scan mode on hci"};
    if (!isWiringOne()) expected.insert(expected.begin(), "Timeout trying to bring up hci0");
    if (!GetParam().hasDevice) expected.emplace_back("Can't set MASTER mode on hci");
    expectRecords(records.errors(), expected);
    recoversAfter(GetParam().mends);
}

namespace {

constexpr char noAdapter[] = "GDBus.Error:org.freedesktop.DBus.Error.UnknownObject";

/// Replaces the attach tool.
std::string replacedBy(const std::string& script) {
    const std::string tool = attachTool();
    return "mv " + tool + " /tmp/tool; printf '#!/bin/sh\\n" + script + "\\n' > " + tool +
           "; chmod +x " + tool;
}

std::vector<BeforeRow> beforeRows() {
    const std::string tool = attachTool();
    const std::string putBack = "mv /tmp/tool " + tool;
    // An attach tool that asks the controller first creates no hci0 without its answer.
    return {{silence, isWiringOne(), noAdapter},
            {refusals, isWiringOne(), noAdapter},
            {{"NoAttachTool", "mv " + tool + " /tmp/tool", putBack}, false, noAdapter},
            {{"AttachToolHangs", replacedBy("exec sleep 3"), putBack}, false, noAdapter},
            {{"Blocked", std::string("rfkill block bluetooth; mv ") + rfkill + " /tmp/rfkill",
              std::string("mv /tmp/rfkill ") + rfkill},
             true,
             "GDBus.Error:org.bluez.Error.Failed"}};
}

/// A step's result and log records.
struct Outcome {
    bool works = true;
    const char* record = nullptr;
};

struct WhileOnRow : Trouble {
    Outcome power, scanMode, deviceClass, linkMode, search;
};

class FaultWhileOn : public Fault, public testing::WithParamInterface<WhileOnRow> {
protected:
    void expectOutcome(const char* step, bool works, const Outcome& expected) {
        EXPECT_EQ(works, expected.works) << step << "\n" << records.errors();
        if (expected.record == nullptr) {
            EXPECT_EQ(records.errors(), "") << step;
        } else {
            EXPECT_TRUE(records.has(log4cplus::ERROR_LOG_LEVEL, expected.record))
                << step << "\n"
                << records.errors();
        }
        records.clear();
    }
};

}  // namespace

TEST_P(FaultWhileOn, FailsTheStepsThatNeedTheController) {
    manager().setEnabled(true, false);
    records.clear();
    onBoard(GetParam().breaks);
    EXPECT_TRUE(board::waitFor(GetParam().isSeen));
    expectOutcome("power", manager().adapterActivate(true), GetParam().power);
    expectOutcome("scan mode", manager().adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE),
                  GetParam().scanMode);
    // It returns the previous class, which may be 0 after a reset.
    manager().adapterSetClass(0x2100);
    expectOutcome("class", records.errors().empty(), GetParam().deviceClass);
    expectOutcome("link mode", manager().preventRoleSwitch(), GetParam().linkMode);
    expectOutcome("search", manager().adapterScan(true), GetParam().search);
    recoversAfter(GetParam().mends);
}

namespace {

constexpr Outcome well{true, nullptr};
constexpr Outcome noPower{false, "Not able to set Powered property to 1"};
constexpr Outcome noScanMode{false, "Can't set scan mode on hci"};
constexpr Outcome noClass{false, "Can not read HCI class"};
constexpr Outcome noSearch{false, "Not able to scan for new devices"};

std::vector<WhileOnRow> whileOnRows() {
    const Trouble attachToolDies{
        "AttachToolDies", "killall -9 " + attachTool().substr(std::string("/usr/bin/").size()),
        "true", hasNoAdapter};
    // The kernel keeps the link mode, and BlueZ still considers a silent controller powered.
    return {{silence, well, noScanMode, noClass, well, noSearch},
            {refusals, well, noScanMode, noClass, well, noSearch},
            {aReset, well, well, well, well, well},
            {{"Blocked", "rfkill block bluetooth", "true", isOff},
             noPower,
             noScanMode,
             noClass,
             well,
             noSearch},
            {attachToolDies,
             noPower,
             noScanMode,
             {false, "Can not open the bluetooth device"},
             {false, "Can't set MASTER mode on hci"},
             noSearch}};
}

std::string nameOf(const testing::TestParamInfo<BeforeRow>& row) { return row.param.name; }
std::string nameOfLater(const testing::TestParamInfo<WhileOnRow>& row) { return row.param.name; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(Controller, FaultBeforeBringUp, testing::ValuesIn(beforeRows()), nameOf);
INSTANTIATE_TEST_SUITE_P(Controller, FaultWhileOn, testing::ValuesIn(whileOnRows()), nameOfLater);

TEST_F(Fault, VanishingControllerDuringBringUpIsCuredByOffAndOn) {
    manager().setEnabled(false, false);
    std::thread vanishing([] {
        EXPECT_TRUE(board::waitFor([] { return board::busNameOwned("org.bluez"); }));
        onBoard("peers radio vanish");
    });
    const auto start = steady_clock::now();
    manager().setEnabled(true, false);
    EXPECT_LT(steady_clock::now() - start, endsWithin);
    vanishing.join();
    recoversAfter("peers radio normal");
    manager().setEnabled(false, false);
}

int main(int argc, char** argv) {
    // GLib's warnings end the test: there must be none.
    setenv("G_DEBUG", "fatal-criticals", 1);
    unlink("/tmp/bluetoothEnabled");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
