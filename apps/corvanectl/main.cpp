#include "Help.h"
#include "Interrupt.h"
#include "Output.h"
#include "Pages.h"
#include "Parse.h"
#include "Session.h"
#include "Shell.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <optional>

#include <langinfo.h>
#include <unistd.h>

namespace {

using namespace corvanectl;

constexpr char description[] =
    "Switches the appliance's Bluetooth radio, finds, pairs and connects devices.\n"
    "Without a command it reads commands from standard input, one a line; on a terminal that is a "
    "shell.\n\n"
    "A command is its name followed by its arguments as they are, or one argument that holds the "
    "whole line:\n"
    "  corvanectl on scan 'connect \"Living room\"' off\n"
    "  corvanectl connect \"Living room\"\n\n"
    "In a line, a name with blanks stands in quotes. Within double quotes, \\xNN, \\u{NNNN}, "
    "\\\" and \\\\ stand for what they stand for where names are shown.\n\n"
    "A radio that is on stays on when corvanectl leaves. What ends with it: its hold on the lines "
    "that power the radio, and the agent through which devices pair on their own.\n";

/// Runs the lines of standard input.
void runLines(Session& session, LineSource& input) {
    std::string line;
    while (input.next(line)) {
        ExitStatus status = ExitStatus::success;
        try {
            const Invocation invocation = parseLine(line);
            if (invocation.command != nullptr) status = session.run(invocation);
        } catch (const Failure& failure) {
            status = session.report(failure);
        }
        if (!session.goesOn(status)) return;
    }
}

void runArguments(Session& session, const std::vector<std::string>& words) {
    try {
        // All are read before the first runs: a slip in the last one leaves nothing half done.
        for (const Invocation& invocation : parseArguments(words)) {
            if (!session.goesOn(session.run(invocation))) return;
        }
    } catch (const Failure& failure) {
        session.report(failure);
    }
}

/// Names are UTF-8. Most boards without locales have this one; see table() for those that have not.
void chooseLocale() {
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

/// What the options say, beside the session's own.
struct Start {
    Options options;
    std::string generate;
};

void declareOptions(CLI::App& app, Start& start) {
    Options& options = start.options;
    app.prefix_command();
    app.footer(commandsHelp);
    app.set_help_flag("-h,--help", "Print this help and leave");
    app.set_version_flag(
        "--version",
        [] {
            return std::string("corvanectl " CORVANE_VERSION " (libCorvane " CORVANE_VERSION
                               ", ABI " CORVANE_ABI ")");
        },
        "Print the versions of corvanectl and libCorvane and leave");
    app.add_flag("--json", options.json,
                 "Print one JSON object a command on standard output, and nothing else");
    app.add_flag("-k,--keep-going", options.keepGoing, "Go on after a command that failed");
    app.add_flag("--teardown", options.tearDown,
                 "Stop the HID daemon and the audio bridge when leaving; they go on otherwise");
    app.add_option("--log-level", options.log.level,
                   "Show the log on standard error from this level on: trace, debug, info, error, "
                   "off")
        ->check(CLI::IsMember({"trace", "debug", "info", "error", "off"}))
        ->type_name("LEVEL");
    app.add_option("--log-file", options.log.file, "Append the log to a file")->type_name("FILE");
    app.add_option("--log-config", options.log.config,
                   "Set the log up by a log4cplus properties file")
        ->type_name("FILE");
    app.add_option("--generate", start.generate,
                   "Print the manual page or a completion script: man, bash, zsh")
        ->check(CLI::IsMember({"man", "bash", "zsh"}))
        ->type_name("PAGE");
}

void print(const CLI::App& app, const std::string& page) {
    const std::string text = page == "man"    ? manualPage(app)
                             : page == "bash" ? bashCompletion(app)
                                              : zshCompletion(app);
    std::fputs(text.c_str(), stdout);
}

/// @return the status to leave with; none: go on
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "corvanectl: %s; see --help\n", escaped(error.what()).c_str());
        return static_cast<int>(ExitStatus::usage);
    }
    return std::nullopt;
}

int run(int argc, char** argv) {
    CLI::App app{description, "corvanectl"};
    Start start;
    declareOptions(app, start);
    if (const auto status = parse(app, argc, argv)) return *status;
    if (!start.generate.empty()) {
        print(app, start.generate);
        return 0;
    }

    const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    Interrupt::install();
    Output::claim();
    LineSource input(STDIN_FILENO);
    const std::vector<std::string> words = app.remaining();
    try {
        Session session(start.options, words.empty() ? &input : nullptr);
        if (!words.empty()) {
            runArguments(session, words);
        } else if (terminal && !start.options.json) {
            runShell(session, input);
            session.leave(ExitStatus::success);
        } else {
            runLines(session, input);
        }
        session.leave(session.status());
    } catch (const Failure& failure) {
        std::fprintf(stderr, "corvanectl: %s\n", failure.what());
        return static_cast<int>(failure.status);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        chooseLocale();
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "corvanectl: unexpected error: %s\n", error.what());
        return static_cast<int>(ExitStatus::unexpected);
    }
}
