#pragma once

#include "BluetoothManager.h"

#include "Board.h"
#include "Records.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

/// Catches a call that never ends: none takes longer, with all its own time limits and on a machine
/// that is busy otherwise.
constexpr std::chrono::minutes endsWithin{5};

/// A fault's end: off, still with the fault, and on without it; then all must be well.
class Fault : public testing::Test {
protected:
    static BluetoothManager& manager() { return BluetoothManager::getInstance(); }

    /// Runs commands that print only what goes wrong.
    static void onBoard(const std::string& commandLine) { EXPECT_EQ(board::run(commandLine), ""); }

    /// @param mend  what ends the fault, if it does not end by itself
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
