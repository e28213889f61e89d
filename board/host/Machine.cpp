#include "Machine.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace board {
namespace {

constexpr const char* emulator = "qemu-system-arm";

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
                 const std::string& commandLine)
    : name_(std::move(name)), folder_(folder) {
    Link radioLink, commandLink, agentLink, monitorLink;
    const auto socket = [](const char* id, const Link& link) {
        return std::string("socket,id=") + id + ",fd=" + std::to_string(link.theirs.get());
    };
    // The clock counts 16 ns per instruction and follows real time only while the machine is idle.
    // Its timeouts, such as 2 s for a controller's answer, hold on a busy build machine too.
    const char* const clock = "shift=4,sleep=on";
    const std::vector<std::string> arguments{
        emulator,
        "-machine",
        "sabrelite",
        "-smp",
        "1",
        "-m",
        "1024",
        "-icount",
        clock,
        "-nodefaults",
        "-no-reboot",
        "-display",
        "none",
        "-nic",
        "none",
        "-kernel",
        files.kernel,
        "-dtb",
        files.deviceTree,
        "-initrd",
        files.initramfs,
        "-append",
        "console=ttymxc1,115200 quiet panic=-1 random.trust_bootloader=on "
        "cryptomgr.notests=1 init_on_alloc=0 " +
            commandLine,
        "-chardev",
        socket("radio", radioLink),
        "-serial",
        "chardev:radio",
        "-serial",
        "file:" + consoleLog(),
        "-chardev",
        socket("commands", commandLink),
        "-serial",
        "chardev:commands",
        "-chardev",
        socket("agent", agentLink),
        "-serial",
        "chardev:agent",
        "-chardev",
        socket("monitor", monitorLink),
        "-mon",
        "chardev=monitor,mode=control"};

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const std::string log = emulatorLog();
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throwErrno("fork");
    if (pid_ == 0) {
        // The emulator must end with this process, however it ends.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        setpgid(0, 0);
        // Each machine waits for the other, so on a busy build machine the emulators get priority,
        // where that is permitted.
        setpriority(PRIO_PROCESS, 0, -10);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (const Link* link : {&radioLink, &commandLink, &agentLink, &monitorLink}) {
            fcntl(link->theirs.get(), F_SETFD, 0);
        }
        const int null = ::open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execvp(argv[0], argv.data());
        const std::string message =
            std::string(emulator) + ": " + std::strerror(errno) +
            (errno == ENOENT ? "; install it: apt-get install qemu-system-arm\n" : "\n");
        if (::write(STDERR_FILENO, message.data(), message.size()) < 0) _exit(126);
        _exit(127);
    }
    radio = std::move(radioLink.ours);
    commands = std::move(commandLink.ours);
    agent = std::move(agentLink.ours);
    monitor = std::move(monitorLink.ours);
}

Machine::~Machine() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Machine::check() const {
    if (pid_ > 0) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) pid_ = -1;
    }
    const bool panicked = readFile(consoleLog()).find("Kernel panic") != std::string::npos;
    if (pid_ > 0 && !panicked) return;
    throw std::runtime_error("the emulated machine \"" + name_ + "\" " +
                             (panicked ? "panicked" : "has ended") + "; its console said:\n" +
                             lastWords());
}

std::string Machine::lastWords() const {
    const std::string console = readFile(consoleLog());
    return console.substr(console.size() > 2000 ? console.size() - 2000 : 0) +
           readFile(emulatorLog());
}

}  // namespace board
