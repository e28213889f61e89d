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
    /// Returns the output of dbus-send, run by this row's user.
    static std::string send(const std::string& arguments) {
        return board::run(std::string("setpriv --reuid nobody --regid nogroup ") +
                          GetParam().groups +
                          " dbus-send --system --print-reply --reply-timeout=300000 " + arguments);
    }
};

constexpr char refused[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char service[] = "--dest=org.corvane.Hardware /org/corvane/Hardware ";

}  // namespace

TEST_P(BusPolicy, OnlyTheGroupGetsTheIdentity) {
    const std::string reply = send(std::string(service) + "org.corvane.Hardware1.GetHardwareInfo");
    EXPECT_EQ(reply.find("<serial>") != std::string::npos, GetParam().mayCall) << reply;
    EXPECT_EQ(reply.find(refused) != std::string::npos, !GetParam().mayCall) << reply;
}

TEST_P(BusPolicy, NobodyGetsMoreThanTheIdentity) {
    const std::string reply =
        send(std::string(service) + "org.freedesktop.DBus.Introspectable.Introspect");
    EXPECT_NE(reply.find(refused), std::string::npos) << reply;
}

TEST_P(BusPolicy, NobodyTakesAServicesPlace) {
    for (const char* name : {"org.corvane.Hardware", "org.corvane.BluetoothHid"}) {
        const std::string reply = send(
            "--dest=org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.RequestName "
            "string:" +
            std::string(name) + " uint32:0");
        EXPECT_NE(reply.find(refused), std::string::npos) << reply;
    }
}

INSTANTIATE_TEST_SUITE_P(Callers, BusPolicy,
                         testing::Values(Caller{"Stranger", "--clear-groups", false},
                                         Caller{"GroupMember", "--groups bluetooth", true}),
                         [](const auto& row) { return std::string(row.param.name); });
