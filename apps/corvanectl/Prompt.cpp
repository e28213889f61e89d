#include "Session.h"
#include "Text.h"

#include <editline/readline.h>
#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <sys/stat.h>

namespace corvanectl {

namespace {

// libedit hands nothing of ours to its callbacks.
Host* completionHost = nullptr;
std::vector<std::string> candidates;

/// What the command may take. Device names are those of the last scan.
std::vector<std::string> argumentsOf(const Command& command) {
    const std::string takes = command.takes;
    std::vector<std::string> arguments;
    if (takes == "[COMMAND]") {
        for (const Command& row : commands()) arguments.emplace_back(row.name);
    } else if (takes == "NAME" && completionHost->managerIsUp()) {
        const BluetoothDeviceListType list = command.run == connectDevice      ? PAIRED_DEVICES
                                             : command.run == disconnectDevice ? CONNECTED_DEVICES
                                                                               : ALL_DEVICES;
        for (const auto& name : completionHost->manager().getBluetoothDeviceListNames(list)) {
            arguments.push_back(inQuotes(name));
        }
    } else if (isChoice(takes)) {
        arguments = choicesOf(takes);
    }
    return arguments;
}

/// Fills the candidates: what may stand in place of the line's end, from `start` on, where libedit
/// sees the last word begin: at the last blank, even within quotes.
void complete(const std::string& line, std::size_t start) {
    const std::size_t separator = line.rfind(" -- ");  // a command of its own follows
    const std::size_t begin = separator == std::string::npos ? 0 : separator + 4;
    const auto goesOn = [&](const std::string& with) {
        return with.compare(0, line.size() - begin, line, begin) == 0;
    };
    for (const Command& command : commands()) {
        std::string name = command.name;
        if (goesOn(name)) candidates.push_back(name);
        name += ' ';
        const std::size_t argument = begin + name.size();
        for (const std::string& text : argumentsOf(command)) {
            // The quote comes by itself.
            const bool bare = text.front() == '"' && start == argument;
            if (goesOn(name + text) || (bare && goesOn(name + text.substr(1)))) {
                if (start >= argument) candidates.push_back(text.substr(start - argument));
            }
        }
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
