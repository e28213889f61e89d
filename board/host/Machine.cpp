#include "Machine.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>

namespace board {
namespace {

// The clock counts 16 ns per instruction and follows real time only while the machine is idle. Its
// timeouts, such as 2 s for a controller's answer, hold on a busy build machine too.
constexpr char emulator[] =
    "qemu-system-arm -machine sabrelite -smp 1 -m 1024 -icount shift=4,sleep=on -nodefaults "
    "-no-reboot -display none";
const std::string kernelOptions =
    "console=ttymxc1,115200 quiet panic=-1 random.trust_bootloader=on cryptomgr.notests=1 "
    "init_on_alloc=0 ";

struct Link {
    UniqueFd ours, theirs;
    Link() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throwErrno("socketpair");
        ours = UniqueFd(ends[0]);
        theirs = UniqueFd(ends[1]);
    }
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

Machine::Machine(std::string name, const Files& files, const std::string& folder,
                 const std::string& commandLine, const std::string& card)
    : name_(std::move(name)), folder_(folder) {
    Link radioLink, commandLink, monitorLink;
    const auto socket = [](const char* id, const Link& link) {
        return std::string("socket,id=") + id + ",fd=" + std::to_string(link.theirs.get());
    };
    std::istringstream fixed(emulator);
    std::vector<std::string> arguments{std::istream_iterator<std::string>(fixed), {}};
    const std::vector<std::pair<const char*, std::string>> options{
        {"-nic", card},
        {"-kernel", files.kernel},
        {"-dtb", files.deviceTree},
        {"-initrd", files.initramfs},
        {"-append", kernelOptions + commandLine},
        {"-chardev", socket("radio", radioLink)},
        {"-serial", "chardev:radio"},
        {"-serial", "file:" + consoleLog()},
        {"-chardev", socket("commands", commandLink)},
        {"-serial", "chardev:commands"},
        {"-chardev", socket("monitor", monitorLink)},
        {"-mon", "chardev=monitor,mode=control"}};
    for (const auto& [option, value] : options) {
        arguments.emplace_back(option);
        arguments.push_back(value);
    }

    emulator_.emplace(arguments, SIGKILL, [&] {
        setpgid(0, 0);
        // Each machine waits for the other, so on a busy build machine the emulators get priority,
        // where that is permitted.
        setpriority(PRIO_PROCESS, 0, -10);
        for (const Link* link : {&radioLink, &commandLink, &monitorLink}) {
            fcntl(link->theirs.get(), F_SETFD, 0);
        }
        dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(::open(emulatorLog().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
    });
    radio = std::move(radioLink.ours);
    commands = std::move(commandLink.ours);
    monitor = std::move(monitorLink.ours);
}

void Machine::check() {
    const bool panicked = readFile(consoleLog()).find("Kernel panic") != std::string::npos;
    if (!emulator_->status() && !panicked) return;
    throw std::runtime_error("the emulated machine \"" + name_ + "\" " +
                             (panicked ? "panicked" : "has ended") + "; its console said:\n" +
                             lastWords());
}

bool Machine::isUp() const {
    return readFile(consoleLog()).find("init: the " + name_ + " is up") != std::string::npos;
}

std::string Machine::lastWords() const {
    const std::string console = readFile(consoleLog());
    return console.substr(console.size() > 2000 ? console.size() - 2000 : 0) +
           readFile(emulatorLog());
}

}  // namespace board
