#include "BoardNeeds.h"
#include "Groups.h"
#include "Session.h"
#include "Text.h"
#include "hwcommon/fileUtil.h"

#include <gpiod.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace corvanectl {

namespace {

namespace fs = std::filesystem;

enum class Verdict { ok, warning, problem, unused };

struct VerdictRow {
    const char* name;
    const char* label;
};

constexpr std::array<VerdictRow, 4> verdictRows{
    {{"ok", "ok      "}, {"warning", "warning "}, {"problem", "PROBLEM "}, {"unused", "unused  "}}};

struct Finding {
    std::string lookedFor;
    std::string purpose;
    std::string found;
    Verdict verdict;
    std::string remedy;  // empty when all is well
};

using Findings = std::vector<Finding>;

struct Wiring {
    const char* name;
    std::vector<unsigned> lines;
};

const std::array<Wiring, 3>& wirings() {
    static const std::array<Wiring, 3> table{{{"0: FN-link, three enable lines", {48, 153, 154}},
                                              {"1: Laird ST60-SIPT", {}},
                                              {"2: FN-link, one enable line", {49}}}};
    return table;
}

/// What is known before anything is looked at.
struct Board {
    std::optional<unsigned> wiring;
    std::optional<int> family;
    bool on = false;  // by the persisted setting
};

std::string firstLineOf(const fs::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

Finding good(const std::string& what, const std::string& purpose, const std::string& found) {
    return {what, purpose, found, Verdict::ok, ""};
}

/// The manager's rule: the Laird module for model C600, otherwise by the product family.
unsigned wiringOf(const eepromXML& identity) {
    if (identity.GetModelType() == MODEL_C600) return 1;
    return identity.GetProductFamily() == familyWithoutAudioBridge ? 2 : 0;
}

void examineIdentity(Session& session, Board& board, Findings& findings) {
    constexpr char what[] = "org.corvane.Hardware";
    constexpr char purpose[] = "the hardware service, tells the board's identity";
    try {
        const eepromXML& identity = session.identity();
        board.wiring = wiringOf(identity);
        board.family = identity.GetProductFamily();
        std::string found = GetModelNameStringExternal(identity.GetModelType()) + ", family " +
                            std::to_string(identity.GetProductFamily()) + ", revision " +
                            std::to_string(identity.GetBoardRevision()) + ", serial number " +
                            inQuotes(identity.GetSerialNumberString(true));
        if (identity.IsValid()) {
            findings.push_back(good(what, purpose, found));
        } else {
            findings.push_back({what, purpose, found + "; incomplete", Verdict::warning,
                                "correct the identity: see the log with --log-level error"});
        }
        findings.push_back(
            good("wiring", "how the radio is powered and attached", wirings()[*board.wiring].name));
    } catch (const Failure& failure) {
        findings.push_back({what, purpose, failure.what(), Verdict::problem,
                            failure.status == ExitStatus::noBus ? "start dbus-daemon"
                                                                : "start the hardware service"});
    }
}

void examineBus(Session& session, const Board& board, Findings& findings) {
    struct Name {
        const char* name;
        const char* purpose;
        Verdict missing;
        const char* remedy;
    };
    const Verdict missing = board.on ? Verdict::problem : Verdict::ok;
    const std::array<Name, 3> names{
        {{"org.freedesktop.DBus", "the message bus itself", Verdict::problem, "start dbus-daemon"},
         {"org.bluez", "BlueZ", missing, "corvanectl off, then corvanectl on"},
         {"org.corvane.BluetoothHid", "the HID service", missing,
          "corvanectl off, then corvanectl on; see the system log for /bin/hw_bluez_hid"}}};
    for (const Name& name : names) {
        const std::string what = name.name;
        try {
            if (session.isOnTheBus(what)) {
                findings.push_back(good(what, name.purpose, "on the bus"));
            } else {
                const bool fine = name.missing == Verdict::ok;
                findings.push_back(
                    {what, name.purpose,
                     std::string("not on the bus") + (fine ? ", as long as Bluetooth is off" : ""),
                     name.missing, fine ? "" : name.remedy});
            }
        } catch (const Failure& failure) {
            findings.push_back(
                {what, name.purpose, failure.what(), Verdict::problem, "start dbus-daemon"});
        }
    }
}

/// Whether a policy of the system bus names a service.
std::string policyFor(const std::string& name) {
    for (const char* folder : {"/etc/dbus-1/system.d", "/usr/share/dbus-1/system.d"}) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(folder, error)) {
            std::ifstream stream(entry.path());
            std::ostringstream text;
            text << stream.rdbuf();
            if (text.str().find('"' + name) != std::string::npos) return entry.path();
        }
    }
    return "";
}

