// The radio module outside the board, with sockets as UARTs and a monitor that reports the levels
// chosen by the test.

#include "RadioRelay.h"
#include "UniqueFd.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include <sys/socket.h>

namespace {

using namespace std::chrono_literals;

constexpr unsigned long gpio2 = 0x020A0000;
constexpr unsigned long gpio5 = 0x020AC000;

struct Line {
    board::UniqueFd relay, ours;
    Line() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) board::throwErrno("socketpair");
        relay = board::UniqueFd(ends[0]);
        ours = board::UniqueFd(ends[1]);
    }
};

class RadioRelay : public testing::Test {
protected:
    void start(int wiring) {
        relay = std::make_unique<board::RadioRelay>(poller, uart.relay.get(), remote.relay.get(),
                                                    monitor.relay.get(), wiring);
        relay->remoteIsReady();
        poller.add(uart.ours.get(), [](const std::uint8_t*, std::size_t) {});
        poller.add(remote.ours.get(), [this](const std::uint8_t* data, std::size_t size) {
            toRemote.append(reinterpret_cast<const char*>(data), size);
            // The other machine echoes each power packet once it has obeyed it.
            if (data[0] == board::H4_RADIO_POWER) {
                poller.send(remote.ours.get(), data, size & ~std::size_t{1});
            }
        });
        poller.add(monitor.ours.get(), [this](const std::uint8_t* data, std::size_t size) {
            answerMonitor(std::string(reinterpret_cast<const char*>(data), size));
        });
        poller.send(monitor.ours.get(), std::string("{\"QMP\": {}}\n"));
    }

    void answerMonitor(const std::string& request) {
        const std::size_t at = request.find("xp /2wx 0x");
        if (at == std::string::npos) {
            poller.send(monitor.ours.get(), std::string("{\"return\": {}}\n"));
            return;
        }
        const unsigned long address = std::stoul(request.substr(at + 8), nullptr, 16);
        char text[120];
        std::snprintf(text, sizeof text,
                      "{\"return\": \"%016lx: 0x%08x 0x%08x\\r\\n\"}\n{\"event\": \"RESUME\"}\n",
                      address, level[address], direction[address]);
        poller.send(monitor.ours.get(), std::string(text));
    }

    /// Gives the relay time for several polls of the lines.
    void settle() {
        int ticks = 0;
        poller.setTick(1ms, [this, &ticks] {
            relay->poll();
            if (++ticks == 100) poller.stop();
        });
        poller.run();
    }

    void drive(unsigned long base, unsigned bit) {
        level[base] |= 1U << bit;
        direction[base] |= 1U << bit;
    }

    std::string boardSends(const std::string& bytes) {
        toRemote.clear();
        poller.send(uart.ours.get(), bytes);
        settle();
        return toRemote;
    }

    const std::string reset{"\x01\x03\x0C\x00", 4};
    const std::string on{"\xFF\x01", 2};
    const std::string off{"\xFF\x00", 2};
    board::Poller poller;
    Line uart, remote, monitor;
    std::unique_ptr<board::RadioRelay> relay;
    std::map<unsigned long, unsigned> level, direction;
    std::string toRemote;
};

TEST_F(RadioRelay, HasPowerOnlyWhileEachLineIsAnOutputAndHigh) {
    start(0);
    EXPECT_EQ(boardSends(reset), "");
    drive(gpio2, 16);
    drive(gpio5, 25);
    level[gpio5] |= 1U << 26;  // pulled up from elsewhere, but not driven
    drive(gpio2, 17);          // another wiring's line
    EXPECT_EQ(boardSends(reset), "");
    direction[gpio5] |= 1U << 26;
    settle();
    EXPECT_EQ(toRemote, on);
    EXPECT_EQ(boardSends(reset), reset);

    level[gpio2] &= ~(1U << 16);
    toRemote.clear();
    settle();
    EXPECT_EQ(toRemote, off);
    EXPECT_EQ(boardSends(reset), "");
}

TEST_F(RadioRelay, StartsAfreshAfterAPacketCutByPowerLoss) {
    start(2);
    drive(gpio2, 17);
    settle();
    boardSends(std::string("\x02\x2A\x00\x10", 4));  // a head; its body never comes
    level[gpio2] = 0;
    settle();
    drive(gpio2, 17);
    settle();
    EXPECT_EQ(boardSends(reset), reset);
}

TEST_F(RadioRelay, AlwaysHasPowerWithoutEnableLines) {
    start(1);
    settle();
    EXPECT_EQ(toRemote, on);
    // One of our own packets from the board must not reach the other machine's switch.
    EXPECT_EQ(boardSends(off + reset), reset);
}

}  // namespace
