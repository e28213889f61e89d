#include "RadioWirings.h"
#include "Session.h"
#include "Text.h"
#include "hwcommon/fileUtil.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace corvanectl {

namespace {

namespace fs = std::filesystem;

enum class Verdict { ok, warning, problem };

struct VerdictRow {
    const char* name;
    const char* label;
};

constexpr std::array<VerdictRow, 3> verdictRows{
    {{"ok", "ok      "}, {"warning", "warning "}, {"problem", "PROBLEM "}}};

struct Finding {
    std::string lookedFor;
    std::string purpose;
    std::string found;
    Verdict verdict = Verdict::ok;
    std::string remedy = {};  // empty when all is well
};

constexpr char switchAgain[] = "corvanectl off, then corvanectl on; see the system log";

std::string systemError() { return std::strerror(errno); }

std::string firstLineOf(const fs::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

/// Looks at everything that the library relies on, but touches nothing.
class Doctor {
public:
    explicit Doctor(Host& boardHost) : host(boardHost) {}

    std::vector<Finding> examine() {
        judge(geteuid() == 0 ? "" : "not root",
              {"user", "may load modules and use raw HCI", "root"}, "run as root");
        identity();
        setting();
        tools();
        files();
        if (wiring != nullptr) {
            modules();
            lines();
        }
        bus();
        rfkill();
        return std::move(findings);
    }

private:
    /// @param lack  what is wrong; empty when `good` was found
    void judge(const std::string& lack, Finding good, const std::string& remedy,
               Verdict verdict = Verdict::problem) {
        if (!lack.empty()) {
            good.found = lack;
            good.verdict = verdict;
            good.remedy = remedy;
        }
        findings.push_back(std::move(good));
    }

    void identity() {
        Finding finding{hardwareName, "the hardware service, tells the board's identity", ""};
        try {
            const eepromXML& board = host.identity();
            family = board.GetProductFamily();
            wiring = &corvane::radioWirings.at(
                corvane::radioWiringOf(board.GetModelType(), [this] { return family; }));
            finding.found = escaped(GetModelNameStringExternal(board.GetModelType())) +
                            ", family " + std::to_string(family) + ", revision " +
                            std::to_string(board.GetBoardRevision()) + ", serial number " +
                            inQuotes(board.GetSerialNumberString(false));
            judge(board.IsValid() ? "" : finding.found + "; incomplete", finding,
                  "correct the identity: see the log with --log-level error", Verdict::warning);
            judge("", {"wiring", "how the radio is powered and attached", wiring->name}, "");
        } catch (const Failure& failure) {
            judge(failure.what(), finding,
                  failure.status == ExitStatus::noBus ? "start dbus-daemon"
                                                      : "start the hardware service");
        }
    }

    void setting() {
        Finding finding{"setting", "its content: 1 for on, 0 for off",
                        "not set since the last boot"};
        std::string lack;
        if (hwcommon::fileUtil::exists(corvane::flagFile)) {
            std::string text;
            if (!hwcommon::fileUtil::getFileContent(corvane::flagFile, text)) {
                lack = "cannot be read";
            }
            char* end = nullptr;
            on = std::strtol(text.c_str(), &end, 10) == 1;
            finding.found = on ? "on" : "off";
            if (end == text.c_str()) lack = "no number: " + inQuotes(text.substr(0, 40));
        }
        judge(lack, finding, std::string("rm ") + corvane::flagFile);
    }

    void tools() {
        struct Tool {
            const char* name;
            const char* package;
        };
        const char* const variable = std::getenv("PATH");
        const std::string path = variable == nullptr ? "/usr/bin:/bin" : variable;
        for (const Tool& tool :
             {Tool{"rfkill", "rfkill"}, Tool{"insmod", "kmod"}, Tool{"modprobe", "kmod"},
              Tool{"uname", "coreutils"}, Tool{"hciconfig", "bluez, with its deprecated tools"},
              Tool{"start-stop-daemon", "dpkg"}, Tool{"killall", "psmisc"}, Tool{"cp", "coreutils"},
              Tool{"diff", "diffutils"}, Tool{"grep", "grep"}}) {
            std::string found;
            for (std::size_t at = 0; found.empty() && at < path.size();) {
                const std::size_t end = std::min(path.find(':', at), path.size());
                const std::string file = path.substr(at, end - at) + '/' + tool.name;
                if (access(file.c_str(), X_OK) == 0) found = file;
                at = end + 1;
            }
            judge(found.empty() ? "not in PATH" : "",
                  {tool.name, "a command that the library runs", found},
                  std::string("install the package ") + tool.package +
                      ", or busybox with this applet");
        }
    }

    /// Looks for a file of a kind. What `wrongKind` says counts where it is there.
    void file(const char* path, const char* purpose, mode_t kind, int mode, const char* wrongKind,
              const char* remedy) {
        struct stat status {};
        std::string lack;
        if (stat(path, &status) == 0 && (status.st_mode & S_IFMT) != kind) {
            lack = wrongKind;
        } else if (access(path, mode) != 0) {
            lack = systemError();
        }
        judge(lack, {path, purpose, "there"}, remedy);
    }

    void program(const char* path, const char* purpose, const char* remedy) {
        file(path, purpose, S_IFREG, X_OK, "not a program", remedy);
    }

    void files() {
        program(corvane::killAndWait, "stops the daemons",
                "install the board's script that ends a program by name and waits for its end");
        program(corvane::bluezDaemon.program, "the BlueZ daemon",
                "install BlueZ, its daemon at this path");
        program(corvane::hidDaemon.program, "the HID daemon",
                "install the board's HID daemon at this path");
        if (family != corvane::familyWithoutAudioBridge) {
            program(corvane::audioBridge.program, "the audio bridge",
                    "install bluealsa at this path");
        }
        file(corvane::serialLine, "the controller's serial line", S_IFCHR, R_OK | W_OK,
             "not a character device",
             "enable the serial port in the device tree; it has to appear, or be linked, at this "
             "path");
        file(corvane::systemLog, "the system log", S_IFREG, R_OK, "not a file",
             "run a system log daemon that writes there, kernel messages included");
        file(corvane::systemBusSocket, "the bus that the audio bridge is told", S_IFSOCK, W_OK,
             "not a socket", "start dbus-daemon for the system bus");
        for (const char* path : {corvane::systemLogSnapshot, corvane::flagFile,
                                 corvane::bluezDaemon.pidFile, corvane::hidDaemon.pidFile,
                                 corvane::audioBridge.pidFile, corvane::realtekAttach.pidFile}) {
            struct stat status {};
            const std::string folder = fs::path(path).parent_path();
            const bool there = lstat(path, &status) == 0;
            std::string lack;
            if (access(folder.c_str(), W_OK) != 0) lack = folder + ": " + systemError();
            if (there && !S_ISREG(status.st_mode)) lack = "not a file";
            judge(lack, {path, "written by the library", there ? "there" : "not there yet"},
                  "make the folder writable, or remove what others left at this path");
        }
        const bool adapter = fs::exists(corvane::hciDevice);
        judge(on && !adapter ? "not there" : "",
              {corvane::hciDevice, "the adapter",
               adapter ? "there" : "not there, as long as Bluetooth is off"},
              switchAgain);
    }

    void modules() {
        const bool laird = wiring->waitsForWifi;
        utsname kernel{};
        uname(&kernel);
        const std::array<const char*, 3> paths{corvane::bluetoothModule, wiring->serialDriver,
                                               corvane::rfcommModule};
        constexpr std::array<const char*, 3> purposes{"Bluetooth in the kernel",
                                                      "the serial driver", "serial connections"};
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const char* const path = paths.at(i);
            const std::string file =
                std::string("/usr/lib/modules/") + kernel.release + "/kernel/" + path;
            // Two drivers of one name: what is loaded does not tell which.
            std::string name = fs::path(path).stem();
            if (name == "hci_uart_rtk" && !fs::exists("/sys/module/" + name)) name = "hci_uart";
            const bool loaded = fs::exists("/sys/module/" + name);
            std::string lack = access(file.c_str(), R_OK) == 0 ? "" : systemError();
            if (!lack.empty() && loaded) lack += ", but loaded or built in";
            judge(lack, {file, purposes.at(i), loaded ? "there, loaded" : "there, not loaded"},
                  "install the modules of the kernel that runs, not compressed, and run depmod",
                  loaded ? Verdict::warning : Verdict::problem);
        }
        if (!laird) {
            program(corvane::realtekAttach.program, "attaches the Realtek controller",
                    "install the radio module's attach program at this path");
            return;
        }
        program(corvane::hciattachProgram, "attaches the controller",
                "install BlueZ with its deprecated tools, hciattach at this path");
        judge(fs::exists(corvane::wifiInterface) ? "" : "not there",
              {corvane::wifiInterface, "the Wi-Fi, waited for before the modules", "there"},
              "load the Wi-Fi's driver before");
    }

    /// The chips count their lines one behind the other.
    void lines() {
        for (std::size_t i = 0; i < wiring->lineCount; ++i) {
            unsigned offset = wiring->lines.at(i).pin;
            Finding finding{"GPIO " + std::to_string(offset), "powers the radio", ""};
            std::string lack = "no such line";
            std::string remedy =
                "load the GPIO controller's driver, with character devices; chips count in order";
            for (unsigned number = 0;; ++number) {
                const std::string path = "/dev/gpiochip" + std::to_string(number);
                const int chip = open(path.c_str(), O_RDWR | O_CLOEXEC);
                gpiochip_info info{};
                if (chip == -1 || ioctl(chip, GPIO_GET_CHIPINFO_IOCTL, &info) == -1) break;
                gpioline_info line{};
                line.line_offset = offset;
                const bool here = offset < info.lines;
                const bool known = here && ioctl(chip, GPIO_GET_LINEINFO_IOCTL, &line) == 0;
                close(chip);
                if (!here) {
                    offset -= info.lines;
                    continue;
                }
                const bool output = (line.flags & GPIOLINE_FLAG_IS_OUT) != 0;
                finding.found = path + " line " + std::to_string(offset) +
                                (output ? ", output" : ", input") + ", free";
                lack = !known ? path + ": " + systemError()
                       : (line.flags & GPIOLINE_FLAG_KERNEL) != 0
                           ? "held by " + inQuotes(line.consumer)
                           : "";
                remedy =
                    "a line serves one holder: leave the program that holds it, unless that is "
                    "the host application";
                break;
            }
            const bool held = lack.compare(0, 4, "held") == 0;
            judge(lack, finding, remedy, held ? Verdict::warning : Verdict::problem);
        }
    }

    void bus() {
        struct Name {
            const char* name;
            const char* purpose;
            bool always;
        };
        for (const Name& row :
             {Name{"org.freedesktop.DBus", "the message bus itself", true},
              Name{bluezName, "BlueZ", false}, Name{hidName, "the HID service", false}}) {
            Finding finding{row.name, row.purpose, "on the bus"};
            try {
                const bool there = host.isOnTheBus(row.name);
                if (!there) finding.found = "not on the bus, as long as Bluetooth is off";
                judge(there || (!on && !row.always) ? "" : "not on the bus", finding, switchAgain);
            } catch (const Failure& failure) {
                judge(failure.what(), finding, "start dbus-daemon");
            }
        }
        for (const std::string name : {"org.bluez", "org.corvane."}) {
            std::string policy;
            for (const char* folder : {"/etc/dbus-1/system.d", "/usr/share/dbus-1/system.d"}) {
                std::error_code error;
                for (const auto& entry : fs::directory_iterator(folder, error)) {
                    if (contentOf(entry.path()).find('"' + name) != std::string::npos) {
                        policy = entry.path();
                    }
                }
            }
            judge(policy.empty() ? "none" : "",
                  {"bus policy for " + name, "who may own and call it", policy},
                  "install its policy file to /usr/share/dbus-1/system.d", Verdict::warning);
        }
    }

    void rfkill() {
        Finding finding{"rfkill", "blocks a radio", "no Bluetooth radio attached"};
        std::error_code error;
        for (const auto& entry : fs::directory_iterator("/sys/class/rfkill", error)) {
            if (firstLineOf(entry.path() / "type") != "bluetooth") continue;
            const bool hard = firstLineOf(entry.path() / "hard") == "1";
            const bool soft = firstLineOf(entry.path() / "soft") == "1";
            finding.lookedFor = "rfkill " + escaped(firstLineOf(entry.path() / "name"));
            finding.found = "not blocked";
            judge(hard   ? "blocked by hardware"
                  : soft ? "blocked by software"
                         : "",
                  finding,
                  hard ? "use the switch or line that blocks it" : "rfkill unblock bluetooth",
                  hard || on ? Verdict::problem : Verdict::warning);
            return;
        }
        judge("", finding, "");
    }

    Host& host;
    std::vector<Finding> findings;
    const corvane::RadioWiring* wiring = nullptr;  // of a board whose identity is known
    int family = 0;
    bool on = false;  // by the persisted setting
};

}  // namespace

