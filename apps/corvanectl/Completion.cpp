#include "Parse.h"
#include "Shell.h"
#include "Text.h"

#include <algorithm>

namespace corvanectl {

namespace {

/// The word as splitWords() reads it back, in quotes only where it needs them.
std::string asWord(const std::string& text) {
    const bool plain =
        !text.empty() && text.front() != '#' && std::all_of(text.begin(), text.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                   c == ':' || c == '_' || c == '-' || c == '.';
        });
    return plain ? text : inQuotes(text);
}

/// Where the last word begins: behind the last blank outside quotes.
std::size_t lastWordOf(const std::string& line) {
    std::size_t start = 0;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && quote != '\'') {
            ++i;
        } else if (quote != '\0') {
            if (c == quote) quote = '\0';
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == ' ') {
            start = i + 1;
        }
    }
    return start;
}

std::vector<std::string> commandNames() {
    std::vector<std::string> names;
    for (const Command& command : commands()) names.emplace_back(command.name);
    return names;
}

std::vector<std::string> deviceNames(Session& session, BluetoothDeviceListType type) {
    if (!session.managerIsUp()) return {};
    return session.manager().getBluetoothDeviceListNames(type);
}

/// What may follow the words.
std::vector<std::string> continuations(Session& session, const std::vector<std::string>& words) {
    if (words.empty()) return commandNames();
    const Command* const command = findCommand(words.front());
    if (command == nullptr) return {};
    if (command->takes == Takes::watch) {
        const auto separator = std::find(words.begin(), words.end(), "--");
        if (separator == words.end()) return {};
        return continuations(session, {separator + 1, words.end()});
    }
    if (words.size() > 1) return {};
    switch (command->takes) {
        case Takes::choice:
        case Takes::optionalChoice:
            return choicesOf(*command);
        case Takes::knownDevice:
            return deviceNames(session, ALL_DEVICES);
        case Takes::pairedDevice:
            return deviceNames(session, PAIRED_DEVICES);
        case Takes::connectedDevice:
            return deviceNames(session, CONNECTED_DEVICES);
        case Takes::optionalCommand:
            return commandNames();
        case Takes::nothing:
        case Takes::watch:
            break;
    }
    return {};
}

}  // namespace

Completion complete(Session& session, const std::string& line) {
    Completion completion;
    completion.wordStart = lastWordOf(line);
    std::string typed = line.substr(completion.wordStart);
    std::vector<std::string> words;
    try {
        words = splitWords(line.substr(0, completion.wordStart));
    } catch (const Failure&) {
        return completion;
    }
    // A quote that is still open is put back by the candidate.
    if (!typed.empty() && (typed.front() == '"' || typed.front() == '\'')) typed.erase(0, 1);
    for (const std::string& text : continuations(session, words)) {
        const std::string word = asWord(text);
        const std::string inner = word.front() == '"' ? word.substr(1) : word;
        if (inner.compare(0, typed.size(), typed) == 0) completion.candidates.push_back(word);
    }
    std::sort(completion.candidates.begin(), completion.candidates.end());
    const auto last = std::unique(completion.candidates.begin(), completion.candidates.end());
    completion.candidates.erase(last, completion.candidates.end());
    return completion;
}

}  // namespace corvanectl
