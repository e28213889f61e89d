// Permissions on the system bus: only root and the group bluetooth may call the host's services.

#include "Board.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

TEST(BusPolicy, OnlyTheGroupGetsTheIdentity) {
    constexpr char refused[] = "org.freedesktop.DBus.Error.AccessDenied";
    const std::string hardware = "corvane.Hardware /org/corvane/Hardware org.";
    for (const auto& [groups, mayCall] :
         {std::pair{"--clear-groups", false}, {"--groups bluetooth", true}}) {
        const auto expect = [&, groups = groups](const std::string& part, const std::string& call) {
            const std::string reply = board::run(
                std::string("setpriv --reuid nobody --regid nogroup ") + groups +
                " dbus-send --system --print-reply --reply-timeout=300000 --dest=org." + call);
            EXPECT_NE(reply.find(part), std::string::npos) << groups << ": " << reply;
        };
        expect(mayCall ? "<serial>" : refused, hardware + "corvane.Hardware1.GetHardwareInfo");
        expect(refused, hardware + "freedesktop.DBus.Introspectable.Introspect");
        // Neither may take a service's name.
        for (const std::string name : {"Hardware", "BluetoothHid"}) {
            expect(refused,
                   "freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.RequestName "
                   "string:org.corvane." +
                       name + " uint32:0");
        }
    }
}
