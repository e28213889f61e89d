#include "Session.h"
#include "Text.h"

#include <editline/readline.h>
#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>

namespace corvanectl {

namespace {

// libedit hands nothing of ours to its callbacks.
Host* completionHost = nullptr;
std::vector<std::string> candidates;

/// What may follow the words. Device names are those of the last scan.
std::vector<std::string> continuations(const std::vector<std::string>& words) {
    const Command* const command = words.empty() ? nullptr : findCommand(words.front());
    const std::string takes = command == nullptr ? "" : command->takes;
    const auto separator = std::find(words.begin(), words.end(), "--");
    if (separator != words.end()) return continuations({separator + 1, words.end()});
    if (words.empty() || (takes == "[COMMAND]" && words.size() == 1)) {
        std::vector<std::string> names;
        for (const Command& row : commands()) names.emplace_back(row.name);
        return names;
    }
    if (words.size() > 1) return {};
    if (takes == "NAME" && completionHost->managerIsUp()) {
        const BluetoothDeviceListType list = words.front() == "connect"      ? PAIRED_DEVICES
                                             : words.front() == "disconnect" ? CONNECTED_DEVICES
                                                                             : ALL_DEVICES;
        return completionHost->manager().getBluetoothDeviceListNames(list);
    }
    return takes.find('|') == std::string::npos ? std::vector<std::string>() : choicesOf(takes);
}

bool needsQuotes(const std::string& text) {
    return text.empty() || std::any_of(text.begin(), text.end(), [](char c) {
               return !g_ascii_isalnum(c) && std::strchr(":_-.", c) == nullptr;
           });
}

/// Fills the candidates: what may stand in place of the line's last word, from `start` on.
void complete(const std::string& line, std::size_t start) {
    // The last word begins behind the last blank outside quotes: what is before can be read.
    std::vector<std::string> words;
    std::size_t word = line.size() + 1;
    for (bool readable = false; !readable;) {
        word = word < 2 ? 0 : line.rfind(' ', word - 2) + 1;  // npos + 1 is 0
        try {
            words = splitWords(line.substr(0, word));
            readable = true;
        } catch (const Failure&) {
            if (word == 0) return;
        }
    }
    const bool quoted = line[word] == '"';
    const std::string typed = line.substr(word + (quoted ? 1 : 0));
    std::vector<std::string> texts = continuations(words);
    const auto differs = [&](const std::string& text) {
        return inQuotes(text).compare(1, typed.size(), typed) != 0;
    };
    texts.erase(std::remove_if(texts.begin(), texts.end(), differs), texts.end());
    // When one needs quotes, all have them, so that they share their beginning.
    const bool quotes = quoted || std::any_of(texts.begin(), texts.end(), needsQuotes);
    for (const std::string& text : texts) {
        // libedit's word begins at the last blank, even within quotes.
        candidates.push_back((quotes ? inQuotes(text) : text).substr(start - word));
    }
}

char** completions(const char* text, int start, int end) {
    rl_attempted_completion_over = 1;  // no file names
    candidates.clear();
    complete({rl_line_buffer, static_cast<std::size_t>(end)}, static_cast<std::size_t>(start));
    const auto next = [](const char* /*text*/, int /*state*/) -> char* {
        if (candidates.empty()) return nullptr;
        char* const candidate = strdup(candidates.back().c_str());
        candidates.pop_back();
        return candidate;
    };
    char** const matches = completion_matches(const_cast<char*>(text), next);
    if (matches == nullptr) return nullptr;
    // What the candidates share may end within a character.
    const char* valid = nullptr;
    g_utf8_validate(matches[0], -1, &valid);
    matches[0][valid - matches[0]] = '\0';
    return matches;
}

std::string promptOf(Host& host) {
    const char* state = "no board";
    if (host.managerIsUp()) {
        try {
            const bool on = host.setting().value_or(false);
            state = host.inAirplaneMode ? "airplane" : on ? "on" : "off";
        } catch (const Failure&) {
            state = "setting?";
        }
    }
    return std::string("corvane (") + state + ")> ";
}

void setUp(const std::string& history) {
    rl_readline_name = "corvanectl";
    rl_instream = Streams::input;
    rl_outstream = Streams::output;
    rl_attempted_completion_function = completions;
    rl_completer_word_break_characters = const_cast<char*>(" ");
    // Otherwise libedit does this after it has shown the prompt, and what is typed between is lost.
    rl_pre_input_hook = [] {
        rl_prep_terminal(1);
        return 0;
    };
    stifle_history(1000);
    read_history(history.c_str());
}

/// Device names are private, and so is the history.
void remember(const std::string& line, const std::string& history) {
    add_history(line.c_str());
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    write_history(history.c_str());
    umask(mask);
}

}  // namespace

void runShell(Session& session, LineSource& input) {
    try {
        session.host.manager();
    } catch (const Failure& failure) {
        session.report({}, failure.result());
    }
    std::fprintf(Streams::output,
                 "corvanectl: help explains the commands, Tab completes, Ctrl-D leaves\n");
    completionHost = &session.host;
    const char* const home = std::getenv("HOME");
    const std::string history = home == nullptr ? "" : std::string(home) + "/.corvanectl_history";
    setUp(history);
    bool interruptedBefore = false;
    while (!session.stopping) {
        Interrupt::count = 0;
        std::string line;
        bool got = true;
        if (input.isAhead()) {
            got = input.next(line);  // typed while a command ran
        } else {
            char* const typed = readline(promptOf(session.host).c_str());
            got = typed != nullptr;
            if (got) line = typed;
            std::free(typed);
        }
        if (!got) {
            std::fputc('\n', Streams::output);
            if (Interrupt::count == 0 || interruptedBefore) return;
            std::fprintf(Streams::output, "Ctrl-C again leaves\n");
            interruptedBefore = true;
            continue;
        }
        interruptedBefore = false;
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        remember(line, history);
        session.runLine(line);
    }
}

}  // namespace corvanectl
