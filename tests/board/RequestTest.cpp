// The four requests against real remote devices, from pairing to music. The tests are steps of one
// session: they run in this order and share one process, because it has one manager and devices
// stay paired.

#include "BluetoothManager.h"

#include "Board.h"
#include "Records.h"
#include "Requests.h"
#include "bluetoothRequests/ConnectBluetoothRequest.h"
#include "bluetoothRequests/DisconnectBluetoothRequest.h"
#include "bluetoothRequests/ScanBluetoothRequest.h"
#include "bluetoothRequests/WaitBluetoothPairingRequest.h"
#include "hwcommon/DBusBluetoothHidProxy.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <set>
#include <string>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

BluetoothManager& manager() { return BluetoothManager::getInstance(); }

hwcommon::DBusBluetoothHidProxy* hidService() {
    static const auto connection = sdbus::createSystemBusConnection();
    static hwcommon::DBusBluetoothHidProxy proxy(*connection);
    return &proxy;
}

/// Sends commands to the remote devices, which are outside the board.
std::string peers(const std::string& command) { return board::run("peers " + command); }

std::string addressOf(const std::string& name) {
    return manager().getDeviceMacAddress(ALL_DEVICES, name);
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

/// The answers seen in this run, for the summary at the end.
std::set<int>& answersSeen() {
    static std::set<int> seen;
    return seen;
}

int noted(int answer, const char* how) {
    static const std::array<const char*, 6> names{"REQUEST_SUCCESS",   "REQUEST_TIMEOUT",
                                                  "REQUEST_CANCELLED", "REQUEST_CONNECT_FAILED",
                                                  "REQUEST_FAILED",    "REQUEST_DEVICE_NOT_FOUND"};
    if (answer >= 0) {
        answersSeen().insert(answer);
        std::cout << "answer " << answer << " " << names.at(static_cast<std::size_t>(answer))
                  << ": " << how << std::endl;
    }
    return answer;
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

class Requests : public testing::Test {
protected:
    Records records;
};

TEST_F(Requests, ScanFindsTheDevices) {
    // The emulated controller treats whoever paired first as the initiator of every later pairing:
    // with a new one that is the phone.
    ASSERT_EQ(peers("refresh-radio"), "");
    manager().setEnabled(true, false);
    ASSERT_EQ(noted(Started::make<ScanBluetoothRequest>().answer(), "scan"), REQUEST_SUCCESS);
    EXPECT_TRUE(areNear(
        {"Phone", "Speaker", "Headphones", "Keyboard", "Refuser", "Ghost", "Twin", "Twin"}));
}

TEST_F(Requests, WaitEndsWhenThePhonePairs) {
    Started wait = Started::make<WaitBluetoothPairingRequest>("Phone");
    ASSERT_TRUE(board::waitFor([] { return board::adapterProperty("Discoverable") == "true"; }));
    EXPECT_EQ(board::adapterProperty("DiscoverableTimeout"), "300");
    EXPECT_EQ(peers("phone pair"), "");
    EXPECT_EQ(peers("phone connect"), "");
    EXPECT_EQ(noted(wait.answer(), "wait-pair, the phone paired and connected"), REQUEST_SUCCESS);
    EXPECT_TRUE(shows("Phone", "Paired: yes")) << shown("Phone");
    EXPECT_TRUE(shows("Phone", "Trusted: yes"));
    peers("phone disconnect");
    EXPECT_TRUE(disconnects("Phone"));
}

TEST_F(Requests, WaitCanBeCancelled) {
    Started wait = Started::make<WaitBluetoothPairingRequest>("Phone");
    ASSERT_TRUE(board::waitFor([&] { return wait.isRunning(); }));
    // By then it has made at least three passes, each with a scan of the lists.
    ASSERT_FALSE(board::waitFor([&] { return !wait.isRunning(); }, 1500));
    manager().cancelRequest();
    const int answer = noted(wait.answer(), "wait-pair, cancelled");
    EXPECT_TRUE(answer == REQUEST_CANCELLED || answer == REQUEST_FAILED) << answer;
}

TEST_F(Requests, WaitPairsTrustsAndConnectsALoudspeaker) {
    ASSERT_TRUE(areNear({"Speaker"}));
    EXPECT_EQ(noted(Started::make<WaitBluetoothPairingRequest>("Speaker").answer(),
                    "wait-pair of a loudspeaker"),
              REQUEST_SUCCESS)
        << records.errors();
    EXPECT_TRUE(shows("Speaker", "Paired: yes"));
    EXPECT_TRUE(shows("Speaker", "Trusted: yes"));
    EXPECT_TRUE(connects("Speaker"));
}

TEST_F(Requests, WaitTellsWhyAnAudioDeviceFailed) {
    ASSERT_TRUE(areNear({"Ghost"}));
    EXPECT_EQ(noted(Started::make<WaitBluetoothPairingRequest>("Ghost").answer(),
                    "wait-pair of a device that pairs but cannot be connected"),
              REQUEST_CONNECT_FAILED);
    ASSERT_TRUE(areNear({"Refuser"}));
    EXPECT_EQ(noted(Started::make<WaitBluetoothPairingRequest>("Refuser").answer(),
                    "wait-pair of a device that refuses"),
              REQUEST_DEVICE_NOT_FOUND);
    ASSERT_TRUE(areNear({"Keyboard"}));
    EXPECT_EQ(noted(Started::make<WaitBluetoothPairingRequest>("Keyboard").answer(),
                    "wait-pair of a keyboard"),
              REQUEST_FAILED);
}

TEST_F(Requests, HeadphonesReplaceTheLoudspeakerAndPlay) {
    ASSERT_TRUE(areNear({"Headphones"}));
    ASSERT_TRUE(manager().pairDevice(addressOf("Headphones").c_str())) << records.errors();
    ASSERT_TRUE(manager().scanDevicesInfo());
    ASSERT_TRUE(manager().searchForDevicesName(CONNECTED_DEVICES, "Speaker"));
    records.clear();
    Started connect = Started::make<ConnectBluetoothRequest>(hidService(), "Headphones");
    EXPECT_EQ(noted(connect.answer(), "connect of headphones"), REQUEST_SUCCESS)
        << records.errors();

    const std::string all = records.all();
    const std::size_t away =
        all.find("bool ConnectBluetoothRequest::toggleAudioDevices() Disconnecting Speaker\n");
    const std::size_t there = all.find(
        "bool ConnectBluetoothRequest::toggleAudioDevices() Trying to connect to Headphones\n");
    ASSERT_NE(away, std::string::npos) << all;
    ASSERT_NE(there, std::string::npos) << all;
    EXPECT_LT(away, there);
    EXPECT_TRUE(disconnects("Speaker"));
    EXPECT_TRUE(connects("Headphones"));

    EXPECT_EQ(peers("headphones capture"), "");
    const std::string played = play(440, 1, addressOf("Headphones"));
    const std::string heard = peers("headphones heard");
    std::cout << "the headphones heard: " << heard;
    EXPECT_NEAR(numberOf("tone", heard), 440, 5) << heard << played;
    EXPECT_GT(numberOf("peak", heard), 4000) << heard;
}

TEST_F(Requests, PhoneConnectsAndDisconnectsThroughHid) {
    ASSERT_TRUE(manager().scanDevicesInfo());
    ASSERT_TRUE(manager().searchForDevicesName(PAIRED_DEVICES, "Phone"));
    EXPECT_EQ(noted(Started::make<ConnectBluetoothRequest>(hidService(), "Phone").answer(),
                    "connect of a phone"),
              REQUEST_SUCCESS);
    EXPECT_TRUE(connects("Phone"));
    ASSERT_TRUE(manager().scanDevicesInfo());
    EXPECT_EQ(noted(Started::make<DisconnectBluetoothRequest>(hidService(), "Phone").answer(),
                    "disconnect of a phone"),
              REQUEST_SUCCESS);
    EXPECT_TRUE(disconnects("Phone"));
}

TEST_F(Requests, AudioDeviceFallsBackToHid) {
    board::run(
        "start-stop-daemon -S -b -m -p /tmp/monitor.pid -x /bin/sh -- -c "
        "'exec dbus-monitor --system \"interface=org.corvane.BluetoothHid1\" > /tmp/monitor'");
    ASSERT_TRUE(board::waitFor([] { return !board::fileContent("/tmp/monitor").empty(); }));
    EXPECT_EQ(noted(Started::make<ConnectBluetoothRequest>(hidService(), "Ghost").answer(),
                    "connect of a device that nobody can connect"),
              REQUEST_FAILED);
    EXPECT_TRUE(records.has(log4cplus::ERROR_LOG_LEVEL, "Not able to connect device"));
    const std::string call = "string \"" + addressOf("Ghost") + "\"";
    EXPECT_TRUE(board::waitFor([&] {
        return board::fileContent("/tmp/monitor").find(call) != std::string::npos;
    })) << board::fileContent("/tmp/monitor");
    board::run("start-stop-daemon -K -p /tmp/monitor.pid");
}

TEST_F(Requests, DisconnectRetriesUntilCancelled) {
    // The loudspeaker is known but not connected, so the connected list does not have its address.
    Started disconnect = Started::make<DisconnectBluetoothRequest>(hidService(), "Speaker");
    ASSERT_TRUE(board::waitFor([&] { return disconnect.isRunning(); }));
    EXPECT_FALSE(board::waitFor([&] { return !disconnect.isRunning(); }, 2000));
    manager().cancelRequest();
    EXPECT_EQ(noted(disconnect.answer(), "disconnect, cancelled"), REQUEST_FAILED);
    EXPECT_TRUE(records.has(log4cplus::ERROR_LOG_LEVEL, "Not able to disconnect device"));
}

TEST_F(Requests, WaitTimesOutWhenNobodyPairs) {
    const auto start = steady_clock::now();
    Started wait = Started::make<WaitBluetoothPairingRequest>("Phone");
    EXPECT_EQ(noted(wait.answer(), "wait-pair, the phone did not come"), REQUEST_TIMEOUT);
    // The adapter stays discoverable for 300 s; the test does not wait for that.
    const auto took = steady_clock::now() - start;
    EXPECT_GT(took, seconds(60));
    EXPECT_LT(took, seconds(240));
}

TEST_F(Requests, VanishingDeviceFailsInsteadOfHanging) {
    peers("speaker vanish");
    const int answer = Started::make<ConnectBluetoothRequest>(hidService(), "Speaker").answer();
    EXPECT_EQ(noted(answer, "connect of a loudspeaker that has vanished"), REQUEST_FAILED);
    peers("speaker return");
}

/// Tells whether a callback of `Request` may start another request.
template <class Request, class... Arguments>
bool callbackMayStartARequest(Arguments&&... arguments) {
    auto result = std::make_shared<std::promise<bool>>();
    auto accepted = result->get_future();
    const auto request = std::make_shared<Request>(
        [result](BluetoothRequestAnswers) {
            // An unhandled class: the request ends at once if it is accepted.
            result->set_value(manager().makeRequest(
                std::make_shared<DisconnectBluetoothRequest>(nullptr, nullptr, "nobody")));
        },
        std::forward<Arguments>(arguments)...);
    EXPECT_TRUE(manager().makeRequest(request));
    if (std::is_same_v<Request, ScanBluetoothRequest>) {
        EXPECT_TRUE(board::waitFor([&] { return request->isStillRunning(); }));
        manager().cancelRequest();
    }
    const bool value = accepted.get();
    EXPECT_TRUE(board::waitFor([&] { return !request->isStillRunning(); }));
    return value;
}

TEST_F(Requests, OnlyAConnectCallbackMayStartTheNextRequest) {
    EXPECT_FALSE(callbackMayStartARequest<ScanBluetoothRequest>());
    EXPECT_FALSE(callbackMayStartARequest<DisconnectBluetoothRequest>(nullptr, "nobody"));
    EXPECT_FALSE(callbackMayStartARequest<WaitBluetoothPairingRequest>("nobody"));
    EXPECT_TRUE(callbackMayStartARequest<ConnectBluetoothRequest>(nullptr, "nobody"));
}

TEST_F(Requests, EveryAnswerWasSeen) {
    for (int answer = REQUEST_SUCCESS; answer <= REQUEST_DEVICE_NOT_FOUND; ++answer) {
        EXPECT_EQ(answersSeen().count(answer), 1U) << answer;
    }
    manager().setEnabled(false, false);
}

}  // namespace

int main(int argc, char** argv) {
    setenv("G_DEBUG", "fatal-criticals", 1);
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::cout.flush();
    // After a request, destroying the manager ends in std::terminate(), so leave as hosts do.
    std::quick_exit(status);
}
