#include "Prompt.h"

#include "Text.h"

#include <histedit.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>

#include <sys/stat.h>

namespace corvanectl {

namespace {

constexpr int historyLength = 1000;

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

/// What may follow the words. Device names are those of the last scan.
std::vector<std::string> continuations(Host& host, const std::vector<std::string>& words) {
    const Command* const command = words.empty() ? nullptr : findCommand(words.front());
    const std::string takes = command == nullptr ? "" : command->takes;
    const auto separator = std::find(words.begin(), words.end(), "--");
    if (separator != words.end()) return continuations(host, {separator + 1, words.end()});
    if (words.empty() || (takes == "[COMMAND]" && words.size() == 1)) {
        std::vector<std::string> names;
        for (const Command& row : commands()) names.emplace_back(row.name);
        return names;
    }
    if (takes == "NAME" && words.size() == 1 && host.managerIsUp()) {
        const std::string& name = words.front();
        return host.manager().getBluetoothDeviceListNames(name == "connect"      ? PAIRED_DEVICES
                                                          : name == "disconnect" ? CONNECTED_DEVICES
                                                                                 : ALL_DEVICES);
    }
    if (command == nullptr || words.size() > 1 || takes.find('|') == std::string::npos) return {};
    return choicesOf(*command);
}

/// The words that may stand in place of the one that begins at `start`. When one needs quotes, all
/// have them, so that they share their beginning.
std::vector<std::string> candidatesFor(Host& host, const std::string& line, std::size_t start) {
    std::vector<std::string> texts;
    try {
        texts = continuations(host, splitWords(line.substr(0, start)));
    } catch (const Failure&) {
        return {};
    }
    std::string typed = line.substr(start);
    if (!typed.empty() && (typed.front() == '"' || typed.front() == '\'')) typed.erase(0, 1);
    const auto differs = [&](const std::string& text) {
        return inQuotes(text).compare(1, typed.size(), typed) != 0;
    };
    texts.erase(std::remove_if(texts.begin(), texts.end(), differs), texts.end());
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    const bool quotes = typed.size() < line.size() - start ||
                        std::any_of(texts.begin(), texts.end(),
                                    [](const std::string& text) { return asWord(text) != text; });
    if (quotes) std::transform(texts.begin(), texts.end(), texts.begin(), inQuotes);
    return texts;
}

/// libedit with our completion and the radio's state in the prompt.
class Editor {
public:
    explicit Editor(Session& commandSession);
    ~Editor() { el_end(editor); }
    Editor(const Editor&) = delete;
    Editor& operator=(const Editor&) = delete;

    /// @param ahead  what was typed while a command ran
    /// @return false at the end and when interrupted
    bool read(const std::string& ahead, std::string& line);
    void remember(const std::string& line);

private:
    static Editor& of(EditLine* libedit) {
        void* self = nullptr;
        el_get(libedit, EL_CLIENTDATA, &self);
        return *static_cast<Editor*>(self);
    }
    unsigned char insertCompletion();
    void updatePrompt();

