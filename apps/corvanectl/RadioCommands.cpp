#include "Groups.h"
#include "Session.h"
#include "Table.h"
#include "Text.h"
#include "hwcommon/fileUtil.h"

#include <algorithm>

namespace corvanectl {

namespace {

constexpr char flagFile[] = "/tmp/bluetoothEnabled";
constexpr char adapter[] = "/sys/class/bluetooth/hci0";
constexpr char bluez[] = "org.bluez";
constexpr char hidService[] = "org.corvane.BluetoothHid";

const char* onOrOff(bool on) { return on ? "on" : "off"; }

/// How many of the errors count against the command.
std::size_t countingErrors(const LoggedErrors& errors, bool poweredExpected) {
    if (!poweredExpected) return errors.total;
    // Where BlueZ does not run, powering the adapter down has to fail, in two records.
    const auto expected =
        std::count_if(errors.first.begin(), errors.first.end(), [](const LogRecord& record) {
            return record.message.find("Powered") != std::string::npos;
        });
    return errors.total - static_cast<std::size_t>(expected);
}

std::string loggedErrors(std::size_t number) {
    return "the library logged " + std::to_string(number) + (number == 1 ? " error" : " errors");
}

Result switchTo(Session& session, bool enable, bool forced) {
    BluetoothManager& manager = session.manager();
    const bool before = session.setting();
    const bool bluezBefore = session.isOnTheBus(bluez);
    const bool already = hwcommon::fileUtil::exists(flagFile) && before == enable;

    Result result;
    result.data["already"] = already;
    if (!already) {
        session.showSteps();
        manager.setEnabled(enable, forced);
    }
    const bool bluezAfter = session.isOnTheBus(bluez);
    const bool setting = session.setting();
    result.data["setting"] = onOrOff(setting);
    result.data["bluez"] = bluezAfter;

    const std::size_t errors = countingErrors(session.errors(), !enable && !bluezBefore);
    std::vector<std::string> wrong;
    if (errors > 0) wrong.push_back(loggedErrors(errors));
    if (setting != enable)
        wrong.push_back(std::string("the setting still says ") + onOrOff(setting));
    if (bluezAfter != enable) {
        wrong.emplace_back(enable ? "BlueZ is not on the bus" : "BlueZ is still on the bus");
    }
    if (wrong.empty()) {
        result.text = std::string("Bluetooth is ") + (already ? "already " : "") + onOrOff(enable) +
                      (already ? "; nothing was done" : "");
        return result;
    }
    result.status = ExitStatus::incomplete;
    result.problem = (already ? std::string("already ") + onOrOff(enable) + " by the setting, yet "
                              : std::string("switched ") + onOrOff(enable) + ", but ") +
                     joined(wrong) +
                     (enable ? "; doctor examines the board, then try off and on again"
                             : "; doctor examines the board, then try on and off again");
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
    BluetoothManager& manager = session.manager();
    const eepromXML& board = session.identity();
    const bool set = hwcommon::fileUtil::exists(flagFile);
    const bool setting = session.setting();
    const bool adapterThere = hwcommon::fileUtil::exists(adapter);
    const bool bluezThere = session.isOnTheBus(bluez);
    const bool hidThere = session.isOnTheBus(hidService);
    const std::string model = GetModelNameStringExternal(board.GetModelType());
    const std::string serial = board.GetSerialNumberString(true);
    if (bluezThere) session.refresh();

    Result result;
    result.data["setting"] = set ? onOrOff(setting) : "never set";
    result.data["adapter"] = adapterThere;
    result.data["bluez"] = bluezThere;
    result.data["hid_service"] = hidThere;
    putName(result.data, "model", model);
    putName(result.data, "serial", serial);
    std::string counts = "unknown, BlueZ is not on the bus";
    if (bluezThere) {
        const auto count = [&](BluetoothDeviceListType type) {
            return manager.getBluetoothDeviceListSize(type);
        };
        result.data["devices"] = {{"all", count(ALL_DEVICES)},
                                  {"paired", count(PAIRED_DEVICES)},
                                  {"connected", count(CONNECTED_DEVICES)}};
        counts = std::to_string(count(ALL_DEVICES)) + " known, " +
                 std::to_string(count(PAIRED_DEVICES)) + " paired, " +
                 std::to_string(count(CONNECTED_DEVICES)) + " connected";
    }
    result.text = pairs({{"Setting", set ? onOrOff(setting) : "off (not set since the last boot)"},
                         {"Board", escaped(model) + (serial.empty() ? "" : " " + escaped(serial))},
                         {"Adapter hci0", adapterThere ? "there" : "not there"},
                         {"BlueZ", bluezThere ? "on the bus" : "not on the bus"},
                         {"HID service", hidThere ? "on the bus" : "not on the bus"},
                         {"Devices", counts}});
    return result;
}

Result airplane(Session& session, const Invocation& invocation) {
    const bool on = invocation.arguments.front() == "on";
    BluetoothManager& manager = session.manager();
    session.showSteps();
    manager.setAirplaneMode(on);
    session.noteAirplane(on);
    const bool adapterThere = hwcommon::fileUtil::exists(adapter);

    Result result;
    result.data["airplane"] = onOrOff(on);
    result.data["adapter"] = adapterThere;
    const std::size_t errors = session.errors().total;
    std::vector<std::string> wrong;
    if (errors > 0) wrong.push_back(loggedErrors(errors));
    if (on && adapterThere) wrong.emplace_back("hci0 is still there: switch off first");
    if (wrong.empty()) {
        result.text = std::string("Airplane mode is ") + onOrOff(on);
        return result;
    }
    result.status = ExitStatus::incomplete;
    result.problem = std::string("airplane mode is ") + onOrOff(on) + ", but " + joined(wrong);
    return result;
}

}  // namespace corvanectl
