#include "ManagerTest.h"

using namespace corvane::test;
using namespace testing;
using std::chrono::milliseconds;

namespace {

constexpr char refused[] = "org.bluez.Error.Failed";
const std::string startDiscovery = adapterCall("StartDiscovery");
const std::string stopDiscovery = adapterCall("StopDiscovery");

const Device phone{"00:00:00:00:00:01", "Phone", 0x5A020C, true, false};
const Device computer{"00:00:00:00:00:02", "Computer", 0x000104, true, false};
const Device speaker{"00:00:00:00:00:03", "Speaker", 0x240414, true, true};
const Device headphones{"00:00:00:00:00:04", "Headphones", 0x240418, true, false};
const Device microphone{"00:00:00:00:00:05", "Microphone", 0x240410, true, true};
const Device keyboard{"00:00:00:00:00:06", "Keyboard", 0x000540, true, true};

Device connected(Device device) {
    device.connected = true;
    return device;
}

Device unpaired(Device device) {
    device.paired = false;
    return device;
}

std::string hidCall(const std::string& method, const Device& device) {
    return "org.corvane.BluetoothHid /org/corvane/BluetoothHid org.corvane.BluetoothHid1." +
           method + " ('" + device.address + "',)";
}

}  // namespace

class RequestTest : public WithHidService {
protected:
    template <class Request, class... Arguments>
    int run(Arguments... arguments) {
        start(std::make_shared<Request>(answers.callback(), arguments...));
        return answers.next();
    }

    /// Runs a request that was cancelled before its thread started.
    template <class Request, class... Arguments>
    int runCancelled(Arguments... arguments) {
        const auto request = std::make_shared<Request>(answers.callback(), arguments...);
        request->cancelRequest();
        start(request);
        return answers.next();
    }

    bool reached(const std::string& call, int times = 1) {
        return eventually([&] { return bluez.countCalls(call) >= times; });
    }
};

class ScanRequest : public RequestTest {};

TEST_F(ScanRequest, EndsJustAfterTenSeconds) {
    Clock::stop();
    bluez.fail("/org/bluez/hci0", "St*Discovery", refused, "No");
    const auto request = std::make_shared<ScanBluetoothRequest>(answers.callback());
    start(request);
    ASSERT_TRUE(reached(startDiscovery));
    const auto goesRound = [] {
        return eventually([before = Clock::reads()] { return Clock::reads() > before + 10; });
    };
    ASSERT_TRUE(goesRound());
    Clock::advance(milliseconds(10000) + std::chrono::microseconds(999));
    ASSERT_TRUE(goesRound());
    EXPECT_TRUE(request->isStillRunning());
    EXPECT_EQ(answers.count(), 0U);
    Clock::advance(milliseconds(1));
    EXPECT_EQ(answers.next(), REQUEST_SUCCESS) << "even if BlueZ could not start the discovery";
    EXPECT_THAT(happened({Kind::BUS}), ElementsAre(startDiscovery, stopDiscovery));
    EXPECT_TRUE(eventually([&] { return !request->isStillRunning(); }));
}

TEST_F(ScanRequest, AnswersACancellationAtOnce) {
    Clock::stop();
    start(std::make_shared<ScanBluetoothRequest>(answers.callback()));
    ASSERT_TRUE(reached(startDiscovery));
    manager().cancelRequest();
    EXPECT_THAT(answers.next(), AnyOf(REQUEST_CANCELLED, REQUEST_FAILED));
    EXPECT_THAT(happened({Kind::BUS}), ElementsAre(startDiscovery, stopDiscovery));
    EXPECT_THAT(happened({Kind::SLEEP}), IsEmpty());
    forget();
    EXPECT_EQ(runCancelled<ScanBluetoothRequest>(), REQUEST_FAILED) << "cancelled before its start";
    EXPECT_THAT(happened({Kind::BUS}), ElementsAre(startDiscovery, stopDiscovery));
    EXPECT_EQ(answers.count(), 2U);
}

class ConnectRequest : public RequestTest {};

TEST_F(ConnectRequest, UsesHidForPhonesAndComputers) {
    listDevices({phone, computer});
    EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, "Phone"), REQUEST_SUCCESS);
    bluez.reply("/org/corvane/BluetoothHid", "Connect", "('Connect success.',)");
    EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, "Computer"), REQUEST_FAILED);
    EXPECT_THAT(happened({Kind::BUS}),
                ElementsAre(hidCall("Connect", phone), hidCall("Connect", computer)));
    EXPECT_EQ(run<ConnectBluetoothRequest>(nullptr, "Phone"), REQUEST_FAILED) << "no HID service";
}

