#include "RadioWirings.h"
#include "Session.h"
#include "Shell.h"
#include "Text.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

namespace corvanectl {

namespace {

namespace fs = std::filesystem;

std::string outputOf(const std::string& command) {
    std::string output;
    if (std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r")) {
        char buffer[4096];
        for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            output.append(static_cast<const char*>(buffer), got);
        }
        pclose(pipe);
    }
    return output;
}

std::string sinceLastBoot(const std::string& log) {
    const std::size_t boot = log.rfind("Linux version");
    return boot == std::string::npos ? log : log.substr(log.rfind('\n', boot) + 1);
}

std::string managedObjects() {
    const auto reply =
        Host::ask("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr);
    if (!reply) return "BlueZ did not answer\n";
    gchar* const text = g_variant_print(reply.get(), FALSE);
    std::string result = std::regex_replace(text, std::regex("('/org|'org|, '[A-Z])"), "\n$1");
    g_free(text);
    return result + '\n';
}

/// The names that stand anywhere: those that BlueZ knows or remembers, and the appliance's own.
std::vector<std::string> namesKnown(const std::string& objects) {
    std::vector<std::string> names;
    const std::regex quoted("'(?:Name|Alias)': <(?:'([^']*)'|\"([^\"]*)\")>");
    for (std::sregex_iterator it(objects.begin(), objects.end(), quoted), end; it != end; ++it) {
        names.push_back((*it)[1].matched ? (*it)[1] : (*it)[2]);
    }
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator("/var/lib/bluetooth", error)) {
        std::ifstream stream(entry.path());
        for (std::string line; std::getline(stream, line);) {
            if (line.rfind("Name=", 0) == 0 || line.rfind("Alias=", 0) == 0) {
                names.push_back(line.substr(line.find('=') + 1));
            }
        }
    }
    return names;
}

std::string anonymous(std::string text, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += 6) {
            text.replace(at, name.size(), "(name)");
        }
    }
    const std::regex address("[0-9A-Fa-f]{2}([:_-][0-9A-Fa-f]{2}){5}");
    return std::regex_replace(text, address, "(address)");
}

}  // namespace

Result writeReport(Session& session, const Invocation& invocation) {
    const auto& words = invocation.arguments;
    const bool hide = words.size() > 1;
    const std::string file = words.front() == "--anonymous" ? words.back() : words.front();
    std::string folder = (fs::temp_directory_path() / "corvanectl-report-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        throw Failure(ExitStatus::refused, folder + ": " + std::strerror(errno));
    }
    Host& host = session.host;
    bool bluez = false;
    try {
        bluez = host.isOnTheBus(bluezName);
    } catch (const Failure&) {
        // The doctor's findings say so.
    }
    if (bluez && !hide && !outputOf("command -v btmon").empty()) {
        const std::string trace = folder + "/scan.btsnoop";
        corvane::runShell("btmon -w " + trace + " > /dev/null & echo $! > " + folder + "/pid");
        const auto make = [](const Host::Callback& callback) {
            return std::make_shared<ScanBluetoothRequest>(callback);
        };
        host.perform(make, "Scanning for the report", corvane::scanLength);
        corvane::runShell("kill $(cat " + folder + "/pid); rm " + folder + "/pid");
    }
    const std::string objects = managedObjects();
    const Result findings = examineBoard(session, invocation);
    std::vector<std::pair<const char*, std::string>> parts{
        {"doctor.txt", findings.text + '\n'},
        {"versions.txt", "corvanectl " CORVANE_VERSION ", ABI " CORVANE_ABI "\n" +
                             outputOf("uname -a; " + std::string(corvane::bluezDaemon.program) +
                                      " --version; cat /etc/os-release")},
        {"state.txt", outputOf("date; uptime; hciconfig -a; rfkill list; lsmod; ps")},
        {"kernel.log", outputOf("dmesg")},
        {"system.log", sinceLastBoot(contentOf(corvane::systemLog))},
        {"objects.txt", objects}};
    std::vector<std::string> names;
    if (hide) names = namesKnown(objects);
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    constexpr std::size_t shortest = 3;  // a name of a letter or two would spoil every text
    while (!names.empty() && names.back().size() < shortest) names.pop_back();
    for (const auto& [name, text] : parts) {
        std::ofstream(folder + '/' + name) << (hide ? anonymous(text, names) : text);
    }
    const std::string complaint =
        outputOf("tar -cf " + corvane::quoted(file) + " -C " + folder + " .");
    fs::remove_all(folder);
    if (!complaint.empty()) {
        throw Failure(ExitStatus::refused, "cannot write " + inQuotes(file) + ": " +
                                               escaped(complaint.substr(0, complaint.find('\n'))) +
                                               "; name another file");
    }
    Result result;
    result.text = "Wrote " + inQuotes(file) + "; " + counted(findings.data["problems"], "problem");
    result.data = {{"file", file}, {"anonymous", hide}, {"problems", findings.data["problems"]}};
    return result;
}

}  // namespace corvanectl
