// Permissions on the system bus: only root and the group bluetooth may call the host's services.

#include "Board.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Caller {
    const char* name;
    const char* groups;  // setpriv's option
    bool mayCall;
};

class BusPolicy : public testing::TestWithParam<Caller> {
protected:
    /// Expects what dbus-send prints when this row's user runs it.
    static void expect(const std::string& part, const std::string& arguments) {
        const std::string reply = board::run(
            std::string("setpriv --reuid nobody --regid nogroup ") + GetParam().groups +
            " dbus-send --system --print-reply --reply-timeout=300000 --dest=org." + arguments);
        EXPECT_NE(reply.find(part), std::string::npos) << reply;
    }
};

constexpr char refused[] = "org.freedesktop.DBus.Error.AccessDenied";

}  // namespace

TEST_P(BusPolicy, OnlyTheGroupGetsTheIdentityAndNobodyMore) {
    const std::string service = "corvane.Hardware /org/corvane/Hardware org.";
    expect(GetParam().mayCall ? "<serial>" : refused,
           service + "corvane.Hardware1.GetHardwareInfo");
    expect(refused, service + "freedesktop.DBus.Introspectable.Introspect");
    // Nobody takes a service's place.
    for (const std::string name : {"org.corvane.Hardware", "org.corvane.BluetoothHid"}) {
        expect(refused,
               "freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.RequestName "
               "string:" +
                   name + " uint32:0");
    }
}

INSTANTIATE_TEST_SUITE_P(Callers, BusPolicy,
                         testing::Values(Caller{"Stranger", "--clear-groups", false},
                                         Caller{"GroupMember", "--groups bluetooth", true}),
                         [](const auto& row) { return std::string(row.param.name); });
