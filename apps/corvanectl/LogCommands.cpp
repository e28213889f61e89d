#include "Groups.h"
#include "Session.h"
#include "Text.h"

#include <charconv>

namespace corvanectl {

Result watchLog(Session& session, const Invocation& invocation) {
    const std::string& pattern = invocation.arguments.front();
    const std::string& digits = invocation.arguments.back();
    unsigned timeout = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), timeout);
    // Either would end it early in the shell's command line.
    if (pattern.find_first_of(std::string("'\0", 2)) != std::string::npos) {
        throw Failure(ExitStatus::usage,
                      "PATTERN " + inQuotes(pattern) +
                          " holds a single quote or a zero byte; write . in its place");
    }
    Result inner;
    const bool found = session.manager().execAndWaitForSystemLog(
        [&] {
            inner = session.runQuietly(*invocation.inner);
            return inner.status == ExitStatus::success;
        },
        pattern, timeout);

    Result result;
    result.data["found"] = found;
    result.data["command"] = {{"name", invocation.inner->command->name},
                              {"status", static_cast<int>(inner.status)},
                              {"result", inner.data}};
    result.text = inner.text;
    if (inner.status != ExitStatus::success) {
        result.status = inner.status;
        result.problem = std::string(invocation.inner->command->name) + ": " + inner.problem +
                         "; the log was not watched";
    } else if (found) {
        result.text += (inner.text.empty() ? "" : "\n") + std::string("Found ") + inQuotes(pattern);
    } else {
        result.status = ExitStatus::notLogged;
        result.problem = inQuotes(pattern) + " did not turn up in /var/log/messages within " +
                         digits + " ms; is it a pattern of grep, and does the system log run?";
    }
    return result;
}

}  // namespace corvanectl
