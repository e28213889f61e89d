#include "Help.h"

#include "Groups.h"
#include "Session.h"

#include <algorithm>
#include <utility>

namespace corvanectl {

namespace {

std::string usageOf(const Command& command) {
    const std::string synopsis = synopsisOf(command);
    return command.name + (synopsis.empty() ? "" : " " + synopsis);
}

/// Lines of two columns.
std::string columns(const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::string text;
    for (const auto& [left, right] : rows) {
        text.append("  ").append(left).append(width - left.size() + 2, ' ');
        text.append(right).append("\n");
    }
    return text;
}

}  // namespace

std::string commandsHelp() {
    std::vector<std::pair<std::string, std::string>> names;
    names.reserve(commands().size());
    for (const Command& command : commands()) names.emplace_back(usageOf(command), command.help);
    std::vector<std::pair<std::string, std::string>> statuses;
    statuses.reserve(exitStatusRows.size());
    for (const ExitStatusRow& row : exitStatusRows) {
        statuses.emplace_back(std::to_string(static_cast<int>(row.status)), row.meaning);
    }
    return "Commands:\n" + columns(names) + "\nExit status, that of the first failure:\n" +
           columns(statuses);
}

Result showHelp(Session& /*session*/, const Invocation& invocation) {
    Result result;
    if (invocation.arguments.empty()) {
        result.text = commandsHelp();
        result.text.pop_back();
        result.data["commands"] = Json::array();
        for (const Command& command : commands()) {
            result.data["commands"].push_back(
                {{"usage", usageOf(command)}, {"help", command.help}});
        }
        return result;
    }
    const Command& command = *findCommand(invocation.arguments.front());
    result.text = usageOf(command) + "\n  " + command.help;
    if (*command.details != '\0') result.text += std::string("\n  ") + command.details;
    result.data = {
        {"usage", usageOf(command)}, {"help", command.help}, {"details", command.details}};
    return result;
}

Result quit(Session& session, const Invocation& /*invocation*/) {
    session.stop();
    return {};
}

}  // namespace corvanectl
