#include "Handles.h"
#include "RadioWirings.h"
#include "Session.h"
#include "Shell.h"
#include "Text.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "hwcommon/fileUtil.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace corvanectl {

namespace {

namespace fs = std::filesystem;

constexpr char switchAgain[] = "corvanectl off, then corvanectl on; see the system log";
constexpr char startBus[] = "start dbus-daemon";

std::string systemError() { return std::strerror(errno); }

std::string contentOf(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string firstLineOf(const fs::path& file) {
    const std::string content = contentOf(file);
    return content.substr(0, content.find('\n'));
}

/// Looks at everything that the library relies on, but touches nothing.
class Doctor {
public:
    explicit Doctor(Host& boardHost) : host(boardHost) {}

    Result examine() {
        judge("user", "may load modules and use raw HCI", "root", geteuid() == 0 ? "" : "not root",
              "run as root");
        identity();
        setting();
        tools();
        files();
        writtenFiles();
        if (wiring != nullptr) {
            modules();
            for (std::size_t i = 0; i < wiring->lineCount; ++i) line(wiring->lines.at(i).pin);
        }
        bus();
        rfkill();
        result.text += counted(problems, "problem") + ", " + counted(warnings, "warning");
        result.data = {{"problems", problems}, {"warnings", warnings}, {"findings", findings}};
        if (problems > 0) {
            result.status = ExitStatus::boardUnfit;
            result.problem = "problems found: " + std::to_string(problems);
        }
        return std::move(result);
    }

private:
    /// @param good  what is found when all is well
    /// @param lack  what is wrong; empty for nothing
    void judge(const std::string& name, const std::string& purpose, const std::string& good,
               const std::string& lack, const std::string& remedy, bool fatal = true) {
        const bool well = lack.empty();
        if (!well) ++(fatal ? problems : warnings);
        const std::string found = well ? good : lack;
        findings.push_back({{"looked_for", name},
                            {"purpose", purpose},
                            {"found", found},
                            {"verdict", well    ? "ok"
                                        : fatal ? "problem"
                                                : "warning"},
                            {"remedy", well ? Json() : Json(remedy)}});
        result.text += well ? "ok      " : fatal ? "PROBLEM " : "warning ";
        result.text += name + " (" + purpose + "): " + found + '\n';
        if (!well) result.text += "        -> " + remedy + '\n';
    }

    void identity() {
        constexpr char purpose[] = "the hardware service, has the board's identity";
        try {
            eepromXML& board = host.identity();
            family = board.GetProductFamily();
            wiring = &corvane::radioWirings.at(corvane::radioWiringOf(
                static_cast<int>(board.GetModelType()), [this] { return family; }));
            const std::string found =
                escaped(GetModelNameStringExternal(board.GetModelType())) + ", family " +
                std::to_string(family) + ", revision " + std::to_string(board.GetBoardRevision()) +
                ", serial number " + inQuotes(board.GetSerialNumberString(false));
            judge(hardwareName, purpose, found, board.IsValid() ? "" : found + "; incomplete",
                  "correct the identity: see the log with --log-level error", false);
            judge("wiring", "how the radio is powered and attached", wiring->name, "", "");
        } catch (const Failure& failure) {
            judge(hardwareName, purpose, "", failure.what(),
                  failure.status == ExitStatus::noBus ? startBus : "start the hardware service");
        }
    }

    void setting() {
        std::string text;
        std::string lack;
        const bool set = hwcommon::fileUtil::exists(corvane::flagFile);
        if (set) {
            const bool read =
                hwcommon::fileUtil::getFileContent(corvane::flagFile, text, std::ios_base::in);
            char* end = nullptr;
            on = std::strtol(text.c_str(), &end, 10) == 1;
            if (end == text.c_str()) lack = "not a number: " + inQuotes(text.substr(0, 40));
            if (!read) lack = "cannot be read";
        }
        judge("setting", "1 for on, 0 for off",
              on    ? "on"
              : set ? "off"
                    : "not set since the last boot",
              lack, std::string("rm ") + corvane::flagFile);
    }

    void tools() {
        for (const char* name : {"rfkill", "insmod", "modprobe", "uname", "hciconfig",
                                 "start-stop-daemon", "killall", "cp", "diff", "grep"}) {
            const corvane::TextPtr path(g_find_program_in_path(name));
            judge(name, "a command that the library runs", path ? path.get() : "",
                  path ? "" : "not in PATH",
                  "install it, or busybox with this applet; hciconfig is one of BlueZ's deprecated "
                  "tools");
        }
    }

    void file(const char* path, const char* purpose, const char* remedy, mode_t kind = S_IFREG,
              int mode = X_OK, const char* wrongKind = "not a program") {
        struct stat status {};
        std::string lack;
        if (stat(path, &status) == 0 && (status.st_mode & S_IFMT) != kind) {
            lack = wrongKind;
        } else if (access(path, mode) != 0) {
            lack = systemError();
        }
        judge(path, purpose, "there", lack, remedy);
    }

    void files() {
        file(corvane::killAndWait, "stops the daemons",
             "install the board's script that ends a program by name and waits for its end");
        file(corvane::bluezDaemon.program, "the BlueZ daemon",
             "install BlueZ, its daemon at this path");
        file(corvane::hidDaemon.program, "the HID daemon",
             "install the board's HID daemon at this path");
        if (family != corvane::familyWithoutAudioBridge) {
            file(corvane::audioBridge.program, "the audio bridge", "install bluealsa at this path");
        }
        if (wiring != nullptr && wiring->waitsForWifi) {
            file(corvane::hciattachProgram, "attaches the controller",
                 "install BlueZ with its deprecated tools, hciattach at this path");
        } else if (wiring != nullptr) {
            file(corvane::realtekAttach.program, "attaches the Realtek controller",
                 "install the radio module's attach program at this path");
        }
        file(
            corvane::serialLine, "the controller's serial line",
            "enable the serial port in the device tree; it must appear, or be linked, at this path",
            S_IFCHR, R_OK | W_OK, "not a character device");
        file(corvane::systemLog, "the system log",
             "run a system log daemon that writes there, kernel messages included", S_IFREG, R_OK,
             "not a file");
        file(corvane::systemBusSocket, "the bus that the audio bridge uses",
             "start dbus-daemon for the system bus", S_IFSOCK, W_OK, "not a socket");
    }

    void writtenFiles() {
        for (const char* path : {corvane::systemLogSnapshot, corvane::flagFile,
                                 corvane::bluezDaemon.pidFile, corvane::hidDaemon.pidFile,
                                 corvane::audioBridge.pidFile, corvane::realtekAttach.pidFile}) {
            const std::string folder = fs::path(path).parent_path();
            const auto status = fs::symlink_status(path);
            std::string lack;
            if (access(folder.c_str(), W_OK) != 0) lack = folder + ": " + systemError();
            if (fs::exists(status) && !fs::is_regular_file(status)) lack = "not a file";
            judge(path, "written by the library", fs::exists(status) ? "there" : "not there yet",
                  lack, "make the folder writable, or remove what others left at this path");
        }
        const bool adapter = fs::exists(corvane::hciDevice);
        judge(corvane::hciDevice, "the adapter",
              adapter ? "there" : "not there while Bluetooth is off",
              on && !adapter ? "not there" : "", switchAgain);
    }

    void modules() {
        utsname kernel{};
        uname(&kernel);
        for (const auto& [path, purpose] :
             {std::pair{corvane::bluetoothModule, "Bluetooth in the kernel"},
              {wiring->serialDriver, "the serial driver"},
              {corvane::rfcommModule, "serial connections"}}) {
            const std::string file =
                std::string("/usr/lib/modules/") + kernel.release + "/kernel/" + path;
            // The vendor's driver may carry the name of the kernel's own.
            const std::string name = fs::path(path).stem();
            const bool loaded = fs::exists("/sys/module/" + name) ||
                                (name == "hci_uart_rtk" && fs::exists("/sys/module/hci_uart"));
            std::string lack = access(file.c_str(), R_OK) == 0 ? "" : systemError();
            std::string remedy =
                "install the modules of the running kernel, uncompressed, and run depmod";
            for (const std::string ending : {".xz", ".zst", ".gz"}) {
                if (lack.empty() || !fs::exists(file + ending)) continue;
                lack = "only compressed, as " + ending;
                remedy = "unpack it and run depmod, or build the kernel with uncompressed modules";
            }
            if (!lack.empty() && loaded) lack += ", but loaded or built in";
            judge(file, purpose, loaded ? "there, loaded" : "there, not loaded", lack, remedy,
                  !loaded);
        }
        if (!wiring->waitsForWifi) return;
        judge(corvane::wifiInterface, "the Wi-Fi, waited for before the modules", "there",
              fs::exists(corvane::wifiInterface) ? "" : "not there",
              "load the Wi-Fi's driver first");
    }

    /// GPIO numbers count through the chips in order.
    void line(unsigned pin) {
        const std::string name = "GPIO " + std::to_string(pin);
        constexpr char purpose[] = "powers the radio";
        for (unsigned chip = 0;; ++chip) {
            const std::string path = "/dev/gpiochip" + std::to_string(chip);
            const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
            gpiochip_info all{};
            if (descriptor == -1 || ioctl(descriptor, GPIO_GET_CHIPINFO_IOCTL, &all) == -1) break;
            gpioline_info info{};
            info.line_offset = pin;
            const bool known = ioctl(descriptor, GPIO_GET_LINEINFO_IOCTL, &info) == 0;
            const std::string error = path + ": " + systemError();
            close(descriptor);
            if (pin >= all.lines) {
                pin -= all.lines;
                continue;
            }
            const bool held = (info.flags & GPIOLINE_FLAG_KERNEL) != 0;
            const bool output = (info.flags & GPIOLINE_FLAG_IS_OUT) != 0;
            judge(name, purpose,
                  path + " line " + std::to_string(pin) + (output ? ", output" : ", input") +
                      ", free",
                  !known ? error
                  : held ? "held by " + inQuotes(info.consumer)
                         : "",
                  "a line has one holder: end the program that holds it, unless that is the host "
                  "application",
                  !held);
            return;
        }
        judge(name, purpose, "", "no such line",
              "load the GPIO controller's driver, with character devices; chips count in order");
    }

    void bus() {
        for (const auto& [name, purpose] : {std::pair{"org.freedesktop.DBus", "the message bus"},
                                            {bluezName, "BlueZ"},
                                            {hidName, "the HID service"}}) {
            try {
                const bool there = host.isOnTheBus(name);
                judge(name, purpose, there ? "on the bus" : "not on the bus while Bluetooth is off",
                      there || !on ? "" : "not on the bus", switchAgain);
            } catch (const Failure& failure) {
                judge(name, purpose, "", failure.what(), startBus);
            }
        }
        for (const std::string name : {"org.bluez", "org.corvane."}) {
            std::string policy;
            for (const char* folder : {"/etc/dbus-1/system.d", "/usr/share/dbus-1/system.d"}) {
                std::error_code error;
                for (const auto& entry : fs::directory_iterator(folder, error)) {
                    const bool names =
                        contentOf(entry.path()).find('"' + name) != std::string::npos;
                    if (names) policy = entry.path();
                }
            }
            judge("bus policy for " + name, "who may own and call it", policy,
                  policy.empty() ? "none" : "",
                  "install its policy file in /usr/share/dbus-1/system.d", false);
        }
    }

    void rfkill() {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator("/sys/class/rfkill", error)) {
            if (firstLineOf(entry.path() / "type") != "bluetooth") continue;
            const bool hard = firstLineOf(entry.path() / "hard") == "1";
            const bool soft = firstLineOf(entry.path() / "soft") == "1";
            judge("rfkill " + escaped(firstLineOf(entry.path() / "name")), "blocks a radio",
                  "not blocked",
                  hard   ? "blocked by hardware"
                  : soft ? "blocked by software"
                         : "",
                  hard ? "use the switch or line that blocks it" : "rfkill unblock bluetooth",
                  hard || on);
            return;
        }
        judge("rfkill", "blocks a radio", "no Bluetooth radio attached", "", "");
    }

    Host& host;
    Result result;
    Json findings = Json::array();
    std::size_t problems = 0;
    std::size_t warnings = 0;
    const corvane::RadioWiring* wiring = nullptr;  // null when the identity is unknown
    int family = 0;
    bool on = false;
};

std::string outputOf(const std::string& command) {
    const corvane::PipePtr pipe(popen(("{ " + command + "; } 2>&1").c_str(), "r"));
    std::string output;
    for (int c = 0; pipe && (c = std::fgetc(pipe.get())) != EOF;) output += static_cast<char>(c);
    return output;
}

std::string sinceLastBoot(const std::string& log) {
    const std::size_t boot = log.rfind("Linux version");
    return boot == std::string::npos ? log : log.substr(log.rfind('\n', boot) + 1);
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

Result examineBoard(Session& session, const Invocation& /*invocation*/) {
    return Doctor(session.host).examine();
}

Result writeReport(Session& session, const Invocation& invocation) {
    const std::string& file = invocation.arguments.back();
    const bool hide = invocation.arguments.size() > 1;
    const corvane::TextPtr made(g_dir_make_tmp("corvanectl-report-XXXXXX", nullptr));
    if (!made)
        throw Failure(ExitStatus::refused, "cannot make a temporary folder: " + systemError());
    const std::string folder = made.get();
    // Asked for its owner first, BlueZ is not started.
    const char* const askBluez =
        "dbus-send --system --print-reply --dest=org.freedesktop.DBus / "
        "org.freedesktop.DBus.GetNameOwner string:org.bluez && "
        "dbus-send --system --print-reply --dest=org.bluez / "
        "org.freedesktop.DBus.ObjectManager.GetManagedObjects";
    std::string objects = outputOf(askBluez);
    if (!hide && objects.find("array") != std::string::npos &&
        !outputOf("command -v btmon").empty()) {
        traceScan(session.host, folder);
        objects = outputOf(askBluez);
    }
    const Result findings = examineBoard(session, invocation);
    const auto names = hide ? knownNames(objects) : std::vector<std::string>();
    const std::string version = "echo corvanectl " CORVANE_VERSION ", ABI " CORVANE_ABI;
    for (const auto& [name, text] : std::vector<std::pair<const char*, std::string>>{
             {"doctor.txt", findings.text + '\n'},
             {"versions.txt", outputOf(version + "; uname -a; " + corvane::bluezDaemon.program +
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
