#include "AgentClient.h"
#include "Frames.h"
#include "H4Stream.h"
#include "Poller.h"
#include "Tone.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/socket.h>

namespace {

using board::Bytes;
using board::Frame;
using board::FrameType;
using testing::ElementsAre;

std::vector<Bytes> cut(board::H4Stream& stream, const Bytes& bytes) {
    std::vector<Bytes> packets;
    Bytes packet;
    for (const std::uint8_t byte : bytes) {
        stream.feed(&byte, 1);
        while (stream.next(packet)) packets.push_back(packet);
    }
    return packets;
}

TEST(H4Stream, ReturnsWholePacketsHoweverBytesArrive) {
    const Bytes command{1, 0x03, 0x0C, 0};
    const Bytes data{2, 42, 0x20, 3, 0, 7, 8, 9};
    const Bytes voice{3, 1, 0, 2, 5, 5};
    const Bytes event{4, 0x0E, 4, 1, 3, 0x0C, 0};
    // Two bits above the length of isochronous data mean something else.
    const Bytes isochronous{5, 1, 0, 2, 0xC0, 6, 6};
    const Bytes power{board::H4_RADIO_POWER, board::RADIO_ON};
    Bytes all;
    for (const Bytes& packet : {command, data, voice, event, isochronous, power}) {
        all.insert(all.end(), packet.begin(), packet.end());
    }
    board::H4Stream stream;
    EXPECT_THAT(cut(stream, all), ElementsAre(command, data, voice, event, isochronous, power));
}

TEST(H4Stream, SkipsNoiseAndResetsOnRequest) {
    board::H4Stream stream;
    const Bytes event{4, 0x13, 1, 0};
    EXPECT_THAT(cut(stream, {0, 0x77, 4, 0x13, 1, 0}), ElementsAre(event));
    EXPECT_TRUE(cut(stream, {2, 42, 0, 0xFF}).empty());
    stream.clear();
    EXPECT_THAT(cut(stream, event), ElementsAre(event));
}

TEST(Frames, SurviveAnySplitAndNoiseBetweenThem) {
    const std::string line = "noise" + encodeFrame(FrameType::Output, std::string("a\xC5\0b", 4)) +
                             "\n" + encodeFrame(FrameType::Exit, std::string(1, '\x07')) +
                             encodeFrame(FrameType::Input, "");
    board::FrameStream stream;
    std::vector<std::pair<FrameType, std::string>> got;
    Frame frame{};
    for (const char byte : line) {
        stream.feed(&byte, 1);
        while (stream.next(frame)) got.emplace_back(frame.type, frame.payload);
    }
    EXPECT_THAT(got, ElementsAre(std::pair(FrameType::Output, std::string("a\xC5\0b", 4)),
                                 std::pair(FrameType::Exit, std::string("\x07")),
                                 std::pair(FrameType::Input, std::string())));
}

TEST(Frames, CarryACommandLineWithEmptyAndOddArguments) {
    board::RunRequest request;
    request.terminal = true;
    request.rows = 300;
    request.columns = 7;
    request.arguments = {"sh", "-c", "", "a b\n'\""};
    const board::RunRequest back = board::RunRequest::decode(request.encode());
    EXPECT_TRUE(back.terminal);
    EXPECT_EQ(back.rows, 300U);
    EXPECT_EQ(back.columns, 7U);
    EXPECT_EQ(back.arguments, request.arguments);

    EXPECT_ANY_THROW(board::RunRequest::decode("short"));
    EXPECT_ANY_THROW(board::RunRequest::decode(request.encode() + "unended"));
    EXPECT_ANY_THROW(board::RunRequest::decode(board::RunRequest{}.encode()));
    request.arguments.emplace_back(70000, 'x');
    EXPECT_ANY_THROW(encodeFrame(FrameType::Run, request.encode()));
}

TEST(AgentClient, HoldsInputBackUntilTheBoardHasReadSome) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    board::Poller poller;
    board::AgentClient client(poller, ends[0]);
    board::FrameStream stream;
    std::string taken;
    bool ended = false;
    std::size_t mostUnderWay = 0;
    const std::string text(3 * board::inputWindow + 5, 'x');
    poller.add(ends[1],
               [&](const std::uint8_t* data, std::size_t size) {
                   stream.feed(reinterpret_cast<const char*>(data), size);
                   std::size_t underWay = 0;
                   Frame frame{};
                   while (stream.next(frame)) {
                       if (frame.type != FrameType::Input) continue;
                       underWay += frame.payload.size();
                       taken += frame.payload;
                       ended = ended || frame.payload.empty();
                   }
                   mostUnderWay = std::max(mostUnderWay, underWay);
                   if (ended) poller.stop();
                   poller.send(
                       ends[1],
                       encodeFrame(FrameType::Consumed,
                                   board::encodeNumbers({static_cast<unsigned>(underWay)})));
               },
               {});
    client.input(text);
    client.endInput();
    poller.run();
    EXPECT_EQ(taken, text);
    EXPECT_LE(mostUnderWay, board::inputWindow);
    close(ends[0]);
    close(ends[1]);
}

TEST(Tone, MeasuresPitchAndLevelOfTheFirstChannel) {
    constexpr unsigned rate = 48000;
    Bytes sound;
    for (unsigned i = 0; i < rate / 2; ++i) {
        const double left = 12000 * std::sin(2 * M_PI * 440 * i / rate);
        const double right = 20000 * std::sin(2 * M_PI * 1000 * i / rate);
        for (const double value : {left, right}) {
            const auto sample = static_cast<std::uint16_t>(static_cast<std::int16_t>(value));
            sound.push_back(static_cast<std::uint8_t>(sample & 0xFF));
            sound.push_back(static_cast<std::uint8_t>(sample >> 8));
        }
    }
    board::Tone tone(2, rate);
    for (std::size_t at = 0; at < sound.size(); at += 7) {  // cuts samples in the middle
        tone.feed(sound.data() + at, std::min<std::size_t>(7, sound.size() - at));
    }
    EXPECT_EQ(tone.report(), "frames=24000 rate=48000 channels=2 peak=12000 tone=440");

    board::Tone silence(1, rate);
    const Bytes quiet(2000, 0);
    silence.feed(quiet.data(), quiet.size());
    EXPECT_EQ(silence.report(), "frames=1000 rate=48000 channels=1 peak=0 tone=0");
}

}  // namespace
