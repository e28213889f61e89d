#pragma once

#include <array>

namespace corvanectl {

/// How a command, and with it the process, ends: one number for each kind of failure. The numbers
/// are an interface that scripts rely on: new ones are added, none is reused.
enum class ExitStatus : int {
    success = 0,
    unexpected = 1,
    usage = 2,
    noBus = 3,
    badSetting = 4,
    noIdentity = 5,
    refused = 6,
    noDevice = 7,
    incomplete = 8,
    busy = 9,
    // 10 plus the request's answer
    requestTimeout = 11,
    requestCancelled = 12,
    requestConnectFailed = 13,
    requestFailed = 14,
    requestDeviceNotFound = 15,
    notLogged = 16,
    boardUnfit = 17,
    interrupted = 130,  // as shells report an end by Ctrl-C
};

struct ExitStatusRow {
    ExitStatus status;
    const char* name;     ///< as in the field "outcome" of --json
    const char* meaning;  ///< for help and manual
};

constexpr std::array<ExitStatusRow, 18> exitStatusRows{{
    {ExitStatus::success, "success", "Every command did its work."},
    {ExitStatus::unexpected, "unexpected", "An error that corvanectl has no number for."},
    {ExitStatus::usage, "usage",
     "An option, a command or an argument is unknown, missing or malformed. Nothing was run when "
     "it stands on the command line."},
    {ExitStatus::noBus, "no-bus", "The system bus cannot be reached."},
    {ExitStatus::badSetting, "bad-setting",
     "The flag file /tmp/bluetoothEnabled holds no number. Nothing was switched."},
    {ExitStatus::noIdentity, "no-identity",
     "The hardware service does not tell which board this is. The radio was not touched."},
    {ExitStatus::refused, "refused", "BlueZ or the library refused the operation."},
    {ExitStatus::noDevice, "no-device", "No device of that name is in the list concerned."},
    {ExitStatus::incomplete, "incomplete",
     "Switching on or off, or airplane mode, went through with errors."},
    {ExitStatus::busy, "busy", "Another request is still running."},
    {ExitStatus::requestTimeout, "request-timeout", "The request answered: timeout."},
    {ExitStatus::requestCancelled, "request-cancelled", "The request answered: cancelled."},
    {ExitStatus::requestConnectFailed, "request-connect-failed",
     "The request answered: paired, but not connected."},
    {ExitStatus::requestFailed, "request-failed",
     "The request answered: failed. A request that is cancelled may end so, too."},
    {ExitStatus::requestDeviceNotFound, "request-device-not-found",
     "The request answered: not among the paired devices after pairing."},
    {ExitStatus::notLogged, "not-logged", "The pattern did not turn up in the system log in time."},
    {ExitStatus::boardUnfit, "board-unfit", "doctor found something that has to be mended."},
    {ExitStatus::interrupted, "interrupted", "Left by Ctrl-C."},
}};

constexpr const char* nameOf(ExitStatus status) {
    for (const ExitStatusRow& row : exitStatusRows) {
        if (row.status == status) return row.name;
    }
    return "unexpected";
}

}  // namespace corvanectl
