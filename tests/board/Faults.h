#pragma once

#include "BluetoothManager.h"

#include "Board.h"
#include "Records.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

/// Catches a call that hangs: none takes longer, even with all its timeouts on a busy machine.
constexpr std::chrono::minutes endsWithin{5};

/// A fault is cured by off, still with the fault, and on without it; then everything must work.
class Fault : public testing::Test {
protected:
    static BluetoothManager& manager() { return BluetoothManager::getInstance(); }

    /// Runs commands that print only errors.
    static void onBoard(const std::string& commandLine) { EXPECT_EQ(board::run(commandLine), ""); }

    /// @param mend  the command that repairs the fault; empty if it ends by itself
    void recoversAfter(const std::string& mend = "true") {
        const auto start = std::chrono::steady_clock::now();
        manager().setEnabled(false, false);
        EXPECT_LT(std::chrono::steady_clock::now() - start, endsWithin);
        EXPECT_EQ(board::fileContent("/tmp/bluetoothEnabled"), "0");
        onBoard(mend);
        records.clear();
        manager().setEnabled(true, false);
        expectSwitchedOn(records);
        records.clear();
    }

    Records records;
};
