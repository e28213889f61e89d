#include "Child.h"

#include "UniqueFd.h"

#include <csignal>
#include <cstdio>

#include <sys/prctl.h>
#include <sys/wait.h>

namespace board {

Child::Child(const std::vector<std::string>& arguments, int endSignal,
             const std::function<void()>& prepare)
    : endSignal_(endSignal) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throwErrno("fork");
    if (pid_ > 0) return;
    prctl(PR_SET_PDEATHSIG, endSignal);
    if (getppid() != parent) _exit(1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prepare();
    execvp(argv[0], argv.data());
    std::perror(argv[0]);
    _exit(127);
}

Child::~Child() {
    if (status()) return;
    end();
    waitpid(pid_, nullptr, 0);
}

std::optional<int> Child::status() {
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return status_;
}

void Child::end() const { kill(pid_, endSignal_); }

}  // namespace board