TEST_F(ConnectRequest, DisconnectsTheOtherPlaybackDevicesFirst) {
    const Device second{"00:00:00:00:00:07", "Kitchen", 0x240414, false, true};
    listDevices({speaker, connected(headphones), microphone, keyboard, connected(phone), second});
    bluez.fail(speaker.path(), "Disconnect", refused, "No");
    EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, "Headphones"), REQUEST_SUCCESS);
    EXPECT_THAT(happened({Kind::BUS}), ElementsAre(deviceCall(speaker.address, "Disconnect"),
                                                   deviceCall(second.address, "Disconnect"),
                                                   deviceCall(headphones.address, "Connect")))
        << "the target is not disconnected, but connected again";
    std::vector<std::string> own;
    for (const auto& record : edges().log()) {
        if (record.file == "ConnectBluetoothRequest.cpp") own.push_back(record.message);
    }
    const std::string signature = "bool ConnectBluetoothRequest::toggleAudioDevices()";
    EXPECT_THAT(
        own, ElementsAre(signature + " Disconnecting Speaker", signature + " Disconnecting Kitchen",
                         signature + " Trying to connect to Headphones"));
}

TEST_F(ConnectRequest, FallsBackToHidWhenTheAudioConnectionFails) {
    listDevices({headphones, microphone});
    bluez.fail(headphones.path(), "Connect", refused, "No");
    EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, "Headphones"), REQUEST_SUCCESS);
    EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, "Microphone"), REQUEST_SUCCESS)
        << "not a playback device, so only HID is tried";
    EXPECT_THAT(happened({Kind::BUS}),
                ElementsAre(deviceCall(headphones.address, "Connect"),
                            hidCall("Connect", headphones), hidCall("Connect", microphone)));
    EXPECT_EQ(run<ConnectBluetoothRequest>(nullptr, "Headphones"), REQUEST_FAILED);
}

TEST_F(ConnectRequest, RefusesOtherClassesDevicesThatAreNotPairedAndEarlyCancels) {
    listDevices({keyboard, computer, unpaired(phone)});
    for (const char* name : {"Keyboard", "Phone", "Nobody", ""}) {
        EXPECT_EQ(run<ConnectBluetoothRequest>(&hid, name), REQUEST_FAILED) << name;
    }
    EXPECT_EQ(runCancelled<ConnectBluetoothRequest>(&hid, "Computer"), REQUEST_FAILED);
    EXPECT_THAT(happened({Kind::BUS}), IsEmpty());
}

TEST_F(ConnectRequest, ACancellationDuringTheAttemptHasNoEffect) {
    listDevices({phone});
    bluez.reply("/org/corvane/BluetoothHid", "Connect", "('Connect success',)", 0,
                FakeBluez::untilLetGo);
    start(std::make_shared<ConnectBluetoothRequest>(answers.callback(), &hid, "Phone"));
    ASSERT_TRUE(reached(hidCall("Connect", phone)));
    manager().cancelRequest();
    bluez.letGo();
    EXPECT_EQ(answers.next(), REQUEST_SUCCESS);
}

class DisconnectRequest : public RequestTest {};

TEST_F(DisconnectRequest, RetriesUntilItWorksThenDisconnectsPhonesAndComputersFromHidToo) {
    listDevices({connected(phone), connected(computer), speaker});
    bluez.fail(phone.path(), "Disconnect", refused, "No", 2);
    bluez.reply("/org/corvane/BluetoothHid", "Disconnect", "('whatever',)");
    EXPECT_EQ(run<DisconnectBluetoothRequest>(&hid, "Phone"), REQUEST_SUCCESS);
    EXPECT_EQ(run<DisconnectBluetoothRequest>(&hid, "Computer"), REQUEST_SUCCESS);
    EXPECT_EQ(run<DisconnectBluetoothRequest>(nullptr, "Computer"), REQUEST_SUCCESS);
    EXPECT_EQ(run<DisconnectBluetoothRequest>(&hid, "Speaker"), REQUEST_SUCCESS);
    const std::string fromPhone = deviceCall(phone.address, "Disconnect");
    const std::string fromComputer = deviceCall(computer.address, "Disconnect");
    EXPECT_THAT(happened({Kind::BUS}),
                ElementsAre(fromPhone, fromPhone, fromPhone, hidCall("Disconnect", phone),
                            fromComputer, hidCall("Disconnect", computer), fromComputer,
                            deviceCall(speaker.address, "Disconnect")));
}

