#include "Poller.h"

#include "UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <unistd.h>

namespace board {

void Poller::add(int fd, OnData onData, OnClose onClose) {
    setNonBlocking(fd);
    channels_[fd] = {std::move(onData), std::move(onClose), {}};
}

void Poller::remove(int fd) { channels_.erase(fd); }

void Poller::send(int fd, const void* data, std::size_t size) {
    const auto channel = channels_.find(fd);
    if (channel == channels_.end()) return;
    channel->second.output.append(static_cast<const char*>(data), size);
    flush(fd);
}

void Poller::flush(int fd) {
    const auto channel = channels_.find(fd);
    if (channel == channels_.end()) return;
    std::string& output = channel->second.output;
    while (!output.empty()) {
        const ssize_t written = ::write(fd, output.data(), output.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) close(fd);
            return;
        }
        output.erase(0, static_cast<std::size_t>(written));
    }
}

void Poller::readFrom(int fd) {
    const auto channel = channels_.find(fd);
    if (channel == channels_.end()) return;
    std::uint8_t buffer[4096];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        // A copy: the callback may remove its own channel.
        const OnData onData = channel->second.onData;
        onData(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        close(fd);
    }
}

void Poller::close(int fd) {
    const auto channel = channels_.find(fd);
    const OnClose onClose = channel->second.onClose;
    channels_.erase(channel);
    if (onClose) onClose();
}

void Poller::setTick(std::chrono::milliseconds period, std::function<void()> tick) {
    period_ = period;
    tick_ = std::move(tick);
}

void Poller::run() {
    using Clock = std::chrono::steady_clock;
    running_ = true;
    auto nextTick = Clock::now();
    while (running_) {
        const auto now = Clock::now();
        if (now >= nextTick) {
            nextTick = now + period_;
            if (tick_) tick_();
            if (!running_) return;
        }
        std::vector<pollfd> polls;
        for (const auto& [fd, channel] : channels_) {
            const int events = POLLIN | (channel.output.empty() ? 0 : POLLOUT);
            polls.push_back({fd, static_cast<short>(events), 0});
        }
        const auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(nextTick - Clock::now());
        const auto timeout = static_cast<int>(std::max<std::int64_t>(wait.count(), 0)) + 1;
        if (::poll(polls.data(), polls.size(), timeout) < 0 && errno != EINTR) throwErrno("poll");
        for (const pollfd& entry : polls) {
            if (!running_) return;
            if ((entry.revents & POLLOUT) != 0) flush(entry.fd);
            if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0) readFrom(entry.fd);
        }
    }
}

}  // namespace board
