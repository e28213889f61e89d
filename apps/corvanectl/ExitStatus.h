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
    const char* name;  ///< as in the field "outcome" of --json
};

constexpr std::array<ExitStatusRow, 18> exitStatusRows{{
    {ExitStatus::success, "success"},
    {ExitStatus::unexpected, "unexpected"},
    {ExitStatus::usage, "usage"},
    {ExitStatus::noBus, "no-bus"},
    {ExitStatus::badSetting, "bad-setting"},
    {ExitStatus::noIdentity, "no-identity"},
    {ExitStatus::refused, "refused"},
    {ExitStatus::noDevice, "no-device"},
    {ExitStatus::incomplete, "incomplete"},
    {ExitStatus::busy, "busy"},
    {ExitStatus::requestTimeout, "request-timeout"},
    {ExitStatus::requestCancelled, "request-cancelled"},
    {ExitStatus::requestConnectFailed, "request-connect-failed"},
    {ExitStatus::requestFailed, "request-failed"},
    {ExitStatus::requestDeviceNotFound, "request-device-not-found"},
    {ExitStatus::notLogged, "not-logged"},
    {ExitStatus::boardUnfit, "board-unfit"},
    {ExitStatus::interrupted, "interrupted"},
}};

}  // namespace corvanectl
