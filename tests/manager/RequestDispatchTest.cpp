#include "ManagerTest.h"

#include <atomic>
#include <memory>
#include <system_error>

using namespace corvane::test;
using namespace testing;

namespace {

/// A request that runs until the test releases it.
class HeldRequest : public BluetoothRequest {
public:
    using BluetoothRequest::BluetoothRequest;
    ~HeldRequest() override { ++destroyed; }

    void executeRequest() override {
        runningFlag = true;
        started = true;
        eventually([this] { return released.load() || cancelFlag.load(); });
        answer(cancelFlag.load() ? REQUEST_CANCELLED : REQUEST_SUCCESS);
        runningFlag = false;
    }
    void requestCancelFallback() override { ADD_FAILURE() << "nothing calls this"; }

    std::atomic<bool> started{false};
    std::atomic<bool> released{false};
    static inline std::atomic<int> destroyed{0};
};

enum class When { BEFORE_ITS_START, AT_ONCE, ONCE_IT_RUNS, NEVER };

}  // namespace

class MakeRequest : public ManagerTest {
protected:
    std::shared_ptr<HeldRequest> startHeld() {
        auto request = std::make_shared<HeldRequest>(answers.callback());
        start(request);
        EXPECT_TRUE(eventually([&] { return request->started.load(); }));
        return request;
    }
    void finish(HeldRequest& request) {
        request.released = true;
        EXPECT_EQ(answers.next(), REQUEST_SUCCESS);
        ASSERT_TRUE(eventually([&] { return !request.isStillRunning(); }));
    }
};

TEST_F(MakeRequest, RefusesNullAndASecondRequestWhileTheFirstRuns) {
    EXPECT_FALSE(manager().makeRequest(nullptr));
    EXPECT_THAT(log(), ElementsAre("ERROR makeRequest : no request given"));
    manager().cancelRequest();
    const auto first = startHeld();
    forget();
    EXPECT_FALSE(manager().makeRequest(std::make_shared<ScanBluetoothRequest>()));
    EXPECT_FALSE(manager().makeRequest(nullptr));
    const std::string record = "DEBUG Ongoing Bluetooth request: Generic BluetoothRequest";
    ASSERT_THAT(log(), ElementsAre(record, record));
    EXPECT_EQ(edges().log()[0].function,
              "bool BluetoothManager::makeRequest(std::shared_ptr<BluetoothRequest>)");
    manager().cancelRequest();
    manager().cancelRequest();
    EXPECT_EQ(answers.next(), REQUEST_CANCELLED) << "the manager still knows the first";
    EXPECT_EQ(answers.count(), 1U);
}

TEST_F(MakeRequest, ReleasesThePreviousRequestWhenItTakesTheNext) {
    auto first = startHeld();
    finish(*first);
    EXPECT_FALSE(manager().makeRequest(nullptr));
    manager().cancelRequest();  // does not affect the next one
    first.reset();
    EXPECT_EQ(HeldRequest::destroyed, 0) << "the manager still holds it";
    finish(*startHeld());
    EXPECT_EQ(HeldRequest::destroyed, 1);
}

TEST_F(MakeRequest, ThrowsWithoutAThreadAndTakesTheNextRequest) {
    const auto request = std::make_shared<HeldRequest>(answers.callback());
    manager();
    {
        const NoThreads none;
        EXPECT_THROW(manager().makeRequest(request), std::system_error);
    }
    EXPECT_FALSE(request->isStillRunning());
    manager().cancelRequest();
    finish(*startHeld());
    EXPECT_EQ(answers.count(), 1U) << "the request that never ran does not answer";
}

TEST(RequestNames, DependOnTheConstructor) {
    const auto callback = [](BluetoothRequestAnswers) {};
    constexpr char generic[] = "Generic BluetoothRequest";
    EXPECT_EQ(ScanBluetoothRequest().getRequestName(), "ScanBluetoothRequest");
    EXPECT_EQ(ScanBluetoothRequest(callback).getRequestName(), generic);
    EXPECT_EQ(ConnectBluetoothRequest(callback, nullptr, "x").getRequestName(),
              "ConnectBluetoothRequest");
    EXPECT_EQ(DisconnectBluetoothRequest().getRequestName(), "DisconnectBluetoothRequest");
    EXPECT_EQ(DisconnectBluetoothRequest(callback, nullptr, "x").getRequestName(), generic);
    EXPECT_EQ(WaitBluetoothPairingRequest().getRequestName(), "WaitBluetoothPairingRequest");
    EXPECT_EQ(WaitBluetoothPairingRequest(callback, "x").getRequestName(), generic);
}

class RequestsBackToBack : public WithHidService {};

// Also meant for the address and the thread sanitizer.
TEST_F(RequestsBackToBack, AnswerExactlyOnceWhateverIsCancelled) {
    listDevices({{"00:00:00:00:00:01", "Headset", 0x240404, true, true},
                 {"00:00:00:00:00:02", "Phone", 0x5A020C, true, true},
                 {"00:00:00:00:00:03", "Tag", 0, false, false}});
    std::size_t started = 0;
    const auto run = [&](const std::shared_ptr<BluetoothRequest>& request, When cancelled) {
        ++started;
        if (cancelled == When::BEFORE_ITS_START) request->cancelRequest();
        start(request);
        if (cancelled == When::ONCE_IT_RUNS) {
            eventually([&] { return request->isStillRunning() || answers.count() == started; });
        }
        if (cancelled != When::NEVER) manager().cancelRequest();
        EXPECT_NE(answers.next(), -1);
    };
    const auto callback = answers.callback();
    for (int round = 0; round < 5; ++round) {
        for (const When when :
             {When::BEFORE_ITS_START, When::AT_ONCE, When::ONCE_IT_RUNS, When::NEVER}) {
            // A scan that is not cancelled takes ten seconds.
            if (when != When::NEVER) run(std::make_shared<ScanBluetoothRequest>(callback), when);
            for (const char* name : {"Headset", "Phone", "Tag", "Nobody"}) {
                run(std::make_shared<ConnectBluetoothRequest>(callback, &hid, name), when);
                run(std::make_shared<DisconnectBluetoothRequest>(callback, &hid, name), when);
                run(std::make_shared<WaitBluetoothPairingRequest>(callback, name), when);
            }
        }
    }
    EXPECT_EQ(answers.count(), started);
}
