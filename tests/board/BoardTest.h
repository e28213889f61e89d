#pragma once

#include "BluetoothManager.h"

#include "Board.h"
#include "Records.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <gtest/gtest.h>

#include <string>

constexpr char flagFile[] = "/tmp/bluetoothEnabled";

/// A host's HID proxy, which lives as long as the host.
hwcommon::DBusBluetoothHidProxy* hidService();

/// Tests with the one manager of the process, which they share, and the records of each.
class BoardTest : public testing::Test {
protected:
    static BluetoothManager& manager() { return BluetoothManager::getInstance(); }

    /// Runs commands that print only errors.
    static void onBoard(const std::string& commandLine) { EXPECT_EQ(board::run(commandLine), ""); }

    /// Expects that the radio was switched on without a fault and the adapter is as it should be.
    void expectSwitchedOn() const;

    Records records;
};
