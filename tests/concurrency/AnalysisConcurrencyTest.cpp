// Live tempo and beat reports started, replaced and stopped while a stream
// plays and another thread reads its spectrum and levels; a stream freed under
// running reports. Run under ThreadSanitizer by scripts/test.
#include "DrumTracks.hpp"
#include "PlatformFixture.hpp"

#include <bass_fx.h>

#include <atomic>
#include <thread>

using namespace tavro::test;

namespace {

class ConcurrencyAnalysisTest : public NoSoundTest {
  protected:
    void SetUp() override {
        NoSoundTest::SetUp();
        BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
        BASS_SetConfig(BASS_CONFIG_BUFFER, 100);
        BASS_SetConfig(BASS_CONFIG_UPDATEPERIOD, 5);
        const DrumTrack track = makeDrumTrack(DrumStyle::Rock, 150, 12, 0.5, 2, 3);
        stream_ = pushStream(44100, 2, 0, track.samples, true);
        ASSERT_NE(stream_, 0u);
        ASSERT_TRUE(BASS_ChannelPlay(stream_, FALSE));
    }

    static void onTempo(DWORD, float bpm, void* user) {
        auto* self = static_cast<ConcurrencyAnalysisTest*>(user);
        self->tempos_.fetch_add(1);
        self->lastTempo_.store(bpm);
        if (self->stopped_.load()) self->late_.fetch_add(1);
    }
    static void onBeat(DWORD, double, void* user) {
        auto* self = static_cast<ConcurrencyAnalysisTest*>(user);
        self->beats_.fetch_add(1);
        if (self->stopped_.load()) self->late_.fetch_add(1);
    }

    HSTREAM stream_ = 0;
    std::atomic<int> tempos_{0}, beats_{0}, late_{0};
    std::atomic<float> lastTempo_{0};
    std::atomic<bool> stopped_{false};
};

TEST_F(ConcurrencyAnalysisTest, ReportsRestartedAndStoppedWhileReadersRun) {
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::vector<float> mags(2048), wave(2048);
        float levels[2];
        while (!done.load()) {
            BASS_ChannelGetData(stream_, mags.data(), BASS_DATA_FFT4096);
            BASS_ChannelGetData(stream_, wave.data(), 1024 * 8 | BASS_DATA_FLOAT);
            BASS_ChannelGetLevelEx(stream_, levels, 0.05f, BASS_LEVEL_STEREO);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    const DWORD range = (180u << 16) | 60u;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(BASS_FX_BPM_CallbackSet(stream_, &onTempo, 0.25, range, 0, this));
        ASSERT_TRUE(BASS_FX_BPM_BeatCallbackSet(stream_, &onBeat, this));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (round % 3 == 0) {
            EXPECT_TRUE(BASS_FX_BPM_Free(stream_));
            EXPECT_TRUE(BASS_FX_BPM_BeatFree(stream_));
        }
    }
    // Settle on one registration long enough to hear a tempo and beats.
    std::this_thread::sleep_for(std::chrono::milliseconds(4500));
    EXPECT_TRUE(BASS_FX_BPM_Free(stream_));
    EXPECT_TRUE(BASS_FX_BPM_BeatFree(stream_));
    stopped_.store(true); // no report may follow the frees
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    done.store(true);
    reader.join();
    EXPECT_EQ(late_.load(), 0);
    EXPECT_GT(tempos_.load(), 0);
    EXPECT_NEAR(lastTempo_.load(), 150.0f, 1.0f);
    EXPECT_GT(beats_.load(), 3);
}

TEST_F(ConcurrencyAnalysisTest, FreeingTheStreamEndsItsReports) {
    const DWORD range = (180u << 16) | 60u;
    ASSERT_TRUE(BASS_FX_BPM_CallbackSet(stream_, &onTempo, 0.1, range, 0, this));
    ASSERT_TRUE(BASS_FX_BPM_BeatCallbackSet(stream_, &onBeat, this));
    ASSERT_TRUE(waitFor([&] { return tempos_.load() > 0 && beats_.load() > 0; }, std::chrono::seconds(8)));
    ASSERT_TRUE(BASS_StreamFree(stream_));
    stopped_.store(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(late_.load(), 0);
    EXPECT_FALSE(BASS_FX_BPM_Free(stream_));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
}

} // namespace
