#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include <poll.h>

namespace board {

/// One thread's event loop: descriptors with queued output, and one periodic call.
class Poller {
public:
    using OnData = std::function<void(const std::uint8_t* data, std::size_t size)>;
    using OnClose = std::function<void()>;

    /// Watches a descriptor and makes it non-blocking. The caller keeps it open until remove().
    /// @param onClose  called once at the end of the stream or on a fault, after the removal
    void add(int fd, OnData onData, OnClose onClose = {});
    void remove(int fd);

    /// Queues bytes, and keeps what the other side does not take yet. Reading continues meanwhile,
    /// so that two sides that both write cannot deadlock.
    void send(int fd, const void* data, std::size_t size);
    void send(int fd, const std::string& data) { send(fd, data.data(), data.size()); }

    void setTick(std::chrono::milliseconds period, std::function<void()> tick);
    void run();
    void stop() { running_ = false; }

private:
    struct Channel {
        OnData onData;
        OnClose onClose;
        std::string output;
    };
    void flush(int fd);
    void readFrom(int fd);
    void close(int fd);

    std::map<int, Channel> channels_;
    std::function<void()> tick_;
    std::chrono::milliseconds period_{1000};
    bool running_ = false;
};

}  // namespace board
