// bluealsa: starts Debian's audio bridge with the appliance's profiles, which the bridge needs as
// arguments. This program runs as long as the bridge, under the name and executable that
// start-stop-daemon and killall look for.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* bridge = "/usr/libexec/bluealsa/bluealsa";
volatile sig_atomic_t bridgePid = 0;

void passOn(int number) {
    if (bridgePid > 0) kill(static_cast<pid_t>(bridgePid), number);
}

}  // namespace

int main(int argc, char** argv) {
    char profileOption[] = "-p";
    char profile[] = "a2dp-source";
    std::vector<char*> arguments{argv[0], profileOption, profile};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);

    // Hold signals back until there is a process to pass them on to.
    sigset_t ending, before;
    sigemptyset(&ending);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ending, number);
    sigprocmask(SIG_BLOCK, &ending, &before);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        execv(bridge, arguments.data());
        std::fprintf(stderr, "bluealsa: %s: %s\n", bridge, std::strerror(errno));
        _exit(127);
    }
    if (pid < 0) {
        std::perror("bluealsa: fork");
        return 1;
    }
    bridgePid = pid;
    struct sigaction action {};
    action.sa_handler = passOn;
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaction(number, &action, nullptr);
    sigprocmask(SIG_SETMASK, &before, nullptr);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