void examinePolicy(Findings& findings) {
    for (const char* name : {"org.bluez", "org.corvane."}) {
        const std::string file = policyFor(name);
        const std::string what = std::string("bus policy for ") + name;
        if (!file.empty()) {
            findings.push_back(good(what, "who may own and call it", file));
        } else {
            findings.push_back({what, "who may own and call it", "none", Verdict::warning,
                                "install its policy file to /usr/share/dbus-1/system.d"});
        }
    }
}

Finding examineTool(const BoardNeed& need) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string file = folder + '/' + need.path;
        if (access(file.c_str(), X_OK) == 0) return good(need.path, need.purpose, file);
    }
    return {need.path, need.purpose, "not in PATH", Verdict::problem, need.remedy};
}

std::string systemError() { return std::strerror(errno); }

Finding examineModule(const BoardNeed& need) {
    utsname kernel{};
    uname(&kernel);
    const std::string file =
        std::string("/usr/lib/modules/") + kernel.release + "/kernel/" + need.path;
    // Two drivers of one name: what is loaded does not tell which.
    std::string module = fs::path(need.path).stem();
    if (module == "hci_uart_rtk" && !fs::exists("/sys/module/hci_uart_rtk")) module = "hci_uart";
    const bool loaded = fs::exists("/sys/module/" + module);
    if (access(file.c_str(), R_OK) == 0) {
        return good(file, need.purpose, loaded ? "there, loaded" : "there, not loaded");
    }
    const std::string found = systemError();
    if (loaded) {
        return {file, need.purpose, found + ", but loaded or built in", Verdict::warning,
                need.remedy};
    }
    return {file, need.purpose, found, Verdict::problem, need.remedy};
}

Finding examineFile(const BoardNeed& need) {
    Finding wrong{need.path, need.purpose, "", Verdict::problem, need.remedy};
    const auto with = [](Finding finding, const std::string& found) {
        finding.found = found;
        return finding;
    };
    struct stat status {};
    const bool there = stat(need.path, &status) == 0;
    const std::string missing = there ? "" : systemError();
    switch (need.kind) {
        case NeedKind::tool:
        case NeedKind::module:
            break;
        case NeedKind::program:
            if (!there) return with(wrong, missing);
            if (!S_ISREG(status.st_mode)) return with(wrong, "not a file");
            if (access(need.path, X_OK) != 0) return with(wrong, "not executable");
            return good(need.path, need.purpose, "there");
        case NeedKind::character:
            if (!there) return with(wrong, missing);
            if (!S_ISCHR(status.st_mode)) return with(wrong, "not a character device");
            return good(need.path, need.purpose, "there");
        case NeedKind::log:
            if (!there) return with(wrong, missing);
            if (!S_ISREG(status.st_mode)) return with(wrong, "not a file");
            if (access(need.path, R_OK) != 0) return with(wrong, systemError());
            return good(need.path, need.purpose, std::to_string(status.st_size) + " bytes");
        case NeedKind::ours: {
            const std::string folder = fs::path(need.path).parent_path();
            if (access(folder.c_str(), W_OK) != 0)
                return with(wrong, folder + ": " + systemError());
            struct stat link {};
            if (lstat(need.path, &link) == 0 && !S_ISREG(link.st_mode)) {
                return with(wrong, "not a file");
            }
            return good(need.path, need.purpose, there ? "there" : "not there yet");
        }
        case NeedKind::present:
            if (there) return good(need.path, need.purpose, "there");
            return {need.path, need.purpose, missing,
                    *need.remedy == '\0' ? Verdict::ok : Verdict::problem, need.remedy};
    }
    return wrong;
}

