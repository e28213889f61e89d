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
        for (int c = 0; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
        pclose(pipe);
    }
    return output;
}

std::string sinceLastBoot(const std::string& log) {
    const std::size_t boot = log.rfind("Linux version");
    return boot == std::string::npos ? log : log.substr(log.rfind('\n', boot) + 1);
}

std::string ask(const std::string& service, const std::string& call) {
    return outputOf("dbus-send --system --print-reply --dest=" + service + " / " + call);
}

/// The names that BlueZ knows or remembers, the appliance's own included, longest first. Names of a
/// letter or two stay: they would spoil every text.
std::vector<std::string> knownNames(const std::string& objects) {
    const std::string text = objects + outputOf("grep -rhE '^(Name|Alias)=' /var/lib/bluetooth");
    const std::regex name(
        R"re("(?:Name|Alias)"\s+variant\s+string "(.{3,})"|(?:Name|Alias)=(.{3,}))re");
    std::vector<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
        names.push_back((*match)[1].str() + (*match)[2].str());
    }
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
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

void traceScan(Host& host, const std::string& folder) {
    corvane::runShell("btmon -w " + folder + "/scan.btsnoop > /dev/null & echo $! > " + folder +
                      "/pid");
    const auto make = [](const Host::Callback& callback) {
        return std::make_shared<ScanBluetoothRequest>(callback);
    };
    host.perform(make, "Scanning for the report", corvane::scanLength);
    corvane::runShell("kill $(cat " + folder + "/pid); rm " + folder + "/pid");
}

}  // namespace

Result writeReport(Session& session, const Invocation& invocation) {
    const std::string& file = invocation.arguments.back();
    const bool hide = invocation.arguments.size() > 1;
    std::string folder = (fs::temp_directory_path() / "corvanectl-report-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        throw Failure(ExitStatus::refused, folder + ": " + std::strerror(errno));
    }
    const std::string owner =
        ask("org.freedesktop.DBus", "org.freedesktop.DBus.NameHasOwner string:org.bluez");
    const bool bluez = owner.find("true") != std::string::npos;
    if (bluez && !hide && !outputOf("command -v btmon").empty()) traceScan(session.host, folder);
    const std::string objects =
        bluez ? ask(bluezName, "org.freedesktop.DBus.ObjectManager.GetManagedObjects")
              : "BlueZ is not on the bus: " + owner;
    const Result findings = examineBoard(session, invocation);
    const auto names = hide ? knownNames(objects) : std::vector<std::string>();
    for (const auto& [name, text] : std::vector<std::pair<const char*, std::string>>{
             {"doctor.txt", findings.text + '\n'},
             {"versions.txt",
              "corvanectl " CORVANE_VERSION ", ABI " CORVANE_ABI "\n" +
                  outputOf("uname -a; " + std::string(corvane::bluezDaemon.program) +
                           " --version; cat /etc/os-release")},
             {"state.txt", outputOf("date; uptime; hciconfig -a; rfkill list; lsmod; ps")},
             {"kernel.log", outputOf("dmesg")},
             {"system.log", sinceLastBoot(contentOf(corvane::systemLog))},
             {"objects.txt", objects}}) {
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
    const Json& problems = findings.data["problems"];
    return {ExitStatus::success,
            "Wrote " + inQuotes(file) + "; " + counted(problems.get<std::size_t>(), "problem"),
            "",
            {{"file", file}, {"anonymous", hide}, {"problems", problems}}};
}

}  // namespace corvanectl
