#include "Folder.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::test {

Folder::Folder() {
    std::string pattern = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
    int ends[2];
    if (mkdtemp(pattern.data()) == nullptr || pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    where = pattern;
    keeper = fork();
    if (keeper == 0) {
        setsid();  // the terminal's signals are for the test only
        dup2(ends[0], STDIN_FILENO);
        execl("/bin/sh", "sh", "-c", "read -r _; rm -rf \"$0\"", pattern.c_str(), nullptr);
        _exit(127);
    }
    close(ends[0]);
    lifeline = ends[1];
}

Folder::~Folder() {
    close(lifeline);
    waitpid(keeper, nullptr, 0);
}

}  // namespace corvane::test
