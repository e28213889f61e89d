#include "SecureShell.h"

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace board {
namespace {

/// Quotes a word for the board's shell.
std::string quoted(const std::string& word) {
    std::string text = "'";
    for (const char c : word) text += c == '\'' ? "'\\''" : std::string(1, c);
    return text + "'";
}

}  // namespace

SecureShell::SecureShell(std::string key, std::string log)
    : reserved_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      key_(std::move(key)),
      log_(std::move(log)) {
    // While this socket holds the port, the kernel does not hand it out as a free one, for instance
    // to another board. With SO_REUSEADDR the emulator can still listen on it.
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (setsockopt(reserved_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(reserved_.get(), generic, size) != 0 ||
        getsockname(reserved_.get(), generic, &size) != 0) {
        throwErrno("reserving a port for ssh");
    }
    port_ = std::to_string(ntohs(address.sin_port));
}

std::string SecureShell::card() const {
    return "user,model=imx.enet,restrict=on,hostfwd=tcp:127.0.0.1:" + port_ + "-10.0.2.15:22";
}

void SecureShell::start(const std::vector<std::string>& command, bool terminal,
                        const std::string& output) {
    std::string line;
    for (const std::string& word : command) line += quoted(word) + " ";
    // The shell turns a signal that ends the command into a status; ssh would return 255 for it.
    line += "; exit $?";
    // The emulator owns the port, so the key that the board makes at each boot needs no check.
    const std::vector<std::string> arguments{"ssh",
                                             "-Fnone",
                                             "-enone",
                                             "-oIdentitiesOnly=yes",
                                             "-oLogLevel=ERROR",
                                             "-oNoHostAuthenticationForLocalhost=yes",
                                             terminal ? "-t" : "-T",
                                             "-p" + port_,
                                             "-i" + key_,
                                             "-E" + log_,
                                             "root@127.0.0.1",
                                             line};
    ssh_.emplace(arguments, SIGTERM, [&output] {
        if (output.empty()) return;
        const int null = ::open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
    });
}

std::optional<int> SecureShell::status() {
    if (!ssh_) return {};
    const std::optional<int> status = ssh_->status();
    if (status == 255) {  // the command's, unless ssh says something
        std::ostringstream messages;
        messages << std::ifstream(log_).rdbuf();
        if (!messages.str().empty()) {
            throw std::runtime_error("ssh to the board failed:\n" + messages.str());
        }
    }
    return status;
}

}  // namespace board
