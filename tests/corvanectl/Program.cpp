#include "Program.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::minutes patience{5};

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// The program behind other words, as execv() takes them; they live as long as the vectors.
std::vector<char*> words(const std::vector<std::string>& before,
                         const std::vector<std::string>& arguments) {
    static const std::string program = CORVANECTL;
    std::vector<char*> result;
    for (const std::string& word : before) result.push_back(const_cast<char*>(word.c_str()));
    result.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& word : arguments) result.push_back(const_cast<char*>(word.c_str()));
    result.push_back(nullptr);
    return result;
}

/// The environment with our library loaded first. A blank in a path ends it in LD_PRELOAD, but not
/// in LD_LIBRARY_PATH.
gchar** environmentWithPreload() {
    const fs::path preload = CORVANECTL_PRELOAD;
    gchar** const environment =
        g_environ_setenv(g_get_environ(), "LD_LIBRARY_PATH", preload.parent_path().c_str(), TRUE);
    return g_environ_setenv(environment, "LD_PRELOAD", preload.filename().c_str(), TRUE);
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
    const std::vector<char*> command = words({}, arguments);
    gchar** const environment = environmentWithPreload();
    winsize size{24, columns, 0, 0};
    pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0) throw std::runtime_error("forkpty");
    if (pid == 0) {
        execve(command[0], command.data(), environment);
        _exit(127);
    }
    g_strfreev(environment);
}

Terminal::~Terminal() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    close(master);
}

void Terminal::type(const std::string& text) {
    if (::write(master, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("pseudo-terminal");
    }
}

bool Terminal::readMore() {
    pollfd readable{master, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(patience).count())) != 1) {
        return false;
    }
    char buffer[4096];
    const ssize_t got = ::read(master, buffer, sizeof buffer);
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
        const std::string stat = contentOf("/proc/" + std::to_string(pid) + "/stat");
        if (stat.find(") S") != std::string::npos) return true;
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
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return WEXITSTATUS(status);
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

Ran Corvanectl::run(const std::vector<std::string>& arguments, const std::string& input,
                    const std::string& script) {
    std::ofstream(root / "input") << input;
    const std::vector<std::string> shell{
        "/bin/sh", "-c", "{ " + script + "; } < \"$CORVANE_TEST_ROOT/input\"", "sh"};
    std::vector<char*> command = words(shell, arguments);
    gchar** const environment = environmentWithPreload();
    gchar* output = nullptr;
    gchar* errors = nullptr;
    int status = -1;
    if (g_spawn_sync(nullptr, command.data(), environment, G_SPAWN_DEFAULT, nullptr, nullptr,
                     &output, &errors, &status, nullptr) == FALSE) {
        throw std::runtime_error("g_spawn_sync");
    }
    const Ran ran{WIFEXITED(status) ? WEXITSTATUS(status) : -1, output, errors};
    g_free(output);
    g_free(errors);
    g_strfreev(environment);
    return ran;
}

void Corvanectl::write(const std::string& path, const std::string& text) {
    fs::remove(root / path);
    if (!text.empty()) std::ofstream(root / path) << text;
}

std::string Corvanectl::read(const std::string& path) const { return contentOf(root / path); }

}  // namespace corvane::test
