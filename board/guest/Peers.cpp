// peers: lets a program on the board control the remote devices, as a person would in a laboratory.

#include "SerialLine.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include <poll.h>
#include <sys/file.h>

namespace {

constexpr const char* commandLine = "/dev/ttymxc2";
constexpr int answerTime = 600000;  // ms; the longest command searches and pairs

constexpr const char* usage =
    "usage: peers list            all devices\n"
    "       peers DEVICE ACTION   an unknown action lists the ones there are\n"
    "       peers refresh-radio   a fresh controller for the board\n"
    "       peers radio FAULT     lets the board's radio misbehave: silent, refuse, reset, "
    "vanish;\n"
    "                             normal again\n";

int command(const std::string& line) {
    const board::UniqueFd fd = board::openRaw(commandLine);
    if (flock(fd.get(), LOCK_EX) != 0) board::throwErrno(commandLine);
    const std::string request = line + "\n";
    if (::write(fd.get(), request.data(), request.size()) < 0) board::throwErrno(commandLine);
    std::string text;
    for (;;) {
        std::size_t end = 0;
        while ((end = text.find('\n')) != std::string::npos) {
            const std::string answer = text.substr(0, end);
            text.erase(0, end + 1);
            if (answer == "ok") return EXIT_SUCCESS;
            if (answer.rfind("error: ", 0) == 0) {
                std::fprintf(stderr, "peers: %s: %s\n", line.c_str(), answer.c_str() + 7);
                return EXIT_FAILURE;
            }
            std::puts(answer.c_str());
        }
        pollfd entry{fd.get(), POLLIN, 0};
        if (::poll(&entry, 1, answerTime) <= 0) {
            std::fprintf(stderr, "peers: %s: no answer from the remote devices\n", line.c_str());
            return EXIT_FAILURE;
        }
        char bytes[512];
        const ssize_t got = ::read(fd.get(), bytes, sizeof bytes);
        if (got > 0) text.append(bytes, static_cast<std::size_t>(got));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(usage, stderr);
        return 2;
    }
    std::string line = argv[1];
    for (int i = 2; i < argc; ++i) line += std::string(" ") + argv[i];
    try {
        return command(line);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "peers: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
