// The sound server killed and restarted five times in a row while four
// channels play and a fifth is freed meanwhile: every handle stays good, the
// playing ones come back each time, nothing deadlocks.
#include "PlatformFixture.hpp"
#include "PrivateSoundServer.hpp"
#include "Watchdog.hpp"

#include <atomic>

using namespace tavro::test;

namespace {

std::atomic<int> losses{0};

// An endless quiet sound.
DWORD humProc(HSTREAM, void* buffer, DWORD length, void*) {
    auto* out = static_cast<float*>(buffer);
    for (DWORD i = 0; i < length / 4; ++i) out[i] = (i & 64) ? 0.01f : -0.01f;
    return length;
}
void countLosses(DWORD code) {
    if (code == 4) ++losses;
}

} // namespace

TEST(ConcurrencyServerRestartTest, ChannelsSurviveFiveRestartsWhileAnotherIsFreed) {
    Watchdog watchdog(std::chrono::seconds(90), "server restarts");
    PrivateSoundServer server;
    ASSERT_TRUE(server.start());
    server.use();
    BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, reinterpret_cast<const void*>(&countLosses));
    ASSERT_TRUE(BASS_Init(-1, 48000, 0, nullptr, nullptr));
    ASSERT_NE(BASS_GetDevice(), 0u);
    std::vector<HSTREAM> playing;
    for (int i = 0; i < 4; ++i) playing.push_back(BASS_StreamCreate(48000, 2, BASS_SAMPLE_FLOAT, humProc, nullptr));
    for (HSTREAM h : playing) ASSERT_NE(h, 0u);
    for (int round = 1; round <= 5; ++round) {
        for (HSTREAM h : playing) ASSERT_TRUE(BASS_ChannelPlay(h, FALSE)) << round;
        HSTREAM doomed = BASS_StreamCreate(48000, 2, BASS_SAMPLE_FLOAT, humProc, nullptr);
        ASSERT_TRUE(BASS_ChannelPlay(doomed, FALSE));
        std::thread freer([doomed] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            EXPECT_TRUE(BASS_StreamFree(doomed));
        });
        server.kill();
        ASSERT_TRUE(waitFor([&] { return BASS_ChannelIsActive(playing[0]) == BASS_ACTIVE_PAUSED_DEVICE; },
                            std::chrono::milliseconds(2000)))
            << round;
        freer.join();
        ASSERT_TRUE(server.start()) << round;
        ASSERT_TRUE(waitFor([&] { return BASS_Start(); }, std::chrono::milliseconds(3000))) << round;
        for (HSTREAM h : playing) {
            ASSERT_TRUE(waitFor([&] { return BASS_ChannelIsActive(h) == BASS_ACTIVE_PLAYING; },
                                std::chrono::milliseconds(1000)))
                << round;
            const QWORD p = BASS_ChannelGetPosition(h, BASS_POS_BYTE);
            EXPECT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > p; },
                                std::chrono::milliseconds(1000)))
                << "round " << round << ": not playing on";
        }
        EXPECT_EQ(losses.load(), round);
    }
    BASS_Free();
    BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, nullptr);
}
