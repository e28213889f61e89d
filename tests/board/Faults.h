#pragma once

#include "BoardTest.h"

#include <chrono>
#include <string>

/// Catches a call that hangs: none takes longer, even with all its timeouts on a busy machine.
constexpr std::chrono::minutes endsWithin{5};

/// A fault is cured by off, still with the fault, and on without it; then everything must work.
class Fault : public BoardTest {
protected:
    static void switchTo(bool on) {
        const auto start = std::chrono::steady_clock::now();
        manager().setEnabled(on, false);
        EXPECT_LT(std::chrono::steady_clock::now() - start, endsWithin);
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
