// The engine against the real platform: what start, stop and the setters leave
// in the platform's configuration, and how notifications reach the callbacks.
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/engine/TavroEngine.hpp>

#include <bass.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

std::string configText(DWORD option) {
    const auto* p = static_cast<const char*>(BASS_GetConfigPtr(option));
    return p ? p : "<unset>";
}

// The platform's configuration is process-wide: each test starts from its
// defaults for what these tests touch, and leaves no output running.
class TavroEngineTest : public ::testing::Test {
  protected:
    void SetUp() override { resetPlatform(); }
    void TearDown() override {
        engine.stop();
        resetPlatform();
        auto shared = TavroEngine::sharedEngine();
        shared->setOnAudioInterruptionBegan(nullptr);
        shared->setOnAudioInterruptionEnded(nullptr);
        shared->setOnAudioDeviceChange(nullptr);
        TavroMainQueue::runFor(10ms);
    }
    static void resetPlatform() {
        while (BASS_Free()) {
        }
        for (auto [option, value] : {std::pair<DWORD, DWORD>{BASS_CONFIG_IOS_SESSION, 0},
                                     {BASS_CONFIG_FLOATDSP, 0},
                                     {BASS_CONFIG_NET_PLAYLIST, 0},
                                     {BASS_CONFIG_NET_PREBUF, 75},
                                     {BASS_CONFIG_NET_TIMEOUT, 5000},
                                     {BASS_CONFIG_GVOL_STREAM, 10000},
                                     {BASS_CONFIG_GVOL_MUSIC, 10000},
                                     {BASS_CONFIG_GVOL_SAMPLE, 10000}})
            BASS_SetConfig(option, value);
        for (DWORD option : {BASS_CONFIG_NET_AGENT, BASS_CONFIG_NET_PROXY, BASS_CONFIG_IOS_NOTIFY, BASS_CONFIG_DEV_NOTIFY})
            BASS_SetConfigPtr(option, nullptr);
    }

    TavroEngine engine;
};

TEST_F(TavroEngineTest, StartSetsWhatTheLibraryReliesOnAndOnlyOnce) {
    EXPECT_FALSE(engine.resumeOutputNeedsReinit()); // not started
    TavroError error = TavroError::errorWithMessage("untouched");
    ASSERT_TRUE(engine.startWithError(&error));
    EXPECT_TRUE(engine.isStarted());
    EXPECT_EQ(error.localizedDescription(), "untouched");
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_FLOATDSP), 1u);
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_NET_PLAYLIST), 1u);
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_NET_PLAYLIST_DEPTH), 1u);
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_NET_TIMEOUT), 15000u);
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_IOS_SESSION), static_cast<DWORD>(BASS_IOS_SESSION_DISABLE));
    EXPECT_EQ(BASS_GetConfigPtr(BASS_CONFIG_IOS_NOTIFY),
              reinterpret_cast<const void*>(&TavroEngine::TavroIOSNotifyProc));
    EXPECT_EQ(BASS_GetConfigPtr(BASS_CONFIG_DEV_NOTIFY),
              reinterpret_cast<const void*>(&TavroEngine::TavroDeviceNotifyProc));
    EXPECT_FALSE(engine.resumeOutputNeedsReinit()); // the output runs

    // Starting again reports success and touches nothing.
    BASS_SetConfig(BASS_CONFIG_FLOATDSP, 0);
    EXPECT_TRUE(engine.startWithError());
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_FLOATDSP), 0u);
}

TEST_F(TavroEngineTest, StartFailsWithThePlatformErrorWhenTheOutputIsTaken) {
    ASSERT_TRUE(BASS_Init(-1, 44100, 0, nullptr, nullptr));
    TavroError error;
    EXPECT_FALSE(engine.startWithError(&error));
    EXPECT_FALSE(engine.isStarted());
    EXPECT_EQ(error.code(), BASS_ERROR_ALREADY);
    EXPECT_EQ(error.localizedDescription(), "Already initialized/paused");
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_FLOATDSP), 0u); // nothing after the failed init ran
}

