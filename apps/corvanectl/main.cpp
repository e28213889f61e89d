#include "Session.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <iostream>

namespace {

using namespace corvanectl;

constexpr char description[] =
    "Switches the appliance's Bluetooth radio, finds, pairs and connects devices. Without a "
    "command it reads commands from standard input, one per line; on a terminal that is a shell."
    "\n\n"
    "A command is its name followed by its arguments, or one argument that holds the whole line:\n"
    "  corvanectl on scan 'connect \"Living room\"' off\n"
    "  corvanectl connect \"Living room\"\n\n"
    "In a line, put a name with blanks in quotes; double quotes also take \\xNN, \\\" and \\\\. A "
    "radio that is on stays on when corvanectl leaves.";

/// Usage first, and lines that break between words, as wide as the terminal.
std::string helpOf(const CLI::App& app) {
    std::string statuses;
    int status = 0;
    for (const std::string& outcome : choicesOf(outcomes)) {
        if (outcome == "interrupted") status = static_cast<int>(ExitStatus::interrupted);
        if (!outcome.empty()) statuses += ", " + std::to_string(status) + ' ' + outcome;
        ++status;
    }
    return wrapped("Usage: corvanectl [OPTION]... [COMMAND]...\n\n" + app.get_description() + '\n' +
                       CLI::Formatter().make_groups(&app, CLI::AppFormatMode::Normal) +
                       "\nCommands:\n" + commandList() +
                       "\nExit status of the first failure: " + statuses.substr(2),
                   terminalColumns(Streams::output));
}

void declareOptions(CLI::App& app, Options& options) {
    app.prefix_command();
    app.set_help_flag("-h,--help", "Print this help and leave");
    app.set_version_flag("--version", "", "Print the versions of corvanectl and libCorvane");
    app.add_flag("--json", options.json,
                 "Print one JSON object per command on standard output, and nothing else");
    app.add_flag("-k,--keep-going", options.keepGoing, "Go on after a command that failed");
    app.add_flag("--teardown", options.tearDown,
                 "Stop the HID daemon and the audio bridge when leaving");
    const auto addText = [&](const char* name, std::string& text, const char* takes,
                             const char* help) {
        return app.add_option(name, text, help)->option_text(takes);
    };
    addText("--log-level", options.logLevel, "LEVEL",
            "Show the log on standard error from this level on: trace, debug, info, error, off")
        ->check(CLI::IsMember({"trace", "debug", "info", "error", "off"}));
    addText("--log-file", options.logFile, "FILE", "Append the log to a file");
    addText("--log-config", options.logConfig, "FILE",
            "Configure the log from a log4cplus properties file; also CORVANE_LOG_CONFIG")
        ->envname("CORVANE_LOG_CONFIG");
    addText("--command-log", options.commandLog, "FILE",
            "Append what the library's commands and daemons print to a file");
}

[[noreturn]] void run(Session& session, const std::vector<std::string>& words) {
    if (!words.empty() && words.front().compare(0, 1, "-") == 0) {
        throw Failure(ExitStatus::usage,
                      "unknown option " + inQuotes(words.front()) + "; --help lists the options");
    }
    const Options& options = session.options;
    if (!options.commandLog.empty()) Streams::logCommandsTo(options.commandLog);
    session.records.setUp(options.logLevel, options.logFile, options.logConfig);
    Interrupt::install();
    LineSource input;
    if (words.empty()) session.host.cancelSource = &input;
    const bool terminal =
        terminalColumns(Streams::input) > 0 && terminalColumns(Streams::output) > 0;
    if (!words.empty()) {
        // All are read before the first runs: a slip in the last one leaves nothing half done.
        for (const Invocation& invocation : parseArguments(words)) {
            if (!session.run(invocation)) break;
        }
    } else if (terminal && !options.json) {
        runShell(session, input);
        session.status = ExitStatus::success;
    } else {
        for (std::string line; input.next(line) && session.runLine(line);) {
        }
    }
    session.leave();
}

ExitStatus start(int argc, char** argv) {
    const log4cplus::helpers::SharedObjectPtr<LogRecords> records(new LogRecords);
    Options options;
    CLI::App app{description, "corvanectl"};
    declareOptions(app, options);
    Session session(options, *records);
    try {
        // Known before the options are read, for what is wrong with them.
        options.json = std::any_of(
            argv, argv + argc, [](const char* word) { return std::strcmp(word, "--json") == 0; });
        app.parse(argc, argv);
        options.json = app.count("--json") > 0;
        run(session, app.remaining());
    } catch (const CLI::CallForHelp&) {
        const std::string help = helpOf(app);
        session.report({}, {ExitStatus::success, help, "", {{"help", help}}});
    } catch (const CLI::CallForVersion&) {
        session.report({}, {ExitStatus::success,
                            "corvanectl " CORVANE_VERSION " (libCorvane " CORVANE_VERSION
                            ", ABI " CORVANE_ABI ")",
                            "",
                            {{"corvanectl", CORVANE_VERSION},
                             {"libCorvane", CORVANE_VERSION},
                             {"abi", CORVANE_ABI}}});
    } catch (const CLI::ParseError& error) {
        session.report({}, {ExitStatus::usage, "", escaped(error.what()) + "; see --help"});
    } catch (const Failure& failure) {
        session.report({}, failure.result());
    }
    return session.status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        chooseLocale();
        Streams::claim();
        return static_cast<int>(start(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << "corvanectl: unexpected error: " << error.what() << '\n';
        return static_cast<int>(ExitStatus::unexpected);
    }
}
