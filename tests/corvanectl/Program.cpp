#include "Program.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::minutes patience{5};

std::vector<char*> pointers(const std::vector<std::string>& command) {
    std::vector<char*> result;
    result.reserve(command.size() + 1);
    for (const std::string& word : command) result.push_back(const_cast<char*>(word.c_str()));
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> withProgram(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{CORVANECTL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

/// In the child, which becomes corvanectl.
[[noreturn]] void execute(char* const* command) {
    // A blank in a path ends it in LD_PRELOAD, but not in LD_LIBRARY_PATH.
    const fs::path preload = CORVANECTL_PRELOAD;
    setenv("LD_LIBRARY_PATH", preload.parent_path().c_str(), 1);
    setenv("LD_PRELOAD", preload.filename().c_str(), 1);
    execv(command[0], command);
    _exit(127);
}

int statusOf(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

}  // namespace

const Device phone{"00:11:22:33:44:01",        "Phone", 0x5A020C, false, false,
                   "bluetooth:v004CpABCDd0100"};
const Device speaker{"00:11:22:33:44:02", "Living room", 0x240414, true, false};
const Device keyboard{"00:11:22:33:44:03", "Keyboard", 0x000540, true, true};

std::vector<nlohmann::json> Ran::json() const {
    std::vector<nlohmann::json> objects;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(nlohmann::json::parse(line));
    }
    return objects;
}

Terminal::Terminal(const std::vector<std::string>& arguments, unsigned short columns) {
    const std::vector<std::string> command = withProgram(arguments);
    const std::vector<char*> words = pointers(command);
    winsize size{24, columns, 0, 0};
    pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
    if (pid == 0) execute(words.data());
}

Terminal::~Terminal() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(master);
}

void Terminal::type(const std::string& text) {
    if (write(master, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::system_error(errno, std::generic_category(), "pseudo-terminal");
    }
}

void Terminal::resize(unsigned short columns) {
    const winsize size{24, columns, 0, 0};
    ioctl(master, TIOCSWINSZ, &size);
}

bool Terminal::readMore() {
    pollfd readable{master, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) != 1) {
        return false;
    }
    char buffer[4096];
    const ssize_t got = read(master, buffer, sizeof buffer);
    if (got <= 0) return false;
    all.append(static_cast<const char*>(buffer), static_cast<std::size_t>(got));
    return true;
}

testing::AssertionResult Terminal::shows(const std::string& text) {
    while (true) {
        const std::size_t at = all.find(text, seen);
        if (at != std::string::npos) {
            seen = at + text.size();
            return testing::AssertionSuccess();
        }
        if (!readMore()) return testing::AssertionFailure() << "no \"" << text << "\" in:\n" << all;
    }
}

bool Terminal::waits() const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string stat;
        std::getline(file, stat);
        const std::size_t name = stat.rfind(')');
        if (name != std::string::npos && stat.compare(name, 3, ") S") == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

int Terminal::end() {
    while (readMore()) {
    }
    pollfd closed{master, 0, 0};
    if (poll(&closed, 1, 0) != 1 || (closed.revents & POLLHUP) == 0) {
        ADD_FAILURE() << "corvanectl does not end; its screen:\n" << all;
        return -1;
    }
    const int status = statusOf(pid);
    pid = -1;
    return status;
}

Corvanectl::Corvanectl() {
    setenv("CORVANE_TEST_ROOT", root.c_str(), 1);
    setenv("CORVANE_TEST_SPEED", "50", 1);
    setenv("HOME", root.c_str(), 1);
    setenv("TERM", "xterm", 1);
    for (const char* variable : {"CORVANE_LOG_CONFIG", "CORVANE_TEST_DAEMON"}) unsetenv(variable);
    fs::create_directories(root / "tmp");
    fs::create_directories(root / "sys/class/bluetooth/hci0");
    setIdentity(
        "<identity><model>1</model><family>3</family><revision>7</revision>"
        "<serial>AB12CD34</serial></identity>");
    setAdapter("<true>", "<true>", "<'Corvane C100 AB12CD34'>");
    bluez.setDevices({phone, speaker, keyboard});
}

void Corvanectl::setIdentity(const std::string& text) {
    bluez.reply("/org/corvane/Hardware", "GetHardwareInfo", "('" + text + "',)");
}

void Corvanectl::setAdapter(const std::string& powered, const std::string& pairable,
                            const std::string& alias) {
    bluez.reply(
        "/org/bluez/hci0", "GetAll",
        "({'Powered': " + powered + ", 'Pairable': " + pairable + ", 'Alias': " + alias + "},)");
}

bool Corvanectl::daemonRuns() {
    const std::string pid = read("daemon");
    return !pid.empty() && kill(std::stoi(pid), SIGKILL) == 0;
}

Ran Corvanectl::run(const std::vector<std::string>& arguments, const std::string& input,
                    const std::string& script) {
    std::vector<std::string> command = withProgram(arguments);
    if (!script.empty()) command.insert(command.begin(), {"/bin/sh", "-c", script, "sh"});
    const std::vector<char*> words = pointers(command);
    const fs::path in = root / "input";
    const fs::path out = root / "output";
    const fs::path err = root / "errors";
    std::ofstream(in) << input;
    const pid_t pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid == 0) {
        constexpr int write = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open(in.c_str(), O_RDONLY), STDIN_FILENO);
        dup2(open(out.c_str(), write, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), write, 0600), STDERR_FILENO);
        alarm(600);
        execute(words.data());
    }
    Ran result;
    result.status = statusOf(pid);
    result.output = contentOf(out);
    result.errors = contentOf(err);
    return result;
}

std::unique_ptr<Terminal> Corvanectl::onTerminal(const std::vector<std::string>& arguments,
                                                 unsigned short columns) {
    return std::make_unique<Terminal>(arguments, columns);
}

void Corvanectl::write(const std::string& path, const std::string& text) {
    if (text.empty()) {
        fs::remove(root / path);
    } else {
        std::ofstream(root / path) << text;
    }
}

std::string Corvanectl::read(const std::string& path) const { return contentOf(root / path); }

}  // namespace corvane::test