TEST_F(DisconnectRequest, RetriesUntilCancelled) {
    listDevices({speaker});
    bluez.fail(speaker.path(), "Disconnect", refused, "No");
    start(std::make_shared<DisconnectBluetoothRequest>(answers.callback(), &hid, "Speaker"));
    ASSERT_TRUE(reached(deviceCall(speaker.address, "Disconnect"), 5));
    manager().cancelRequest();
    EXPECT_EQ(answers.next(), REQUEST_FAILED);
    EXPECT_THAT(happened({Kind::SLEEP}), IsEmpty());
}

TEST_F(DisconnectRequest, UsesConnectedAddressesAndAnyKnownClass) {
    listDevices({headphones});
    start(std::make_shared<DisconnectBluetoothRequest>(answers.callback(), &hid, "Headphones"));
    ASSERT_TRUE(reached(deviceCall("", "Disconnect"), 2)) << "not connected: no address";
    manager().cancelRequest();
    EXPECT_EQ(answers.next(), REQUEST_FAILED);
    EXPECT_EQ(bluez.countCalls(deviceCall(headphones.address, "Disconnect")), 0);
}

TEST_F(DisconnectRequest, RefusesOtherClassesUnknownNamesAndEarlyCancels) {
    listDevices({keyboard, speaker});
    EXPECT_EQ(run<DisconnectBluetoothRequest>(&hid, "Keyboard"), REQUEST_FAILED);
    EXPECT_EQ(run<DisconnectBluetoothRequest>(&hid, "Nobody"), REQUEST_FAILED);
    EXPECT_EQ(runCancelled<DisconnectBluetoothRequest>(&hid, "Speaker"), REQUEST_FAILED);
    EXPECT_THAT(happened({Kind::BUS}), IsEmpty());
}

class WaitRequest : public RequestTest {
protected:
    const std::string scan = "GetManagedObjects";
};

TEST_F(WaitRequest, TrustsBeforeItMakesTheAdapterDiscoverable) {
    EXPECT_EQ(run<WaitBluetoothPairingRequest>("Nobody"), REQUEST_FAILED) << "class not known";
    EXPECT_THAT(happened({Kind::BUS}),
                ElementsAre(trust(""), adapterSet("Discoverable", "true"),
                            adapterSet("DiscoverableTimeout", "uint32 300"),
                            "org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects ()"));
    EXPECT_EQ(log()[2], "ERROR Not able to set Trusted property");
    listDevices({keyboard});
    EXPECT_EQ(run<WaitBluetoothPairingRequest>("Keyboard"), REQUEST_FAILED);
    EXPECT_EQ(happened({Kind::BUS}).front(), trust(keyboard.address));
    EXPECT_EQ(bluez.countCalls(scan), 1) << "no waiting";
}

TEST_F(WaitRequest, SucceedsWhenThePhoneConnectsOnTheThirdPass) {
    listDevices({phone});
    bluez.setDevices({connected(phone)});
    bluez.setDevices({phone}, 3);
    EXPECT_EQ(run<WaitBluetoothPairingRequest>("Phone"), REQUEST_SUCCESS);
    EXPECT_EQ(bluez.countCalls(scan), 4) << "one before the loop";
    EXPECT_EQ(bluez.countCalls("Pair"), 0) << "the remote side pairs";
    EXPECT_EQ(answers.count(), 1U);
}

TEST_F(WaitRequest, TimesOutAfterAMinute) {
    listDevices({computer});
    Clock::stop();
    const auto request =
        std::make_shared<WaitBluetoothPairingRequest>(answers.callback(), "Computer");
    start(request);
    ASSERT_TRUE(reached(scan, 3));
    Clock::advance(milliseconds(60000) + std::chrono::microseconds(999));
    ASSERT_TRUE(reached(scan, bluez.countCalls(scan) + 3));
    EXPECT_TRUE(request->isStillRunning());
    EXPECT_EQ(answers.count(), 0U);
    Clock::advance(milliseconds(1));
    EXPECT_EQ(answers.next(), REQUEST_TIMEOUT);
}

TEST_F(WaitRequest, TheLastPassDecidesTheAnswerUnlessTheTimeIsOver) {
    const struct {
        const char* name;
        bool cancelled;  // otherwise the time is over
        bool found;
        int answer;
    } rows[]{{"Late", false, true, REQUEST_TIMEOUT},
             {"Found", true, true, REQUEST_SUCCESS},
             {"Cancelled", true, false, REQUEST_CANCELLED}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Device device = row.found ? connected(phone) : phone;
        listDevices({device});
        bluez.setDevices({device}, 0, FakeBluez::untilLetGo);
        bluez.setDevices({device}, 1);  // the scan before the loop
        Clock::stop();
        start(std::make_shared<WaitBluetoothPairingRequest>(answers.callback(), device.name));
        ASSERT_TRUE(reached(scan, 2));
        row.cancelled ? manager().cancelRequest() : Clock::advance(milliseconds(60001));
        bluez.letGo();
        EXPECT_EQ(answers.next(), row.answer);
        EXPECT_EQ(bluez.countCalls(scan), 2) << "no further pass";
    }
}