    Session& session;
    std::string prompt;
    std::string historyFile;
    std::unique_ptr<History, decltype(&history_end)> past{history_init(), &history_end};
    HistEvent event{};
    EditLine* const editor;
};

Editor::Editor(Session& commandSession)
    : session(commandSession),
      editor(el_init("corvanectl", Streams::input(), Streams::output(), Streams::errors())) {
    if (editor == nullptr || !past) {
        throw Failure(ExitStatus::unexpected, "the terminal cannot be used; see TERM");
    }
    el_set(editor, EL_CLIENTDATA, this);
    el_set(
        editor, EL_PROMPT, +[](EditLine* libedit) { return of(libedit).prompt.data(); });
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_SIGNAL, 1);
    el_set(
        editor, EL_ADDFN, "corvane-complete", "complete",
        +[](EditLine* libedit, int /*key*/) { return of(libedit).insertCompletion(); });
    el_set(editor, EL_BIND, "^I", "corvane-complete", nullptr);
    ::history(past.get(), &event, H_SETSIZE, historyLength);
    ::history(past.get(), &event, H_SETUNIQUE, 1);
    el_set(editor, EL_HIST, &::history, past.get());
    if (const char* const home = std::getenv("HOME")) {
        historyFile = std::string(home) + "/.corvanectl_history";
        ::history(past.get(), &event, H_LOAD, historyFile.c_str());
    }
}

unsigned char Editor::insertCompletion() {
    const LineInfo* const info = el_line(editor);
    const std::string line(info->buffer, info->cursor);
    const std::size_t start = lastWordOf(line);
    const auto candidates = candidatesFor(session.host, line, start);
    if (candidates.empty()) return CC_ARGHACK;
    std::string common = candidates.front();
    for (const std::string& candidate : candidates) {
        const auto end =
            std::mismatch(common.begin(), common.end(), candidate.begin(), candidate.end());
        common.erase(end.first, common.end());
    }
    const std::string typed = line.substr(start);
    if (candidates.size() == 1) common += ' ';
    if (common.size() > typed.size() || candidates.size() == 1) {
        // Counted in characters, as libedit does.
        const std::size_t characters = std::mbstowcs(nullptr, typed.c_str(), 0);
        if (characters == static_cast<std::size_t>(-1)) return CC_ERROR;
        el_deletestr(editor, static_cast<int>(characters));
        el_insertstr(editor, common.c_str());
        return CC_REFRESH;
    }
    std::fprintf(Streams::output(), "\n%s\n", joined(candidates, "\n").c_str());
    std::fflush(Streams::output());
    return CC_REDISPLAY;
}

void Editor::updatePrompt() {
    const char* state = "no board";
    if (session.host.managerIsUp()) {
        try {
            state = session.host.inAirplaneMode              ? "airplane"
                    : session.host.setting().value_or(false) ? "on"
                                                             : "off";
        } catch (const Failure&) {
            state = "setting?";
        }
    }
    prompt = std::string("corvane (") + state + ")> ";
}

bool Editor::read(const std::string& ahead, std::string& line) {
    Interrupt::restart();
    updatePrompt();
    // libedit would do this after it has shown the prompt: what is typed between would go astray.
    el_set(editor, EL_PREP_TERM, 1);
    if (!ahead.empty()) el_push(editor, ahead.c_str());
    int length = 0;
    const char* const text = el_gets(editor, &length);
    if (text == nullptr || length <= 0) {
        std::fputc('\n', Streams::output());
        return false;
    }
    line.assign(text, static_cast<std::size_t>(length));
    line.erase(line.find_last_not_of("\r\n") + 1);
    return true;
}

void Editor::remember(const std::string& line) {
    ::history(past.get(), &event, H_ENTER, line.c_str());
    if (historyFile.empty()) return;
    // Names of devices are nobody else's business.
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    ::history(past.get(), &event, H_SAVE, historyFile.c_str());
    umask(mask);
}

}  // namespace

void runShell(Session& session, LineSource& input) {
    try {
        session.host.manager();
    } catch (const Failure& failure) {
        session.report(failure);
    }
    std::fprintf(Streams::output(),
                 "corvanectl: help explains the commands, Tab completes, Ctrl-D leaves\n");
    Editor editor(session);
    bool interruptedBefore = false;
    while (!session.stopping) {
        std::string line;
        if (!editor.read(input.takeRest(), line)) {
            if (!Interrupt::happened() || interruptedBefore) return;
            std::fprintf(Streams::output(), "Ctrl-C again leaves\n");
            interruptedBefore = true;
            continue;
        }
        interruptedBefore = false;
        try {
            const Invocation invocation = parseLine(line);
            if (invocation.command == nullptr) continue;
            editor.remember(line);
            session.run(invocation);
        } catch (const Failure& failure) {
            editor.remember(line);
            session.report(failure);
        }
    }
}

}  // namespace corvanectl
