// Live tempo and beat reports started, replaced and stopped while a stream
// plays and another thread reads its spectrum and levels; a stream freed under
// running reports; reports that seek, edit or free their channel while
// another thread ends them. Run under ThreadSanitizer by scripts/test.
#include "DrumTracks.hpp"
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"
#include "Watchdog.hpp"

#include <bass_fx.h>

#include <atomic>
#include <thread>

using namespace tavro::test;

namespace {

class ConcurrencyAnalysisTest : public FloatDspTest {
  protected:
    void SetUp() override {
        FloatDspTest::SetUp();
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
    // Settle on one registration until a tempo and beats are heard (about
    // four seconds of sound; longer when the machine is busy).
    EXPECT_TRUE(waitFor([&] { return tempos_.load() > 0 && beats_.load() > 3; }, std::chrono::seconds(15)));
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

// A report that seeks its channel, removes a DSP from it or frees it, while
// another thread ends the reports or frees the channel or its source at that
// very moment. The channel is a tempo stage: seeking it, or reading it,
// takes its source's render lock, which the source's free holds while it
// ends the source's reports. The report runs with no lock of the platform
// held, so everything finishes.
class ConcurrencyAnalysisCallbackTest : public MediaTestOn<FloatDspTest> {
  protected:
    static void SetUpTestSuite() {
        MediaTestOn::SetUpTestSuite();
        path_ = media_->path("drums.wav");
        writeFloatWav(path_, makeDrumTrack(DrumStyle::Rock, 150, 8, 0.5, 2, 3).samples, 44100, 2);
    }

    enum Action { Seek, RemoveDsp, FreeChannel };
    struct Round {
        DWORD chan = 0;
        HDSP dsp = 0;
        Action action = Seek;
        std::atomic<int> state{0}; // 1: inside the first report, 2: its action done
    };

    static void onTempo(DWORD chan, float, void* user) {
        auto* r = static_cast<Round*>(user);
        int idle = 0;
        if (!r->state.compare_exchange_strong(idle, 1)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the other thread acts now
        if (r->action == Seek) BASS_ChannelSetPosition(chan, 0, BASS_POS_BYTE);
        if (r->action == RemoveDsp) BASS_ChannelRemoveDSP(chan, r->dsp);
        if (r->action == FreeChannel) BASS_ChannelFree(chan);
        r->state.store(2);
    }

    static inline std::string path_;
};

TEST_F(ConcurrencyAnalysisCallbackTest, ReportsThatTouchTheChannelRaceFrees) {
    Watchdog watchdog(std::chrono::seconds(90), "reports racing frees");
    for (int i = 0; i < 18; ++i) {
        enum Other { EndReports, FreeSource, FreeStage } other = static_cast<Other>((i / 3) % 3);
        Round r;
        r.action = static_cast<Action>(i % 3);
        const HSTREAM src = BASS_StreamCreateFile(FALSE, path_.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
        r.chan = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
        ASSERT_NE(r.chan, 0u);
        r.dsp = BASS_ChannelSetDSP(r.chan, [](HDSP, DWORD, void*, DWORD, void*) {}, nullptr, 0);
        ASSERT_TRUE(BASS_FX_BPM_CallbackSet(r.chan, &onTempo, 0.05, (180u << 16) | 60u, 0, &r));
        ASSERT_TRUE(BASS_FX_BPM_BeatCallbackSet(src, [](DWORD, double, void*) {}, nullptr));
        std::thread puller([&] {
            std::vector<float> buf(1024 * 2);
            while (BASS_ChannelGetData(r.chan, buf.data(), 1024 * 8 | BASS_DATA_FLOAT) != 0xFFFFFFFF)
                std::this_thread::sleep_for(std::chrono::microseconds(500));
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (r.state.load() == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        EXPECT_NE(r.state.load(), 0) << "no report in round " << i;
        // While the report is inside its action.
        if (other == EndReports) {
            EXPECT_TRUE(BASS_FX_BPM_Free(r.chan) || r.action == FreeChannel);
        }
        if (other == FreeSource) BASS_ChannelFree(src);
        if (other == FreeStage) BASS_ChannelFree(r.chan);
        BASS_FX_BPM_Free(r.chan); // on a freed channel too, waits for the report still running
        EXPECT_NE(r.state.load(), 1);
        BASS_ChannelFree(r.chan);
        puller.join();
    }
}

} // namespace
