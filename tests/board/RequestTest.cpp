// The four requests against real remote devices, from pairing to music. The tests are steps of one
// session and run in this order, because devices stay paired.

#include "BoardTest.h"
#include "Requests.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

/// Sends commands to the remote devices, which are outside the board.
std::string peers(const std::string& command) { return board::run("peers " + command); }

std::string addressOf(const std::string& name) {
    return BluetoothManager::getInstance().getDeviceMacAddress(ALL_DEVICES, name);
}

std::string shown(const std::string& name) {
    return board::run("bluetoothctl info " + addressOf(name));
}

bool shows(const std::string& name, const std::string& line) {
    return shown(name).find(line) != std::string::npos;
}

bool connects(const std::string& name) {
    return board::waitFor([&] { return shows(name, "Connected: yes"); });
}

bool disconnects(const std::string& name) {
    return board::waitFor([&] { return shows(name, "Connected: no"); });
}

/// Runs a request to its end.
/// @return its answer
template <class Request, class... Arguments>
int run(Arguments&&... arguments) {
    return Started::make<Request>(std::forward<Arguments>(arguments)...).answer();
}

/// Plays a sine of this pitch through the audio bridge. The bridge starts at 44.1 or 48 kHz,
/// depending on its version: ALSA's plug converts where it must.
/// @return the player's output
std::string play(unsigned hertz, unsigned forSeconds, const std::string& address) {
    constexpr unsigned rate = 48000;
    constexpr double loudness = 8000;
    constexpr char file[] = "/tmp/tone.raw";
    std::ofstream tone(file, std::ios::binary);
    for (unsigned i = 0; i < rate * forSeconds; ++i) {
        const auto sample =
            static_cast<std::int16_t>(loudness * std::sin(2 * M_PI * hertz * i / rate));
        for (int channel = 0; channel < 2; ++channel) {
            tone.write(reinterpret_cast<const char*>(&sample), sizeof sample);
        }
    }
    tone.close();
    return board::run("aplay -q -D \"plug:'bluealsa:PROFILE=a2dp,DEV=" + address +
                      "'\" -t raw -f S16_LE -r 48000 -c 2 " + file);
}

/// Returns the number after "NAME="; -1 if there is none.
int numberOf(const std::string& name, const std::string& line) {
    const std::size_t at = line.find(name + "=");
    return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + name.size() + 1);
}

using Requests = BoardTest;

TEST_F(Requests, ScanFindsTheDevices) {
    // The emulated controller treats whoever paired first as the initiator of every later pairing:
    // with a new one that is the phone.
    ASSERT_EQ(peers("refresh-radio"), "");
    manager().setEnabled(true, false);
    EXPECT_TRUE(areNear(
        {"Phone", "Speaker", "Headphones", "Keyboard", "Refuser", "Ghost", "Twin", "Twin"}));
}

TEST_F(Requests, WaitEndsWhenThePhonePairs) {
    Started wait = Started::make<WaitBluetoothPairingRequest>("Phone");
    ASSERT_TRUE(board::waitFor([] { return board::adapterProperty("Discoverable") == "true"; }));
    EXPECT_EQ(board::adapterProperty("DiscoverableTimeout"), "300");
    EXPECT_EQ(peers("phone pair"), "");
    EXPECT_EQ(peers("phone connect"), "");
    EXPECT_EQ(wait.answer(), REQUEST_SUCCESS);
    EXPECT_TRUE(shows("Phone", "Paired: yes")) << shown("Phone");
    EXPECT_TRUE(shows("Phone", "Trusted: yes"));
    peers("phone disconnect");
    EXPECT_TRUE(disconnects("Phone"));
}

TEST_F(Requests, WaitPairsTrustsAndConnectsALoudspeaker) {
    ASSERT_TRUE(areNear({"Speaker"}));
    EXPECT_EQ(run<WaitBluetoothPairingRequest>("Speaker"), REQUEST_SUCCESS) << records.errors();
    EXPECT_TRUE(shows("Speaker", "Paired: yes"));
    EXPECT_TRUE(shows("Speaker", "Trusted: yes"));
    EXPECT_TRUE(connects("Speaker"));
}

TEST_F(Requests, WaitTellsWhyAnAudioDeviceFailed) {
    const std::pair<const char*, int> rows[]{{"Ghost", REQUEST_CONNECT_FAILED},
                                             {"Refuser", REQUEST_DEVICE_NOT_FOUND},
                                             {"Keyboard", REQUEST_FAILED}};
    for (const auto& [name, answer] : rows) {
        ASSERT_TRUE(areNear({name}));
        EXPECT_EQ(run<WaitBluetoothPairingRequest>(name), answer) << name;
    }
}

TEST_F(Requests, HeadphonesReplaceTheLoudspeakerAndPlay) {
    ASSERT_TRUE(areNear({"Headphones"}));
    ASSERT_TRUE(manager().pairDevice(addressOf("Headphones").c_str())) << records.errors();
    ASSERT_TRUE(manager().scanDevicesInfo());
    ASSERT_TRUE(manager().searchForDevicesName(CONNECTED_DEVICES, "Speaker"));
    records.clear();
    EXPECT_EQ(run<ConnectBluetoothRequest>(hidService(), "Headphones"), REQUEST_SUCCESS)
        << records.errors();
    EXPECT_TRUE(disconnects("Speaker"));
    EXPECT_TRUE(connects("Headphones"));

    EXPECT_EQ(peers("headphones capture"), "");
    const std::string played = play(440, 1, addressOf("Headphones"));
    const std::string heard = peers("headphones heard");
    EXPECT_NEAR(numberOf("tone", heard), 440, 5) << heard << played;
    EXPECT_GT(numberOf("peak", heard), 4000) << heard;
}

TEST_F(Requests, PhoneConnectsAndDisconnectsThroughHid) {
    ASSERT_TRUE(manager().scanDevicesInfo());
    ASSERT_TRUE(manager().searchForDevicesName(PAIRED_DEVICES, "Phone"));
    EXPECT_EQ(run<ConnectBluetoothRequest>(hidService(), "Phone"), REQUEST_SUCCESS);
    EXPECT_TRUE(connects("Phone"));
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_EQ(run<DisconnectBluetoothRequest>(hidService(), "Phone"), REQUEST_SUCCESS);
    EXPECT_TRUE(disconnects("Phone"));
}

TEST_F(Requests, VanishedDeviceFailsInsteadOfHanging) {
    peers("speaker vanish");
    EXPECT_EQ(run<ConnectBluetoothRequest>(hidService(), "Speaker"), REQUEST_FAILED);
    peers("speaker return");
    manager().setEnabled(false, false);
}

}  // namespace