TEST_F(TavroEngineTest, StartOnAChosenDeviceAppliesTheSameSettingsAndRefusesUnknownDevices) {
    TavroError error;
    EXPECT_FALSE(engine.startWithDevice(999, &error));
    EXPECT_EQ(error.code(), BASS_ERROR_DEVICE);
    EXPECT_FALSE(engine.startWithDevice(-2, &error));
    EXPECT_FALSE(engine.isStarted());
    EXPECT_EQ(engine.currentOutputDevice(), -1);
    ASSERT_TRUE(engine.startWithDevice(0, 48000, &error));
    EXPECT_EQ(engine.currentOutputDevice(), 0); // the no-sound device, whether a server is reachable or not
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_FLOATDSP), 1u);
    BASS_INFO info{};
    ASSERT_TRUE(BASS_GetInfo(&info));
    EXPECT_EQ(info.freq, 48000u);
}

TEST_F(TavroEngineTest, StopFreesTheOutputAndPluginsAndTheNextStartPushesSettingsAgain) {
    engine.setPlugins({{"bassflac", 7}});
    ASSERT_TRUE(engine.startWithError());
    engine.stop();
    EXPECT_FALSE(engine.isStarted());
    EXPECT_TRUE(engine.plugins().empty());
    EXPECT_FALSE(BASS_Start()); // freed
    engine.setNetworkTimeoutMS(9000);
    BASS_SetConfig(BASS_CONFIG_NET_TIMEOUT, 1);
    engine.setManagesAudioSession(true); // the session is then the platform's
    BASS_SetConfig(BASS_CONFIG_IOS_SESSION, BASS_IOS_SESSION_MIX);
    ASSERT_TRUE(engine.startWithSampleRate(48000));
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_NET_TIMEOUT), 9000u);
    EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_IOS_SESSION), static_cast<DWORD>(BASS_IOS_SESSION_MIX));
}

TEST_F(TavroEngineTest, UserAgentAndProxyArePushedBySettersAndOnlyNonEmptyByStart) {
    engine.setUserAgent("Agent/1");
    engine.setUserAgent(std::nullopt); // only stored: the platform keeps "Agent/1"
    EXPECT_EQ(configText(BASS_CONFIG_NET_AGENT), "Agent/1");
    engine.setUserAgent(""); // the setter does pass empty text on
    EXPECT_EQ(configText(BASS_CONFIG_NET_AGENT), "");
    engine.setProxy("proxy.local:3128");
    BASS_SetConfigPtr(BASS_CONFIG_NET_AGENT, "elsewhere");
    BASS_SetConfigPtr(BASS_CONFIG_NET_PROXY, "other:1");
    ASSERT_TRUE(engine.startWithError());
    EXPECT_EQ(configText(BASS_CONFIG_NET_AGENT), "elsewhere");
    EXPECT_EQ(configText(BASS_CONFIG_NET_PROXY), "proxy.local:3128");
}

TEST_F(TavroEngineTest, GlobalVolumeIsClampedTruncatedAndSetForStreamsMusicAndSamples) {
    const auto levels = [] {
        return std::vector<DWORD>{BASS_GetConfig(BASS_CONFIG_GVOL_STREAM), BASS_GetConfig(BASS_CONFIG_GVOL_MUSIC),
                                  BASS_GetConfig(BASS_CONFIG_GVOL_SAMPLE)};
    };
    const std::pair<float, DWORD> cases[] = {{0.5f, 5000}, {-0.2f, 0}, {2.0f, 10000}, {0.12345f, 1234}, {NAN, 0}};
    for (auto [volume, level] : cases) {
        engine.setGlobalVolume(volume);
        EXPECT_EQ(levels(), std::vector<DWORD>(3, level)) << volume;
    }
    BASS_SetConfig(BASS_CONFIG_GVOL_STREAM, 2500); // the getter reads streams only
    EXPECT_FLOAT_EQ(engine.globalVolume(), 0.25f);
}

