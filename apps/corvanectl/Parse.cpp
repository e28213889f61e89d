#include "Parse.h"

#include "Text.h"

#include <algorithm>
#include <deque>

namespace corvanectl {

namespace {

using Words = std::deque<std::string>;

Failure wrong(const std::string& text) { return {ExitStatus::usage, text}; }

Failure wrongUse(const Command& command, const std::string& text) {
    return wrong(text + "; use: " + command.name + " " + synopsisOf(command));
}

std::string take(Words& words) {
    std::string word = std::move(words.front());
    words.pop_front();
    return word;
}

/// How many letters to change, add or leave out to make one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    for (std::size_t j = 0; j <= to.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t changed = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, changed}));
        }
    }
    return row.back();
}

std::string unknownCommand(const std::string& name) {
    if (!name.empty() && name.front() == '-') {
        return "unknown command " + inQuotes(name) + "; options stand before the first command";
    }
    const auto& table = commands();
    const auto nearest =
        std::min_element(table.begin(), table.end(), [&](const Command& a, const Command& b) {
            return distance(name, a.name) < distance(name, b.name);
        });
    std::string text = "unknown command " + inQuotes(name) + "; ";
    if (distance(name, nearest->name) <= 2) {
        text += std::string("did you mean ") + nearest->name + "? ";
    }
    return text + "help lists the commands";
}

Invocation takeCommand(Words& words);

void takeWatch(Invocation& invocation, Words& words) {
    const Command& command = *invocation.command;
    if (words.size() < 3) throw wrongUse(command, "watch-log: an argument is missing");
    invocation.arguments = {take(words), take(words)};
    const std::string& timeout = invocation.arguments.back();
    // Nine digits: more than eleven days, and sure to fit.
    if (timeout.empty() || timeout.size() > 9 ||
        !std::all_of(timeout.begin(), timeout.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        throw wrongUse(command, "watch-log: TIMEOUT " + inQuotes(timeout) +
                                    " is no number of milliseconds below 1000000000");
    }
    if (words.front() != "--") {
        throw wrongUse(command,
                       "watch-log: " + inQuotes(words.front()) + " stands where -- has to");
    }
    words.pop_front();
    if (words.empty()) throw wrongUse(command, "watch-log: the command is missing");
    invocation.inner = std::make_shared<const Invocation>(takeCommand(words));
    if (invocation.inner->command == nullptr) {
        throw wrongUse(command, "watch-log: the command is missing");
    }
}

/// Takes a command's name and its arguments, or a whole line, from the front.
Invocation takeCommand(Words& words) {
    const std::string name = take(words);
    if (name.find_first_of(" \t") != std::string::npos) return parseLine(name);
    Invocation invocation;
    invocation.command = findCommand(name);
    if (invocation.command == nullptr) throw wrong(unknownCommand(name));
    const Command& command = *invocation.command;
    const auto isOwnWord = [&](const std::string& word) {
        const auto choices = choicesOf(command);
        return std::find(choices.begin(), choices.end(), word) != choices.end();
    };
    switch (command.takes) {
        case Takes::nothing:
            break;
        case Takes::choice:
            if (words.empty()) throw wrongUse(command, name + ": the argument is missing");
            if (!isOwnWord(words.front())) {
                throw wrongUse(command, name + ": unknown argument " + inQuotes(words.front()));
            }
            invocation.arguments.push_back(take(words));
            break;
        case Takes::optionalChoice:
            if (!words.empty() && isOwnWord(words.front())) {
                invocation.arguments.push_back(take(words));
            }
            break;
        case Takes::optionalCommand:
            if (!words.empty()) {
                if (findCommand(words.front()) == nullptr) {
                    throw wrong(unknownCommand(words.front()));
                }
                invocation.arguments.push_back(take(words));
            }
            break;
        case Takes::knownDevice:
        case Takes::pairedDevice:
        case Takes::connectedDevice:
            if (words.empty() || words.front().empty()) {
                throw wrongUse(command, name + ": the device's name is missing");
            }
            invocation.arguments.push_back(take(words));
            break;
        case Takes::watch:
            takeWatch(invocation, words);
            break;
    }
    return invocation;
}

}  // namespace

Invocation parseLine(const std::string& line) {
    const std::vector<std::string> split = splitWords(line);
    Words words(split.begin(), split.end());
    if (words.empty() || words.front().compare(0, 1, "#") == 0) return {};
    Invocation invocation = takeCommand(words);
    if (!words.empty()) {
        const Command& command = *invocation.command;
        throw wrongUse(command, std::string(command.name) + ": " + inQuotes(words.front()) +
                                    " is one argument too many; a name with blanks stands in "
                                    "quotes");
    }
    return invocation;
}

std::vector<Invocation> parseArguments(const std::vector<std::string>& arguments) {
    std::vector<Invocation> result;
    Words words(arguments.begin(), arguments.end());
    while (!words.empty()) {
        Invocation invocation = takeCommand(words);
        if (invocation.command != nullptr) result.push_back(std::move(invocation));
    }
    return result;
}

}  // namespace corvanectl