Result examineBoard(Session& session, const Invocation& /*invocation*/) {
    const std::vector<Finding> findings = Doctor(session.host).examine();
    std::array<std::size_t, verdictRows.size()> counts{};
    Result result;
    Json list = Json::array();
    for (const Finding& each : findings) {
        const VerdictRow& row = verdictRows.at(static_cast<std::size_t>(each.verdict));
        ++counts.at(static_cast<std::size_t>(each.verdict));
        list.push_back({{"looked_for", each.lookedFor},
                        {"purpose", each.purpose},
                        {"found", each.found},
                        {"verdict", row.name},
                        {"remedy", each.remedy.empty() ? Json() : Json(each.remedy)}});
        result.text += row.label + each.lookedFor + " (" + each.purpose + "): " + each.found + '\n';
        if (!each.remedy.empty()) result.text += "        -> " + each.remedy + '\n';
    }
    const auto [good, warnings, problems] = counts;
    result.data = {{"problems", problems}, {"warnings", warnings}, {"findings", list}};
    result.text += counted(problems, "problem") + ", " + counted(warnings, "warning");
    if (problems > 0) {
        result.status = ExitStatus::boardUnfit;
        result.problem = "problems found: " + std::to_string(problems);
    }
    return result;
}

}  // namespace corvanectl