TEST_F(TavroEngineTest, SessionOptionsMapOntoThePlatformBits) {
    const std::pair<TavroSessionOptions, DWORD> mapping[] = {
        {TavroSessionOptionSpeaker, BASS_IOS_SESSION_SPEAKER},
        {TavroSessionOptionAirPlay, BASS_IOS_SESSION_AIRPLAY},
        {TavroSessionOptionBluetoothHFP, BASS_IOS_SESSION_BTHFP},
        {TavroSessionOptionBluetoothA2DP, BASS_IOS_SESSION_BTA2DP},
        {0xFF, 0x1CF}, // bit 7 dropped
    };
    for (auto [options, bits] : mapping) {
        EXPECT_TRUE(engine.setIOSSessionOptions(options));
        EXPECT_EQ(BASS_GetConfig(BASS_CONFIG_IOS_SESSION), bits) << options;
    }
}

TEST_F(TavroEngineTest, OutputDevicesAreListedInOrderAndSelectableOnceInitialised) {
    const auto devices = engine.availableOutputDevices();
    ASSERT_FALSE(devices.empty());
    EXPECT_EQ(devices[0], (TavroDeviceInfo{0, "No sound", std::nullopt, devices.size() == 1, true}));
    for (size_t i = 0; i < devices.size(); ++i) EXPECT_EQ(devices[i].deviceID, static_cast<int32_t>(i));
    EXPECT_FALSE(engine.setOutputDevice(0)); // nothing initialised yet
    ASSERT_TRUE(engine.startWithError());
    EXPECT_TRUE(engine.setOutputDevice(static_cast<int32_t>(BASS_GetDevice())));
    EXPECT_FALSE(engine.setOutputDevice(999));
}

TEST_F(TavroEngineTest, DeviceChangesReachTheSharedEngineOnTheMainThreadWithKnownCodesOnly) {
    std::vector<int64_t> codes;
    bool allOnMain = true;
    const auto mainThread = std::this_thread::get_id();
    TavroEngine::sharedEngine()->setOnAudioDeviceChange([&](int64_t code) {
        codes.push_back(code);
        allOnMain = allOnMain && std::this_thread::get_id() == mainThread;
    });
    engine.setOnAudioDeviceChange([](int64_t) { ADD_FAILURE() << "not the shared engine"; });
    std::thread([] {
        for (uint32_t code : {3u, 7u, 1u, 0u, 4u, 2u, 0xFFFFFFFFu}) TavroEngine::TavroDeviceNotifyProc(code);
    }).join();
    EXPECT_TRUE(codes.empty()); // nothing runs until the main queue is served
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return codes.size() == 7; }, 5s));
    EXPECT_EQ(codes, (std::vector<int64_t>{3, 0, 1, 0, 4, 2, 0}));
    EXPECT_TRUE(allOnMain);
}

TEST_F(TavroEngineTest, InterruptionsUseTheCallbackSetAtDeliveryTime) {
    auto shared = TavroEngine::sharedEngine();
    int began = 0, ended = 0;
    shared->setOnAudioInterruptionEnded([&] { ++ended; });
    std::thread([] {
        TavroEngine::TavroIOSNotifyProc(BASS_IOSNOTIFY_INTERRUPT);
        TavroEngine::TavroIOSNotifyProc(BASS_IOSNOTIFY_INTERRUPT_END);
        TavroEngine::TavroIOSNotifyProc(3); // ignored
        TavroEngine::TavroIOSNotifyProc(BASS_IOSNOTIFY_INTERRUPT_END);
    }).join();
    // Set after the notifications, before delivery: honoured. The ended
    // callback clears itself, so the second end finds none.
    shared->setOnAudioInterruptionBegan([&] { ++began; });
    shared->setOnAudioInterruptionEnded([&] {
        ++ended;
        shared->setOnAudioInterruptionEnded(nullptr);
    });
    TavroMainQueue::runFor(30ms);
    EXPECT_EQ(began, 1);
    EXPECT_EQ(ended, 1);
}

} // namespace
