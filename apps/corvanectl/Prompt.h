#pragma once

#include "Session.h"

namespace corvanectl {

/// The interactive shell: runs the commands of the terminal on standard input until its user
/// leaves. The prompt shows the radio's state; commands and device names are completed; the history
/// is kept in ~/.corvanectl_history.
/// @param input  reads the same terminal, for what is typed while a command runs
void runShell(Session& session, LineSource& input);

}  // namespace corvanectl
