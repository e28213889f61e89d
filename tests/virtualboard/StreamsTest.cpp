#include "H4Stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using board::Bytes;
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

}  // namespace
