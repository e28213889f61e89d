#include "Prompt.h"
#include "Session.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace {

using namespace corvanectl;

constexpr char description[] =
    "Switches the appliance's Bluetooth radio, finds, pairs and connects devices. Without a "
    "command it reads commands from standard input, one a line; on a terminal that is a shell.\n\n"
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

/// Usage first, and lines that break between words, as wide as the terminal.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        std::string statuses;
        for (const ExitStatusRow& row : exitStatusRows) {
            statuses += (statuses.empty() ? "" : ", ") +
                        std::to_string(static_cast<int>(row.status)) + ' ' + row.name;
        }
        return wrapped("Usage: " + name + " [OPTION]... [COMMAND]...\n\n" + make_description(app) +
                           make_groups(app, mode) + "\nCommands:\n" + commandList() +
                           "\nExit status, that of the first failure: " + statuses + '\n',
                       Console::widthOrUsual());
    }
};

void declareOptions(CLI::App& app, Options& options) {
    app.prefix_command();
    app.formatter(std::make_shared<HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this help and leave");
    app.set_version_flag("--version", "", "Print the versions of corvanectl and libCorvane");
    app.add_flag("--json", options.json,
                 "Print one JSON object a command on standard output, and nothing else");
    app.add_flag("-k,--keep-going", options.keepGoing, "Go on after a command that failed");
    app.add_flag("--teardown", options.tearDown,
                 "Stop the HID daemon and the audio bridge when leaving; they go on otherwise");
    app.add_option("--log-level", options.log.level,
                   "Show the log on standard error from this level on: trace, debug, info, error, "
                   "off")
        ->check(CLI::IsMember({"trace", "debug", "info", "error", "off"}))
        ->option_text("LEVEL");
    app.add_option("--log-file", options.log.file, "Append the log to a file")->option_text("FILE");
    app.add_option("--log-config", options.log.config,
                   "Set the log up by a log4cplus properties file; also CORVANE_LOG_CONFIG")
        ->envname("CORVANE_LOG_CONFIG")
        ->option_text("FILE");
    app.add_option("--command-log", options.commandLog,
                   "Append to a file what commands and daemons print that the library starts")
        ->option_text("FILE");
}

ExitStatus run(CLI::App& app, const Options& options, Console& console,
               const log4cplus::SharedAppenderPtr& records) {
    const std::vector<std::string> words = app.remaining();
    if (!words.empty() && words.front().compare(0, 1, "-") == 0) {
        throw Failure(ExitStatus::usage,
                      "unknown option " + inQuotes(words.front()) + "; --help lists the options");
    }
    if (!options.commandLog.empty()) Streams::logCommandsTo(options.commandLog);
    setUpLogging(options.log, records);
    LineSource input(fileno(Streams::input()));
    Session session(options, console, words.empty() ? &input : nullptr);
    const bool terminal = terminalColumns(Streams::input()) > 0 && Console::width() > 0;
    Interrupt::install();
    if (!words.empty()) {
        runArguments(session, words);
    } else if (terminal && !options.json) {
        runShell(session, input);
        session.leave(ExitStatus::success);
    } else {
        runLines(session, input);
    }
    session.leave(session.status());
}

ExitStatus start(int argc, char** argv) {
    const log4cplus::helpers::SharedObjectPtr<LogRecords> records(new LogRecords);
    Options options;
    CLI::App app{description, "corvanectl"};
    declareOptions(app, options);
    // Known before the options are read, for what is wrong with them.
    Console console(std::any_of(argv, argv + argc,
                                [](const char* word) { return std::strcmp(word, "--json") == 0; }),
                    *records);
    try {
        app.parse(argc, argv);
        console.json = options.json;
        return run(app, options, console, log4cplus::SharedAppenderPtr(records.get()));
    } catch (const CLI::CallForHelp&) {
        const std::string help = app.help();
        console.print(help.substr(0, help.find_last_not_of('\n') + 1), {{"help", help}});
    } catch (const CLI::CallForVersion&) {
        console.print("corvanectl " CORVANE_VERSION " (libCorvane " CORVANE_VERSION
                      ", ABI " CORVANE_ABI ")",
                      {{"corvanectl", CORVANE_VERSION},
                       {"libCorvane", CORVANE_VERSION},
                       {"abi", CORVANE_ABI}});
    } catch (const CLI::ParseError& error) {
        console.report({ExitStatus::usage, escaped(error.what()) + "; see --help"});
        return ExitStatus::usage;
    } catch (const Failure& failure) {
        console.report(failure);
        return failure.status;
    }
    return ExitStatus::success;
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
