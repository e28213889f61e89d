// Faults of the controller and its attach tools. After each one the radio is switched off with the
// fault and on without it; then everything must work.

#include "Faults.h"

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char rfkill[] = "/usr/sbin/rfkill";

bool isWiringOne() { return board::wiring() == 1; }

std::string attachTool() { return isWiringOne() ? "/usr/bin/hciattach" : "/usr/bin/rtk_hciattach"; }

/// Expects these ERROR records, in order; each may have more text.
void expectRecords(const std::string& records, const std::vector<std::string>& expected) {
    std::istringstream lines(records);
    std::string line;
    for (const std::string& record : expected) {
        EXPECT_TRUE(std::getline(lines, line) && line.rfind("ERROR " + record, 0) == 0)
            << record << "\nis not the next in\n"
            << records;
    }
    EXPECT_FALSE(std::getline(lines, line)) << records;
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
    std::this_thread::sleep_for(std::chrono::seconds(1));  // it comes down first
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
    switchTo(true);

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

/// For each step its ERROR record; null if the step works.
struct WhileOnRow : Trouble {
    const char *power, *scanMode, *deviceClass, *linkMode, *search;
};

class FaultWhileOn : public Fault, public testing::WithParamInterface<WhileOnRow> {
protected:
    void expectOutcome(bool works, const char* record) {
        EXPECT_EQ(works, record == nullptr) << records.errors();
        EXPECT_EQ(records.errors().empty(), record == nullptr) << records.errors();
        if (record != nullptr) {
            EXPECT_TRUE(records.has(std::string("ERROR ") + record)) << records.errors();
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
    expectOutcome(manager().adapterActivate(true), GetParam().power);
    expectOutcome(manager().adapterSetDiscoverableMode(SCAN_MODE_INQUIRY_AND_PAGE),
                  GetParam().scanMode);
    // It returns the previous class, which may be 0 after a reset.
    manager().adapterSetClass(0x2100);
    expectOutcome(records.errors().empty(), GetParam().deviceClass);
    expectOutcome(manager().preventRoleSwitch(), GetParam().linkMode);
    expectOutcome(manager().adapterScan(true), GetParam().search);
    recoversAfter(GetParam().mends);
}

namespace {

constexpr char noPower[] = "Not able to set Powered property to 1";
constexpr char noScanMode[] = "Can't set scan mode on hci";
constexpr char noClass[] = "Can not read HCI class";
constexpr char noDevice[] = "Can not open the bluetooth device";
constexpr char noLinkMode[] = "Can't set MASTER mode on hci";
constexpr char noSearch[] = "Not able to scan for new devices";

std::vector<WhileOnRow> whileOnRows() {
    const Trouble block{"Blocked", "rfkill block bluetooth", "true", isOff};
    const Trouble attachToolDies{
        "AttachToolDies", "killall -9 " + attachTool().substr(std::string("/usr/bin/").size()),
        "true", hasNoAdapter};
    // The kernel keeps the link mode, and BlueZ still considers a silent controller powered.
    return {{silence, nullptr, noScanMode, noClass, nullptr, noSearch},
            {refusals, nullptr, noScanMode, noClass, nullptr, noSearch},
            {aReset, nullptr, nullptr, nullptr, nullptr, nullptr},
            {block, noPower, noScanMode, noClass, nullptr, noSearch},
            {attachToolDies, noPower, noScanMode, noDevice, noLinkMode, noSearch}};
}

template <class Row>
std::string nameOf(const testing::TestParamInfo<Row>& row) {
    return row.param.name;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Controller, FaultBeforeBringUp, testing::ValuesIn(beforeRows()),
                         nameOf<BeforeRow>);
INSTANTIATE_TEST_SUITE_P(Controller, FaultWhileOn, testing::ValuesIn(whileOnRows()),
                         nameOf<WhileOnRow>);

TEST_F(Fault, VanishingControllerDuringBringUpIsCuredByOffAndOn) {
    manager().setEnabled(false, false);
    std::thread vanishing([] {
        EXPECT_TRUE(board::waitFor([] { return board::busNameOwned("org.bluez"); }));
        onBoard("peers radio vanish");
    });
    switchTo(true);
    vanishing.join();
    recoversAfter("peers radio normal");
    manager().setEnabled(false, false);
}
