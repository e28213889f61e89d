#include "BoardTest.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <iostream>

#include <unistd.h>

hwcommon::DBusBluetoothHidProxy* hidService() {
    static const auto connection = sdbus::createSystemBusConnection();
    static hwcommon::DBusBluetoothHidProxy proxy(*connection);
    return &proxy;
}

void BoardTest::expectSwitchedOn() const {
    EXPECT_EQ(records.faults(), "");
    EXPECT_EQ(board::fileContent(flagFile), "1");
    EXPECT_EQ(board::adapterFaults(), "") << records.errors();
}

int main(int argc, char** argv) {
    // GLib's warnings end the test: there must be none.
    setenv("G_DEBUG", "fatal-criticals", 1);
    unlink(flagFile);
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::cout.flush();
    // After a request, destroying the manager ends in std::terminate(), so leave as hosts do.
    std::quick_exit(status);
}
