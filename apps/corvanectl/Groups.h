#pragma once

#include "Command.h"

namespace corvanectl {

// The functions of the table's rows, by the file that holds them.

// RadioCommands.cpp
Result switchOn(Session& session, const Invocation& invocation);
Result switchOff(Session& session, const Invocation& invocation);
Result showStatus(Session& session, const Invocation& invocation);
Result airplane(Session& session, const Invocation& invocation);

// DeviceCommands.cpp
Result listDevices(Session& session, const Invocation& invocation);
Result findDevice(Session& session, const Invocation& invocation);
Result pairDevice(Session& session, const Invocation& invocation);
Result trustDevice(Session& session, const Invocation& invocation);
Result forgetDevice(Session& session, const Invocation& invocation);

// RequestCommands.cpp
Result scan(Session& session, const Invocation& invocation);
Result connectDevice(Session& session, const Invocation& invocation);
Result disconnectDevice(Session& session, const Invocation& invocation);
Result waitForPairing(Session& session, const Invocation& invocation);
Result cancelNothing(Session& session, const Invocation& invocation);

// LogCommands.cpp
Result watchLog(Session& session, const Invocation& invocation);

// Doctor.cpp
Result examineBoard(Session& session, const Invocation& invocation);

// Help.cpp
Result showHelp(Session& session, const Invocation& invocation);
Result quit(Session& session, const Invocation& invocation);

}  // namespace corvanectl
