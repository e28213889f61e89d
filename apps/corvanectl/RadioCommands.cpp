#include "RadioWirings.h"
#include "Session.h"
#include "Text.h"
#include "hwcommon/fileUtil.h"

#include <thread>

namespace corvanectl {

namespace {

using corvane::hciDevice;

const char* onOrOff(bool on) { return on ? "on" : "off"; }

/// What the radio shows that is not as it was asked for. BlueZ and the kernel follow a moment
/// later: looks again while something is wrong.
std::vector<std::string> faults(Host& host, bool enable, int looks = 20) {
    std::vector<std::string> wrong;
    if (host.setting().value_or(!enable) != enable) {
        wrong.push_back(std::string("the setting still says ") + onOrOff(!enable));
    }
    if (host.isOnTheBus(bluezName) != enable) {
        wrong.emplace_back(enable ? "BlueZ is not on the bus" : "BlueZ is still on the bus");
    } else if (enable) {
        for (const std::string& fault : host.adapterFaults()) wrong.push_back(fault);
    } else if (hwcommon::fileUtil::exists(hciDevice)) {
        wrong.emplace_back("hci0 is still there");
    }
    if (wrong.empty() || looks == 1) return wrong;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return faults(host, enable, looks - 1);
}

Result switchTo(Session& session, bool enable, bool forced) {
    Host& host = session.host;
    session.showSteps();
    BluetoothManager& manager = host.manager();
    const bool already = host.setting() == enable;
    if (!already) manager.setEnabled(enable, forced);
    const std::vector<std::string> wrong = faults(host, enable);
    Result result;
    result.data = {{"already", already},
                   {"setting", onOrOff(host.setting().value_or(false))},
                   {"bluez", host.isOnTheBus(bluezName)},
                   {"adapter", hwcommon::fileUtil::exists(hciDevice)}};
    if (wrong.empty()) {
        result.text = std::string("Bluetooth is ") + (already ? "already " : "") + onOrOff(enable) +
                      (already ? "; nothing was done" : "");
        return result;
    }
    result.status = ExitStatus::incomplete;
    result.problem = (already ? std::string("already ") + onOrOff(enable) + " by the setting, yet "
                              : std::string("switched ") + onOrOff(enable) + ", but ") +
                     joined(wrong) + "; doctor examines the board, then try " + onOrOff(!enable) +
                     " and " + onOrOff(enable) + " again";
    return result;
}

}  // namespace

Result switchOn(Session& session, const Invocation& /*invocation*/) {
    return switchTo(session, true, false);
}

Result switchOff(Session& session, const Invocation& invocation) {
    return switchTo(session, false, !invocation.arguments.empty());
}

Result showStatus(Session& session, const Invocation& /*invocation*/) {
    Host& host = session.host;
    BluetoothManager& manager = host.manager();
    eepromXML& board = host.identity();
    const auto setting = host.setting();
    const bool adapter = hwcommon::fileUtil::exists(hciDevice);
    const bool bluez = host.isOnTheBus(bluezName);
    const bool hid = host.isOnTheBus(hidName);

    Result result;
    result.data = {{"setting", nullptr},
                   {"adapter", adapter},
                   {"bluez", bluez},
                   {"hid_service", hid},
                   {"model", GetModelNameStringExternal(board.GetModelType())},
                   {"serial", board.GetSerialNumberString(false)},
                   {"devices", nullptr}};
    if (setting) result.data["setting"] = onOrOff(*setting);
    std::string counts = "unknown, BlueZ is not on the bus";
    if (bluez) {
        host.refresh();
        const unsigned all = manager.getBluetoothDeviceListSize(ALL_DEVICES);
        const unsigned paired = manager.getBluetoothDeviceListSize(PAIRED_DEVICES);
        const unsigned connected = manager.getBluetoothDeviceListSize(CONNECTED_DEVICES);
        result.data["devices"] = {{"all", all}, {"paired", paired}, {"connected", connected}};
        counts = std::to_string(all) + " known, " + std::to_string(paired) + " paired, " +
                 std::to_string(connected) + " connected";
    }
    result.text =
        table({{"Setting:", setting ? onOrOff(*setting) : "off (not set since the last boot)"},
               {"Board:", escaped(host.boardName())},
               {"Adapter hci0:", adapter ? "there" : "not there"},
               {"BlueZ:", bluez ? "on the bus" : "not on the bus"},
               {"HID service:", hid ? "on the bus" : "not on the bus"},
               {"Devices:", counts}},
              2, 0);
    return result;
}

Result airplane(Session& session, const Invocation& invocation) {
    const bool on = invocation.arguments.front() == "on";
    Host& host = session.host;
    session.showSteps();
    host.manager().setAirplaneMode(on);
    host.inAirplaneMode = on;
    const bool adapter = hwcommon::fileUtil::exists(hciDevice);

    Result result;
    result.data = {{"airplane", onOrOff(on)}, {"adapter", adapter}};
    std::vector<std::string> wrong;
    if (host.errorCount() > 0) {
        wrong.push_back("the library logged " + counted(host.errorCount(), "error"));
    }
    if (on && adapter) wrong.emplace_back("hci0 is still there: switch off first");
    const std::string mode = std::string("irplane mode is ") + onOrOff(on);
    if (wrong.empty()) {
        result.text = "A" + mode;
    } else {
        result.status = ExitStatus::incomplete;
        result.problem = "a" + mode + ", but " + joined(wrong);
    }
    return result;
}

Result watchLog(Session& session, const Invocation& invocation) {
    const std::string& pattern = invocation.arguments.front();
    const std::string& timeout = invocation.arguments.back();
    Result inner;
    const bool found = session.host.manager().execAndWaitForSystemLog(
        [&] {
            inner = session.runQuietly(*invocation.inner);
            session.waitFor("Waiting for " + inQuotes(pattern),
                            std::chrono::milliseconds(std::stoul(timeout)));
            return inner.status == ExitStatus::success;
        },
        pattern, static_cast<unsigned>(std::stoul(timeout)));

    Result result;
    result.data = {{"found", found},
                   {"command",
                    {{"name", invocation.inner->command->name},
                     {"status", static_cast<int>(inner.status)},
                     {"result", inner.data}}}};
    result.text = inner.text;
    if (inner.status != ExitStatus::success) {
        result.status = inner.status;
        result.problem = std::string(invocation.inner->command->name) + ": " + inner.problem +
                         "; the log was not watched";
    } else if (found) {
        result.text += (inner.text.empty() ? "" : "\n") + std::string("Found ") + inQuotes(pattern);
    } else {
        result.status = ExitStatus::notLogged;
        result.problem = inQuotes(pattern) + " did not appear in " + corvane::systemLog +
                         " within " + timeout +
                         " ms; is it a pattern of grep, and does the system log run?";
    }
    return result;
}

}  // namespace corvanectl
