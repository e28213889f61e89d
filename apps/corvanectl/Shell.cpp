#include "Shell.h"

#include "Interrupt.h"
#include "Output.h"
#include "Parse.h"

#include <histedit.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvanectl {

namespace {

constexpr int historyLength = 1000;

volatile std::sig_atomic_t resized = 0;

extern "C" void onResize(int /*signal*/) { resized = 1; }

/// libedit with our way of reading, completing and showing the state.
class Terminal {
public:
    Terminal(Session& commandSession, LineSource& input);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    enum class Outcome { line, interrupted, end };
    Outcome read(std::string& line);
    void remember(const std::string& line);

private:
    static Terminal& of(EditLine* editor) {
        void* self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        return *static_cast<Terminal*>(self);
    }
    static int readCharacter(EditLine* editor, wchar_t* character);
    static unsigned char completeWord(EditLine* editor, int key);
    static char* showPrompt(EditLine* editor) { return of(editor).prompt.data(); }

    int next(wchar_t& character);
    unsigned char insertCompletion();
    void updatePrompt();

    Session& session;
    LineSource& lines;
    std::string ahead;  // typed while a command ran
    std::string prompt;
    std::string historyFile;
    std::unique_ptr<History, decltype(&history_end)> past{history_init(), &history_end};
    HistEvent event{};
    EditLine* editor;
};

Terminal::Terminal(Session& commandSession, LineSource& input)
    : session(commandSession),
      lines(input),
      editor(el_init("corvanectl", stdin, Output::file(), stderr)) {
    if (editor == nullptr || !past) {
        throw Failure(ExitStatus::unexpected, "the terminal cannot be used; see TERM");
    }
    el_set(editor, EL_CLIENTDATA, this);
    el_set(editor, EL_PROMPT, &Terminal::showPrompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_GETCFN, &Terminal::readCharacter);
    el_set(editor, EL_ADDFN, "corvane-complete", "complete", &Terminal::completeWord);
    el_set(editor, EL_BIND, "^I", "corvane-complete", nullptr);
    ::history(past.get(), &event, H_SETSIZE, historyLength);
    ::history(past.get(), &event, H_SETUNIQUE, 1);
    el_set(editor, EL_HIST, &::history, past.get());
    if (const char* const home = std::getenv("HOME")) {
        historyFile = std::string(home) + "/.corvanectl_history";
        ::history(past.get(), &event, H_LOAD, historyFile.c_str());
    }
    struct sigaction action {};
    action.sa_handler = onResize;
    sigaction(SIGWINCH, &action, nullptr);
}

Terminal::~Terminal() { el_end(editor); }

int Terminal::readCharacter(EditLine* editor, wchar_t* character) {
    return of(editor).next(*character);
}

unsigned char Terminal::completeWord(EditLine* editor, int /*key*/) {
    return of(editor).insertCompletion();
}

/// As libedit wants it: 1 for a character, 0 at the end, -1 when interrupted.
int Terminal::next(wchar_t& character) {
    std::mbstate_t state{};
    while (true) {
        char byte = '\0';
        if (!ahead.empty()) {
            byte = ahead.front();
            ahead.erase(0, 1);
        } else {
            pollfd waits[] = {{STDIN_FILENO, POLLIN, 0}, {Interrupt::descriptor(), POLLIN, 0}};
            poll(waits, 2, -1);
            if (Interrupt::happened()) return -1;
            if (resized != 0) {
                resized = 0;
                el_resize(editor);
            }
            if (waits[0].revents == 0) continue;
            const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
            if (got == 0) return 0;
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return 0;
        }
        const std::size_t length = std::mbrtowc(&character, &byte, 1, &state);
        if (length == static_cast<std::size_t>(-2)) continue;
        // What is no UTF-8 cannot be part of a line.
        if (length == static_cast<std::size_t>(-1)) {
            state = {};
            continue;
        }
        return 1;
    }
}

unsigned char Terminal::insertCompletion() {
    const LineInfo* const info = el_line(editor);
    const std::string line(info->buffer, info->cursor);
    const Completion completion = complete(session, line);
    const auto& candidates = completion.candidates;
    if (candidates.empty()) return CC_ARGHACK;
    std::string common = candidates.front();
    for (const std::string& candidate : candidates) {
        const auto end =
            std::mismatch(common.begin(), common.end(), candidate.begin(), candidate.end());
        common.erase(end.first, common.end());
    }
    const std::string typed = line.substr(completion.wordStart);
    if (candidates.size() == 1) common += ' ';
    if (common.size() > typed.size() || candidates.size() == 1) {
        // Counted in characters, as libedit does.
        const std::size_t characters = std::mbstowcs(nullptr, typed.c_str(), 0);
        if (characters == static_cast<std::size_t>(-1)) return CC_ERROR;
        el_deletestr(editor, static_cast<int>(characters));
        el_insertstr(editor, common.c_str());
        return CC_REFRESH;
    }
    std::fputc('\n', Output::file());
    for (const std::string& candidate : candidates)
        std::fprintf(Output::file(), "%s\n", candidate.c_str());
    std::fflush(Output::file());
    return CC_REDISPLAY;
}

void Terminal::updatePrompt() {
    const char* state = "no board";
    if (session.managerIsUp()) {
        try {
            state = session.airplane() ? "airplane" : session.setting() ? "on" : "off";
        } catch (const Failure&) {
            state = "setting?";
        }
    }
    prompt = std::string("corvane (") + state + ")> ";
}

Terminal::Outcome Terminal::read(std::string& line) {
    ahead += lines.takeRest();
    Interrupt::restart();
    updatePrompt();
    // libedit would do this after it has shown the prompt: what is typed between would go astray.
    el_set(editor, EL_PREP_TERM, 1);
    int length = 0;
    const char* const text = el_gets(editor, &length);
    if (text != nullptr && length > 0) {
        line.assign(text, static_cast<std::size_t>(length));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        return Outcome::line;
    }
    std::fputc('\n', Output::file());
    return Interrupt::happened() ? Outcome::interrupted : Outcome::end;
}

void Terminal::remember(const std::string& line) {
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
        session.manager();
    } catch (const Failure& failure) {
        session.report(failure);
    }
    std::fprintf(Output::file(),
                 "corvanectl: help explains the commands, Tab completes, Ctrl-D leaves\n");
    Terminal terminal(session, input);
    bool interruptedBefore = false;
    while (!session.stopped()) {
        std::string line;
        const Terminal::Outcome outcome = terminal.read(line);
        if (outcome == Terminal::Outcome::end) return;
        if (outcome == Terminal::Outcome::interrupted) {
            if (interruptedBefore) return;
            std::fprintf(Output::file(), "Ctrl-C again leaves\n");
            interruptedBefore = true;
            continue;
        }
        interruptedBefore = false;
        try {
            const Invocation invocation = parseLine(line);
            if (invocation.command == nullptr) continue;
            terminal.remember(line);
            session.run(invocation);
        } catch (const Failure& failure) {
            terminal.remember(line);
            session.report(failure);
        }
    }
}

}  // namespace corvanectl