Finding examineNeed(const BoardNeed& need, const Board& board) {
    Finding finding = need.kind == NeedKind::tool     ? examineTool(need)
                      : need.kind == NeedKind::module ? examineModule(need)
                                                      : examineFile(need);
    const bool unused =
        (board.wiring && (need.wirings & (1U << *board.wiring)) == 0) ||
        (board.family == familyWithoutAudioBridge && need.path == std::string(audioBridge));
    if (board.on && need.path == std::string(adapter) && !fs::exists(adapter)) {
        finding.verdict = Verdict::problem;
        finding.remedy = "corvanectl off, then corvanectl on; see the system log";
    }
    if (unused) {
        finding.verdict = Verdict::unused;
        finding.remedy = "";
    } else if (!board.wiring && need.wirings != allWirings && finding.verdict == Verdict::problem) {
        finding.verdict = Verdict::warning;
        finding.found += "; not every board needs it";
    }
    return finding;
}

void examineSetting(Board& board, Findings& findings) {
    constexpr char file[] = "/tmp/bluetoothEnabled";
    constexpr char purpose[] = "its content: 1 for on, 0 for off";
    std::string text;
    if (!hwcommon::fileUtil::exists(file)) {
        findings.push_back(good("setting", purpose, "not set since the last boot"));
        return;
    }
    if (!hwcommon::fileUtil::getFileContent(file, text)) {
        findings.push_back(
            {"setting", purpose, "cannot be read", Verdict::problem, std::string("rm ") + file});
        return;
    }
    try {
        board.on = std::stoi(text) == 1;
        findings.push_back(good("setting", purpose, board.on ? "on" : "off"));
    } catch (const std::logic_error&) {
        findings.push_back({"setting", purpose, "no number: " + inQuotes(text.substr(0, 40)),
                            Verdict::problem, std::string("rm ") + file});
    }
}

void examineLines(const Board& board, Findings& findings) {
    if (!board.wiring) return;
    const auto& lines = wirings()[*board.wiring].lines;
    constexpr char purpose[] = "powers the radio";
    unsigned first = 0;
    std::set<unsigned> found;
    for (unsigned number = 0;; ++number) {
        const std::string path = "/dev/gpiochip" + std::to_string(number);
        const std::unique_ptr<gpiod_chip, decltype(&gpiod_chip_close)> chip(
            gpiod_chip_open(path.c_str()), &gpiod_chip_close);
        if (!chip) break;
        const unsigned count = gpiod_chip_num_lines(chip.get());
        for (const unsigned pin : lines) {
            if (pin < first || pin - first >= count) continue;
            found.insert(pin);
            gpiod_line* const line = gpiod_chip_get_line(chip.get(), pin - first);
            const std::string what = "GPIO " + std::to_string(pin);
            const std::string where = path + " line " + std::to_string(pin - first);
            if (line == nullptr) {
                findings.push_back({what, purpose, where + ": " + systemError(), Verdict::problem,
                                    "make the chip readable; run as root"});
                continue;
            }
            const char* const consumer = gpiod_line_consumer(line);
            const bool output = gpiod_line_direction(line) == GPIOD_LINE_DIRECTION_OUTPUT;
            const std::string state = where + (output ? ", output" : ", input");
            if (!gpiod_line_is_used(line)) {
                findings.push_back(good(what, purpose, state + ", free"));
            } else {
                findings.push_back(
                    {what, purpose,
                     state + ", held by " + inQuotes(consumer == nullptr ? "the kernel" : consumer),
                     Verdict::warning,
                     "a line serves one holder: leave the program that holds it, "
                     "unless that is the host application"});
            }
        }
        first += count;
    }
    for (const unsigned pin : lines) {
        if (found.count(pin) > 0) continue;
        findings.push_back({"GPIO " + std::to_string(pin), purpose,
                            "no such line; the chips have " + std::to_string(first),
                            Verdict::problem,
                            "load the GPIO controller's driver; the chips count in their order"});
    }
}