TEST_F(WaitRequest, CancelledBeforeTheLoopFails) {
    listDevices({phone, headphones});
    EXPECT_EQ(runCancelled<WaitBluetoothPairingRequest>("Phone"), REQUEST_FAILED);
    EXPECT_EQ(runCancelled<WaitBluetoothPairingRequest>("Headphones"), REQUEST_FAILED);
    EXPECT_EQ(bluez.countCalls(scan), 2) << "only the one before the loop";
    EXPECT_EQ(bluez.countCalls("Pair "), 0);
    EXPECT_EQ(bluez.countCalls("'Discoverable'"), 2);
}

class WaitForAudio : public WaitRequest {};

TEST_F(WaitForAudio, TriesToConnectAPlaybackDeviceEvenIfPairingFails) {
    const struct {
        const char* name;
        bool pairs, connects, paired;
        std::uint32_t deviceClass;
        bool triesToConnect;
        int answer;
    } rows[]{{"Works", true, true, true, 0x240418, true, REQUEST_SUCCESS},
             {"PairingFails", false, true, true, 0x240418, true, REQUEST_FAILED},
             {"ConnectionFails", true, false, true, 0x240418, true, REQUEST_CONNECT_FAILED},
             {"BothFail", false, false, true, 0x240418, true, REQUEST_CONNECT_FAILED},
             {"NotPairedAfterwards", true, true, false, 0x240418, false, REQUEST_DEVICE_NOT_FOUND},
             {"NoPlaybackDevice", true, true, true, 0x240410, false, REQUEST_SUCCESS},
             {"NoPlaybackDevicePairingFails", false, true, true, 0x240410, false, REQUEST_FAILED}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Device device{headphones.address, "Headphones", row.deviceClass, row.paired};
        listDevices({device});
        if (!row.pairs) bluez.fail(device.path(), "Pair", refused, "No");
        if (!row.connects) bluez.fail(device.path(), "Connect", refused, "No");
        EXPECT_EQ(run<WaitBluetoothPairingRequest>("Headphones"), row.answer);
        EXPECT_EQ(bluez.countCalls(deviceCall(device.address, "Pair")), 1);
        EXPECT_EQ(bluez.countCalls(deviceCall(device.address, "Connect")), row.triesToConnect);
        EXPECT_EQ(bluez.countCalls(scan), 2);
    }
}

TEST_F(WaitRequest, ConnectsTheAddressFromThePairedList) {
    const Device after{"00:00:00:00:00:44", headphones.name, headphones.deviceClass, true};
    bluez.setDevices({after});
    EXPECT_EQ(run<WaitBluetoothPairingRequest>("Headphones"), REQUEST_FAILED)
        << "unknown before: an empty address cannot be paired";
    EXPECT_EQ(bluez.countCalls(deviceCall("", "Pair")), 1);
    EXPECT_EQ(bluez.countCalls(deviceCall(after.address, "Connect")), 1);
}

class RequestCallback : public RequestTest {
protected:
    /// Tells whether the manager takes the next request from the callback of this one.
    template <class Request, class... Arguments>
    bool startsTheNext(Arguments... arguments) {
        bool running = false;
        bool taken = false;
        std::shared_ptr<BluetoothRequest> request;
        const auto callback = [&](BluetoothRequestAnswers answer) {
            running = request->isStillRunning();
            taken = manager().makeRequest(
                std::make_shared<ConnectBluetoothRequest>(nullptr, nullptr, "Nobody"));
            answers.note(answer);
        };
        request = std::make_shared<Request>(callback, arguments...);
        request->cancelRequest();
        start(request);
        EXPECT_NE(answers.next(), -1);
        EXPECT_NE(running, taken);
        return taken;
    }
};

TEST_F(RequestCallback, MayStartTheNextRequestOnlyAfterAConnect) {
    EXPECT_FALSE(startsTheNext<ScanBluetoothRequest>());
    EXPECT_FALSE(startsTheNext<DisconnectBluetoothRequest>(nullptr, "Nobody"));
    EXPECT_FALSE(startsTheNext<WaitBluetoothPairingRequest>("Nobody"));
    EXPECT_TRUE(startsTheNext<ConnectBluetoothRequest>(nullptr, "Nobody"));
}
