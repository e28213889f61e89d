#include "Program.h"

#include "Shell.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <sys/wait.h>

namespace corvane::test {

std::string contentOf(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

Corvanectl::Corvanectl() {
    for (const char* name : {"CORVANE_LOG_CONFIG", "LC_ALL", "LC_CTYPE", "LANG"}) unsetenv(name);
    setenv("CORVANE_TEST_ROOT", root.path().c_str(), 1);
    setenv("CORVANE_TEST_HURRY", "", 1);
    setenv("HOME", root.path().c_str(), 1);
    setenv("TERM", "xterm", 1);
    write("hci0", "there");
    setIdentity(
        "<identity><model>1</model><family>3</family><revision>7</revision>"
        "<serial>AB12CD34</serial></identity>");
    bluez.reply("/org/bluez/hci0", "GetAll",
                "({'Powered': <true>, 'Pairable': <true>, 'Alias': <'Corvane C100 AB12CD34'>},)");
    bluez.setDevices({phone, speaker, keyboard});
}

void Corvanectl::setIdentity(const std::string& text) {
    bluez.reply("/org/corvane/Hardware", "GetHardwareInfo", "('" + text + "',)");
}

std::string Corvanectl::command(const Words& arguments) {
    // A blank in a path ends it in LD_PRELOAD, but not in LD_LIBRARY_PATH.
    const std::filesystem::path preload = CORVANECTL_PRELOAD;
    std::string line = "env LD_LIBRARY_PATH=" + quoted(preload.parent_path()) +
                       " LD_PRELOAD=" + quoted(preload.filename()) + ' ' + quoted(CORVANECTL);
    for (const std::string& argument : arguments) line += ' ' + quoted(argument);
    return line;
}

Ran Corvanectl::run(const Words& arguments, const std::string& input,
                    const std::string& redirection) const {
    write("input", input);
    const std::string line = "cd " + quoted(root.path()) + "; { " + command(arguments) + ' ' +
                             redirection + "; } < input > output 2> errors";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(root / "output"),
            contentOf(root / "errors")};
}

std::vector<Json> Corvanectl::json(Words arguments, const std::string& input) const {
    arguments.insert(arguments.begin(), "--json");
    std::istringstream output(run(arguments, input).output);
    std::vector<Json> objects;
    for (std::string line; std::getline(output, line);) objects.push_back(Json::parse(line));
    return objects;
}

void Corvanectl::write(const std::string& name, const std::string& text) const {
    std::ofstream(root / name) << text;
}

}  // namespace corvane::test