void examineRfkill(const Board& board, Findings& findings) {
    constexpr char purpose[] = "blocks a radio";
    std::error_code error;
    bool any = false;
    for (const auto& entry : fs::directory_iterator("/sys/class/rfkill", error)) {
        if (firstLineOf(entry.path() / "type") != "bluetooth") continue;
        any = true;
        const std::string what =
            "rfkill " + escaped(firstLineOf(entry.path() / "name")) + " (bluetooth)";
        if (firstLineOf(entry.path() / "hard") == "1") {
            findings.push_back({what, purpose, "blocked by hardware", Verdict::problem,
                                "use the switch or line that blocks it"});
        } else if (firstLineOf(entry.path() / "soft") != "1") {
            findings.push_back(good(what, purpose, "not blocked"));
        } else {
            findings.push_back({what, purpose, "blocked by software",
                                board.on ? Verdict::problem : Verdict::warning,
                                board.on ? "rfkill unblock bluetooth"
                                         : "corvanectl on lifts it, or: rfkill unblock bluetooth"});
        }
    }
    if (!any) findings.push_back(good("rfkill", purpose, "no Bluetooth radio attached"));
}

void examineUser(Findings& findings) {
    if (geteuid() == 0) {
        findings.push_back(good("user", "may load modules and use raw HCI", "root"));
    } else {
        findings.push_back({"user", "may load modules and use raw HCI", "not root",
                            Verdict::problem, "run as root"});
    }
}

std::string asText(const Findings& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        const VerdictRow& row = verdictRows.at(static_cast<std::size_t>(finding.verdict));
        text +=
            row.label + finding.lookedFor + " (" + finding.purpose + "): " + finding.found + '\n';
        if (!finding.remedy.empty()) text += "        -> " + finding.remedy + '\n';
    }
    return text;
}

std::string counted(std::size_t count, const char* word) {
    return std::to_string(count) + ' ' + word + (count == 1 ? "" : "s");
}

}  // namespace

Result examineBoard(Session& session, const Invocation& /*invocation*/) {
    Findings findings;
    examineUser(findings);
    Board board;
    examineIdentity(session, board, findings);
    examineSetting(board, findings);
    examineLines(board, findings);
    for (const BoardNeed& need : boardNeeds) findings.push_back(examineNeed(need, board));
    examineBus(session, board, findings);
    examinePolicy(findings);
    examineRfkill(board, findings);

    const auto count = [&](Verdict verdict) {
        return static_cast<std::size_t>(
            std::count_if(findings.begin(), findings.end(),
                          [&](const Finding& finding) { return finding.verdict == verdict; }));
    };
    const std::size_t problems = count(Verdict::problem);
    const std::size_t warnings = count(Verdict::warning);
    Result result;
    result.data["problems"] = problems;
    result.data["warnings"] = warnings;
    result.data["findings"] = Json::array();
    for (const Finding& finding : findings) {
        result.data["findings"].push_back(
            {{"looked_for", finding.lookedFor},
             {"purpose", finding.purpose},
             {"found", finding.found},
             {"verdict", verdictRows.at(static_cast<std::size_t>(finding.verdict)).name},
             {"remedy", finding.remedy}});
    }
    result.text =
        asText(findings) + counted(problems, "problem") + ", " + counted(warnings, "warning");
    if (problems > 0) {
        result.status = ExitStatus::boardUnfit;
        result.problem = "the board needs mending: " + counted(problems, "problem");
    }
    return result;
}

}  // namespace corvanectl
