// corvanectl doctor on a healthy board, then with one fault after another, each named with its
// remedy. Each row repairs what it breaks.

#include "Board.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string doctor() { return board::run("corvanectl doctor 2>&1; echo status $?"); }

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct Fault {
    const char* name;
    const char* breaks;
    const char* mends;
    const char* found;
    const char* remedy;
};

class Doctor : public testing::TestWithParam<Fault> {};

#define MODULE "/usr/lib/modules/$(uname -r)/kernel/net/bluetooth/rfcomm/rfcomm.ko"
// A missing module is a problem only while it is not loaded, as an earlier program may have left
// it.
#define UNLOAD "modprobe -r rfcomm; "
#define DAEMON "/usr/libexec/bluetooth/bluetoothd"

}  // namespace

TEST_P(Doctor, FindsTheFaultAndNamesItsRemedy) {
    const std::string before = doctor();
    ASSERT_TRUE(holds(before, "\n0 problems, ") && holds(before, "status 0\n")) << before;
    board::run(GetParam().breaks);
    std::string report;
    EXPECT_TRUE(board::waitFor([&report] {
        report = doctor();
        return holds(report, GetParam().found);
    })) << report;
    board::run(GetParam().mends);
    EXPECT_TRUE(holds(report, std::string("\n        -> ") + GetParam().remedy)) << report;
    EXPECT_TRUE(holds(report, "\n1 problem, ") && holds(report, "status 17\n")) << report;
    EXPECT_TRUE(board::waitFor([] { return holds(doctor(), "\n0 problems, "); }));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, Doctor,
    testing::Values(Fault{"NoModule", UNLOAD "mv " MODULE " /tmp", "mv /tmp/rfcomm.ko " MODULE,
                          "rfcomm.ko (serial connections): No such file", "install the modules"},
                    Fault{"CompressedModule", UNLOAD "mv " MODULE " " MODULE ".xz",
                          "mv " MODULE ".xz " MODULE, "only compressed, as .xz", "unpack it"},
                    Fault{"NoSerialLine", "mv /dev/ttyS1 /dev/away", "mv /dev/away /dev/ttyS1",
                          "PROBLEM /dev/ttyS1 (the controller's serial line): No such file",
                          "enable the serial port"},
                    Fault{"WrongSerialLine", "mv /dev/ttyS1 /dev/away; touch /dev/ttyS1",
                          "mv -f /dev/away /dev/ttyS1",
                          "/dev/ttyS1 (the controller's serial line): not a char",
                          "enable the serial port"},
                    Fault{"NoBluezDaemon", "mv " DAEMON " /tmp", "mv /tmp/bluetoothd " DAEMON,
                          "PROBLEM " DAEMON, "install BlueZ"},
                    Fault{"Blocked", "corvanectl on > /dev/null 2>&1; rfkill block bluetooth",
                          "rfkill unblock bluetooth; corvanectl off",
                          "(blocks a radio): blocked by software", "rfkill unblock bluetooth"}),
    [](const auto& row) { return std::string(row.param.name); });
