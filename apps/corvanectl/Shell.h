#pragma once

#include "LineSource.h"
#include "Session.h"

namespace corvanectl {

/// The interactive shell: runs the commands of the terminal on standard input until its user
/// leaves. The prompt shows the radio's state; commands and device names are completed; the history
/// is kept in ~/.corvanectl_history.
/// @param input  reads the same terminal, for what is typed while a command runs
void runShell(Session& session, LineSource& input);

/// A completion of the word that ends at the end of `line`.
struct Completion {
    std::size_t wordStart = 0;            ///< where in the line that word begins
    std::vector<std::string> candidates;  ///< complete words, in quotes where they need them
};

/// What may stand in place of the last word. Device names are those of the last scan.
Completion complete(Session& session, const std::string& line);

}  // namespace corvanectl
