// Becomes the board's first process after start-up. Runs the commands that the build machine sends
// over a serial line, and reaps orphaned processes.

#include "Frames.h"
#include "Poller.h"
#include "SerialLine.h"
#include "UniqueFd.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <termios.h>

namespace {

using board::Frame;
using board::FrameType;
using board::UniqueFd;

struct Pipe {
    UniqueFd read, write;
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) board::throwErrno("pipe");
        read = UniqueFd(ends[0]);
        write = UniqueFd(ends[1]);
    }
};

class Agent {
public:
    explicit Agent(const char* serialPath)
        : serial_(board::openRaw(serialPath)), signals_(watchChildren()) {
        poller_.add(
            serial_.get(),
            [this](const std::uint8_t* data, std::size_t size) {
                stream_.feed(reinterpret_cast<const char*>(data), size);
                Frame frame;
                while (stream_.next(frame)) handle(frame);
            },
            [] { throw std::runtime_error("the serial line to the build machine is gone"); });
        poller_.add(signals_.get(), [this](const std::uint8_t*, std::size_t) { buryChildren(); },
                    {});
    }

    void run() {
        send(FrameType::Ready, {});
        poller_.run();
    }

private:
    static UniqueFd watchChildren() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGCHLD);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        UniqueFd fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!fd) board::throwErrno("signalfd");
        return fd;
    }

    void send(FrameType type, const std::string& payload) {
        poller_.send(serial_.get(), board::encodeFrame(type, payload));
    }

    void handle(const Frame& frame) {
        switch (frame.type) {
            case FrameType::Run:
                start(board::RunRequest::decode(frame.payload));
                break;
            case FrameType::Input:
                input(frame.payload);
                break;
            case FrameType::Resize:
                if (terminal_)
                    resize(board::decodeNumber(frame.payload, 0),
                           board::decodeNumber(frame.payload, 1));
                break;
            case FrameType::Signal:
                if (child_ > 0) {
                    kill(-child_, static_cast<int>(board::decodeNumber(frame.payload, 0)));
                }
                break;
            default:
                break;
        }
    }

    void resize(unsigned rows, unsigned columns) {
        winsize size{};
        size.ws_row = static_cast<unsigned short>(rows);
        size.ws_col = static_cast<unsigned short>(columns);
        ioctl(input_.get(), TIOCSWINSZ, &size);
    }

    void start(const board::RunRequest& request) {
        terminal_ = request.terminal;
        if (terminal_) {
            int master = -1;
            child_ = forkpty(&master, nullptr, nullptr, nullptr);
            if (child_ < 0) board::throwErrno("forkpty");
            if (child_ == 0) exec(request);
            input_ = UniqueFd(master);
            fcntl(master, F_SETFD, FD_CLOEXEC);
            resize(request.rows, request.columns);
            collect(master, FrameType::Output);
            return;
        }
        Pipe in, out, error;
        child_ = fork();
        if (child_ < 0) board::throwErrno("fork");
        if (child_ == 0) {
            setsid();
            dup2(in.read.get(), STDIN_FILENO);
            dup2(out.write.get(), STDOUT_FILENO);
            dup2(error.write.get(), STDERR_FILENO);
            exec(request);
        }
        input_ = std::move(in.write);
        // A daemon left behind by the command may hold the pipe open. Read it as long as it is
        // open, or writing to it would kill the daemon.
        collect(out.read.release(), FrameType::Output);
        collect(error.read.release(), FrameType::Error);
        poller_.add(
            input_.get(), [](const std::uint8_t*, std::size_t) {}, [] {});
    }

    [[noreturn]] static void exec(const board::RunRequest& request) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::vector<char*> arguments;
        for (const std::string& argument : request.arguments) {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        const int status = errno == ENOENT ? 127 : 126;
        std::fprintf(stderr, "%s: %s\n", arguments[0], std::strerror(errno));
        _exit(status);
    }

    void collect(int fd, FrameType type) {
        const pid_t owner = child_;
        poller_.add(
            fd,
            [this, type, owner](const std::uint8_t* data, std::size_t size) {
                if (owner != child_) return;  // the command is over; this is one of its daemons
                send(type, std::string(reinterpret_cast<const char*>(data), size));
            },
            [this, fd] {
                outputs_.erase(fd);
                // The terminal's descriptor also serves the input, and is closed with it.
                if (fd != input_.get()) ::close(fd);
            });
        outputs_[fd] = type;
    }

    void input(const std::string& bytes) {
        if (child_ <= 0 || !input_) return;
        if (bytes.empty() && !terminal_) {
            poller_.remove(input_.get());
            input_.reset();
        } else if (bytes.empty()) {
            poller_.send(input_.get(), std::string(1, '\x04'));
        } else {
            poller_.send(input_.get(), bytes);
        }
        send(FrameType::Consumed, board::encodeNumbers({static_cast<unsigned>(bytes.size())}));
    }

    void buryChildren() {
        for (;;) {
            int status = 0;
            const pid_t pid = waitpid(-1, &status, WNOHANG);
            if (pid <= 0) return;
            if (pid == child_) finish(status);
        }
    }

    void finish(int status) {
        // The pipes still hold what the command wrote before its end: read it first.
        for (const auto& [fd, type] : outputs_) {
            char buffer[4096];
            ssize_t got = 0;
            while ((got = ::read(fd, buffer, sizeof buffer)) > 0) {
                send(type, std::string(buffer, static_cast<std::size_t>(got)));
            }
        }
        outputs_.clear();
        if (input_) poller_.remove(input_.get());
        input_.reset();
        child_ = 0;
        const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        send(FrameType::Exit, std::string(1, static_cast<char>(code)));
    }

    UniqueFd serial_;
    UniqueFd signals_;
    board::Poller poller_;
    board::FrameStream stream_;
    std::map<int, FrameType> outputs_;
    UniqueFd input_;
    pid_t child_ = 0;
    bool terminal_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: board-agent SERIAL_LINE\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    try {
        Agent(argv[1]).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "board-agent: %s\n", error.what());
    }
    return 1;
}
