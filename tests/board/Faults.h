#pragma once

#include "BoardTest.h"

#include <string>

/// A fault is cured by off, still with the fault, and on without it; then everything must work.
class Fault : public BoardTest {
protected:
    static void switchTo(bool on) {
        manager().setEnabled(on, false);
        EXPECT_EQ(board::fileContent(flagFile), on ? "1" : "0");
    }

    /// @param mend  the command that repairs the fault
    void recoversAfter(const std::string& mend = "true") {
        switchTo(false);
        onBoard(mend);
        records.clear();
        switchTo(true);
        expectSwitchedOn();
        records.clear();
    }
};
