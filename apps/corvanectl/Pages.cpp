#include "Pages.h"

#include "Command.h"

#include <sstream>

namespace corvanectl {

namespace {

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string roff(const std::string& text) {
    std::string result = replaced(text, "\\", "\\e");
    result = replaced(result, "-", "\\-");
    // A dot or a quote would begin a request.
    if (!result.empty() && (result.front() == '.' || result.front() == '\'')) {
        result.insert(0, "\\&");
    }
    return result;
}

/// Lines: an empty one begins a paragraph, an indented one stands alone.
std::string roffLines(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            result += ".PP\n";
            continue;
        }
        if (line.front() == ' ') result += ".br\n";
        result += roff(line) + '\n';
    }
    return result;
}

std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

/// The value's name, without the choices that stand behind it.
std::string valueOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type.substr(0, type.find(':'));
}

std::string words(const std::vector<std::string>& list) {
    std::string text;
    for (const std::string& word : list) text += (text.empty() ? "" : " ") + word;
    return text;
}

std::vector<std::string> allOptions(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (std::string& name : namesOf(*option)) names.push_back(std::move(name));
    }
    return names;
}

std::vector<std::string> allCommands() {
    std::vector<std::string> names;
    for (const Command& command : commands()) names.emplace_back(command.name);
    return names;
}

/// Within single quotes of a shell.
std::string shellText(const std::string& text) { return replaced(text, "'", "'\\''"); }

constexpr char environmentAndFiles[] =
    ".SH ENVIRONMENT\n"
    ".TP\n.B CORVANE_LOG_CONFIG\nA log4cplus properties file, as with \\-\\-log\\-config.\n"
    ".TP\n.B DBUS_SYSTEM_BUS_ADDRESS\nThe address of the system bus, where it is not the usual "
    "one.\n"
    ".SH FILES\n"
    ".TP\n.I /tmp/bluetoothEnabled\nThe persisted setting: 1 for on, 0 for off.\n"
    ".TP\n.I ~/.corvanectl_history\nThe commands of earlier shells.\n";

}  // namespace

std::string manualPage(const CLI::App& app) {
    std::ostringstream page;
    page << ".TH CORVANECTL 1 \"\" \"Corvane " CORVANE_VERSION "\"\n"
         << ".SH NAME\ncorvanectl \\- switch and examine an appliance's Bluetooth radio\n"
         << ".SH SYNOPSIS\n.B corvanectl\n[\\fIOPTION\\fR]... [\\fICOMMAND\\fR]...\n"
         << ".SH DESCRIPTION\n"
         << roffLines(app.get_description()) << ".SH OPTIONS\n";
    for (const CLI::Option* option : app.get_options()) {
        page << ".TP\n.B " << roff(words(namesOf(*option)))
             << (takesValue(*option) ? " \\fI" + valueOf(*option) + "\\fR" : "") << '\n'
             << roff(option->get_description()) << ".\n";
    }
    page << ".SH COMMANDS\n";
    for (const Command& command : commands()) {
        std::string help = command.help;
        help.front() = static_cast<char>(help.front() - 'a' + 'A');
        page << ".TP\n.BR " << roff(command.name) << " \" " << roff(synopsisOf(command)) << "\"\n"
             << roff(help) << ".\n";
        if (*command.details != '\0') page << roff(command.details) << '\n';
    }
    page << ".SH EXIT STATUS\nThat of the first command that failed; 0 for the interactive "
            "shell.\n";
    for (const ExitStatusRow& row : exitStatusRows) {
        page << ".TP\n.B " << static_cast<int>(row.status) << '\n' << roff(row.meaning) << '\n';
    }
    page << environmentAndFiles;
    return page.str();
}

std::string bashCompletion(const CLI::App& app) {
    std::ostringstream script;
    script << "# Completion of corvanectl for bash, made by: corvanectl --generate bash\n"
           << "_corvanectl() {\n"
           << "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
           << "    local own=\n"
           << "    case $before in\n"
           << "        --log-file | --log-config)\n"
           << "            mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
           << "            return\n"
           << "            ;;\n"
           << "        --log-level) own='trace debug info error off' ;;\n"
           << "        --generate) own='man bash zsh' ;;\n";
    for (const Command& command : commands()) {
        if (*command.choices == '\0') continue;
        script << "        " << command.name << ") own='" << words(choicesOf(command)) << "' ;;\n";
    }
    script << "    esac\n"
           << "    case $before in\n"
           << "        --log-level | --generate | airplane) ;;\n"
           << "        *) own+=' " << words(allCommands()) << "' ;;\n"
           << "    esac\n"
           << "    [[ $word == -* ]] && own='" << words(allOptions(app)) << "'\n"
           << "    mapfile -t COMPREPLY < <(compgen -W \"$own\" -- \"$word\")\n"
           << "}\n"
           << "complete -F _corvanectl corvanectl\n";
    return script.str();
}

std::string zshCompletion(const CLI::App& app) {
    std::ostringstream script;
    script << "#compdef corvanectl\n"
           << "# Completion of corvanectl for zsh, made by: corvanectl --generate zsh\n"
           << "local -a own options\n"
           << "own=(\n";
    for (const Command& command : commands()) {
        script << "    '" << command.name << ':' << shellText(command.help) << "'\n";
    }
    script << ")\noptions=(\n";
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : namesOf(*option)) {
            script << "    '" << name << ':' << shellText(option->get_description()) << "'\n";
        }
    }
    script << ")\ncase $words[CURRENT-1] in\n"
           << "    --log-file|--log-config) _files; return ;;\n"
           << "    --log-level) compadd trace debug info error off; return ;;\n"
           << "    --generate) compadd man bash zsh; return ;;\n";
    for (const Command& command : commands()) {
        if (*command.choices == '\0') continue;
        script << "    " << command.name << ") compadd " << words(choicesOf(command))
               << (command.takes == Takes::choice ? "; return" : "") << " ;;\n";
    }
    script << "esac\n"
           << "if [[ $words[CURRENT] == -* ]]; then\n"
           << "    _describe option options\n"
           << "else\n"
           << "    _describe command own\n"
           << "fi\n";
    return script.str();
}

}  // namespace corvanectl
