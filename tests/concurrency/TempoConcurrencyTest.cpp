// Tempo and pitch changed from application threads while a tempo stream
// plays. Run under ThreadSanitizer by scripts/test.
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

#include <bass_fx.h>

#include <atomic>
#include <cmath>
#include <thread>

using namespace tavro::test;

namespace {
class ConcurrencyTempoTest : public NoSoundTest {};
} // namespace

TEST_F(ConcurrencyTempoTest, SettingsChangeWhileTheStreamPlays) {
    BASS_SetConfig(BASS_CONFIG_BUFFER, 50);
    DWORD src = RampChannel::create(44100, 2, BASS_STREAM_DECODE, -1);
    // The ramp folded into a tone keeps the samples small.
    BASS_ChannelSetDSP(
        src,
        [](HDSP, DWORD, void* buf, DWORD len, void*) {
            for (DWORD i = 0; i < len / 4; ++i)
                static_cast<float*>(buf)[i] = std::sin(static_cast<float*>(buf)[i] * 0.06f);
        },
        nullptr, 0);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_FX_FREESOURCE);
    ASSERT_NE(t, 0u);
    struct Watch {
        std::atomic<int> blocks{0}, bad{0};
    } watch;
    BASS_ChannelSetDSP(
        t,
        [](HDSP, DWORD, void* buf, DWORD len, void* u) {
            auto* w = static_cast<Watch*>(u);
            for (DWORD i = 0; i < len / 4; ++i)
                if (!std::isfinite(static_cast<float*>(buf)[i])) w->bad++;
            w->blocks++;
        },
        &watch, 0);
    ASSERT_TRUE(BASS_ChannelPlay(t, FALSE));
    std::thread tweaker([&] {
        float v = -12;
        runFor(std::chrono::milliseconds(800), [&] {
            v = v > 12 ? -12 : v + 0.5f;
            // Now and then back to neutral, so the stage switches paths too.
            EXPECT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, static_cast<int>(v) % 3 ? v * 5 : 0));
            EXPECT_TRUE(
                BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_PITCH, static_cast<int>(v) % 3 ? v : 0));
            EXPECT_TRUE(
                BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO, v > 0 ? 1.0f : 0.0f));
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        });
    });
    std::thread reader([&] {
        runFor(std::chrono::milliseconds(800), [&] {
            BASS_FX_TempoGetRateRatio(t);
            BASS_ChannelGetPosition(t, BASS_POS_BYTE);
            if (rand() % 50 == 0) BASS_ChannelSetPosition(t, 44100 * 8, BASS_POS_BYTE);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        });
    });
    tweaker.join();
    reader.join();
    EXPECT_GT(watch.blocks.load(), 10);
    EXPECT_EQ(watch.bad.load(), 0);
    EXPECT_EQ(BASS_ChannelIsActive(t), static_cast<DWORD>(BASS_ACTIVE_PLAYING));
    EXPECT_TRUE(BASS_StreamFree(t));
    BASS_SetConfig(BASS_CONFIG_BUFFER, 40);
}
