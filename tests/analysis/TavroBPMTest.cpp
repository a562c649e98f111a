// Tempo and beats through the library: offline analysis of files on the
// background queue with results on the main queue, and live reports of
// decoding and playing streams, on synthesised drum tracks whose true tempo
// and beat times are known.
#include "DrumTracks.hpp"
#include "analysis/BPMProcs.hpp"
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <tavro/analysis/TavroBPM.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <bass_fx.h>

#include <algorithm>
#include <atomic>
#include <thread>

using namespace tavro::test;
using namespace std::chrono_literals;

namespace {

class TavroBPMTest : public MediaTestOn<FloatDspTest> {
  protected:
    static void SetUpTestSuite() {
        MediaTestOn::SetUpTestSuite();
        track_ = new DrumTrack(makeDrumTrack(DrumStyle::FourFloor, 128, 30, 0.5, 2, 11));
        path_ = media_->path("128.wav");
        writeFloatWav(path_, track_->samples, static_cast<unsigned>(kDrumRate), 2);
    }
    static void TearDownTestSuite() { delete track_, MediaTestOn::TearDownTestSuite(); }
    static TavroURL url() { return TavroURL::fileURLWithPath(path_); }
    static std::shared_ptr<TavroStream> open(TavroSourceFlags flags) {
        return TavroStream::streamWithSource(TavroFileSource::initWithFileURL(url()), flags | TavroSourceFlagFloat);
    }
    // Pulls a decoding stream through its DSP chain in real-time-sized blocks.
    static void pull(uint32_t handle, double seconds) {
        std::vector<float> buf(1024 * 2);
        for (double done = 0; done < seconds; done += 1024.0 / kDrumRate)
            if (BASS_ChannelGetData(handle, buf.data(), 1024 * 8 | BASS_DATA_FLOAT) == 0xFFFFFFFF) break;
    }

    static inline DrumTrack* track_ = nullptr;
    static inline std::string path_;
};

TEST_F(TavroBPMTest, RangeWordTakesEachDefaultAlone) {
    EXPECT_EQ(TavroBPM::rangeWordForMinBPM(0, 0), (180u << 16) | 60u);
    EXPECT_EQ(TavroBPM::rangeWordForMinBPM(0, 140), (140u << 16) | 60u);
    EXPECT_EQ(TavroBPM::rangeWordForMinBPM(90, 0), (180u << 16) | 90u);
    EXPECT_EQ(TavroBPM::rangeWordForMinBPM(70000, 180), (180u << 16) | 4464u);
}

TEST_F(TavroBPMTest, OfflineTempoAndBeatsArriveOnTheMainQueue) {
    float bpm = -1;
    std::vector<double> beats;
    bool beatsDone = false, onMain = true;
    TavroBPM::detectBPMForFileURL(url(), 0, 0, 60, 180, [&](float v) {
        bpm = v;
        onMain = onMain && TavroMainQueue::isMainThread();
    });
    TavroBPM::detectBeatsForFileURL(url(), 0, -1, [&](const std::vector<double>& v) {
        beats = v;
        beatsDone = true;
        onMain = onMain && TavroMainQueue::isMainThread();
    });
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return bpm >= 0 && beatsDone; }, 20s));
    EXPECT_TRUE(onMain);
    EXPECT_NEAR(bpm, 128.0, 0.5);
    const BeatScore score = scoreBeats(track_->beats, beats);
    EXPECT_GE(score.hit, 0.95);
    EXPECT_LE(score.extra, 0.05);

    // A range of the file: beats are positions in the file, inside the range.
    std::vector<double> part;
    beatsDone = false;
    TavroBPM::detectBeatsForFileURL(url(), 10, 20, [&](const std::vector<double>& v) {
        part = v;
        beatsDone = true;
    });
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return beatsDone; }, 20s));
    ASSERT_FALSE(part.empty());
    EXPECT_GE(part.front(), 10.0);
    EXPECT_LE(part.back(), 20.0);
    EXPECT_GE(scoreBeats(track_->beats, part, 10.5, 19.5).hit, 0.95);
}

TEST_F(TavroBPMTest, MissingFileOrEmptyRangeGivesZeroAndNoBeats) {
    float bpm = -1, reversed = -1;
    bool beatsDone = false, reversedDone = false;
    std::vector<double> beats{1.0};
    const TavroURL missing = TavroURL::fileURLWithPath("/nonexistent/track.wav");
    TavroBPM::detectBPMForFileURL(missing, 0, 0, 0, 0, [&](float v) { bpm = v; });
    TavroBPM::detectBPMForFileURL(url(), 20, 10, 0, 0, [&](float v) {
        reversed = v;
        reversedDone = true;
    });
    TavroBPM::detectBeatsForFileURL(missing, 0, 0, [&](const std::vector<double>& v) {
        beats = v;
        beatsDone = true;
    });
    // Absent completions: the work still runs and nothing is called.
    TavroBPM::detectBPMForFileURL(url(), 0, 5, 0, 0, nullptr);
    TavroBPM::detectBeatsForFileURL(url(), 0, 5, nullptr);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return bpm >= 0 && reversedDone && beatsDone; }, 10s));
    EXPECT_EQ(bpm, 0.0f);
    EXPECT_EQ(reversed, 0.0f);
    EXPECT_TRUE(beats.empty());
    TavroMainQueue::runFor(300ms);
}

TEST_F(TavroBPMTest, LiveReportsOfADecodingStream) {
    auto stream = open(TavroSourceFlagDecode);
    ASSERT_TRUE(stream);
    auto bpm = TavroBPM::initWithStream(stream);
    std::vector<float> tempos;
    std::vector<double> beats;
    ASSERT_TRUE(bpm->startLiveBPMWithPeriod(1.0, 60, 180, [&](float v) { tempos.push_back(v); }));
    ASSERT_TRUE(bpm->startBeatDetectionWithBlock([&](double t) { beats.push_back(t); }));
    EXPECT_TRUE(bpm->liveBPMRunning());
    EXPECT_TRUE(bpm->beatDetectionRunning());
    for (int second = 0; second < 29; ++second) {
        pull(stream->handle(), 1.0);
        std::this_thread::sleep_for(15ms); // let the analysis thread keep pace
        TavroMainQueue::drain();
    }
    // The analysis thread may lag on a loaded machine: the envelope waits in its queue.
    TavroMainQueue::runUntil([&] { return tempos.size() >= 20; }, 10s);
    ASSERT_GE(tempos.size(), 20u);
    for (size_t i = 5; i < tempos.size(); ++i) EXPECT_NEAR(tempos[i], 128.0, 1.0) << i;
    EXPECT_TRUE(std::is_sorted(beats.begin(), beats.end()));
    EXPECT_TRUE(std::adjacent_find(beats.begin(), beats.end()) == beats.end());
    const BeatScore score = scoreBeats(track_->beats, beats, 5.0, 28.0);
    EXPECT_GE(score.hit, 0.9);
    EXPECT_LE(score.extra, 0.1);
}

TEST_F(TavroBPMTest, LiveBeatsOfAPlayingStreamArriveAsTheyAreHeard) {
    auto stream = open(0);
    ASSERT_TRUE(stream);
    auto bpm = TavroBPM::initWithStream(stream);
    std::vector<std::pair<double, double>> beats; // (beat, heard position on arrival)
    // A playback buffer longer than the detector needs to confirm a beat
    // (with the short default one, beats come about 0.2 s after they are heard).
    BASS_SetConfig(BASS_CONFIG_BUFFER, 500);
    ASSERT_TRUE(stream->play(false));
    ASSERT_TRUE(bpm->startBeatDetectionWithBlock([&](double t) { beats.emplace_back(t, stream->position()); }));
    TavroMainQueue::runFor(7s);
    bpm->stopBeatDetection();
    const size_t count = beats.size();
    TavroMainQueue::runFor(600ms);
    EXPECT_LE(beats.size(), count + 1); // one may have been posted just before the stop
    ASSERT_GE(count, 6u);
    // Beats are known before they are heard (the playback buffer runs ahead),
    // so each arrives as it is heard; only the first, found when the tracker
    // first locks on, may come up to about half a beat late.
    std::vector<double> times;
    for (auto [beat, heard] : beats) {
        times.push_back(beat);
        EXPECT_NEAR(heard, beat, times.size() == 1 ? 0.4 : 0.12) << beat;
    }
    EXPECT_GE(scoreBeats(track_->beats, times, 4.5, times.back()).hit, 0.9);
    BASS_SetConfig(BASS_CONFIG_BUFFER, 40);
}

// A stream playing on (here: pulled by a thread) keeps rendering after the
// reports move off it and after the object is gone: no report may reach the
// destroyed object (the sanitizers watch).
TEST_F(TavroBPMTest, SetStreamMovesLiveReportsOffTheOldChannel) {
    auto first = open(TavroSourceFlagDecode), second = open(TavroSourceFlagDecode);
    const uint32_t handles[] = {first->handle(), second->handle()};
    std::atomic<bool> done{false};
    std::thread puller([&] {
        std::vector<float> buf(1024 * 2);
        while (!done.load()) {
            for (uint32_t h : handles)
                if (BASS_ChannelGetData(h, buf.data(), 1024 * 8 | BASS_DATA_FLOAT) == 0xFFFFFFFF)
                    BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE);
            std::this_thread::sleep_for(2ms);
        }
    });
    auto bpm = TavroBPM::initWithStream(first);
    int tempos = 0, beats = 0;
    ASSERT_TRUE(bpm->startLiveBPMWithPeriod(0.1, 0, 0, [&](float) { ++tempos; }));
    ASSERT_TRUE(bpm->startBeatDetectionWithBlock([&](double) { ++beats; }));
    EXPECT_TRUE(TavroMainQueue::runUntil([&] { return tempos > 0 && beats > 0; }, 10s));
    bpm->setStream(second);
    EXPECT_TRUE(bpm->liveBPMRunning());
    EXPECT_TRUE(bpm->beatDetectionRunning());
    TavroMainQueue::runFor(50ms); // reports posted before the move
    tempos = beats = 0;
    EXPECT_TRUE(TavroMainQueue::runUntil([&] { return tempos > 0 && beats > 0; }, 10s));
    bpm.reset();
    TavroMainQueue::runFor(500ms);
    done.store(true);
    puller.join();
}

TEST_F(TavroBPMTest, RestartingReplacesTheCallbackAndStoppingClearsIt) {
    auto stream = open(TavroSourceFlagDecode);
    auto bpm = TavroBPM::initWithStream(stream);
    int first = 0, second = 0;
    ASSERT_TRUE(bpm->startLiveBPMWithPeriod(0.5, 0, 0, [&](float) { ++first; }));
    pull(stream->handle(), 6.0);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return first > 0; }, 5s));
    ASSERT_TRUE(bpm->startLiveBPMWithPeriod(0.5, 0, 0, [&](float) { ++second; }));
    TavroMainQueue::runFor(50ms); // reports posted before the restart
    const int firstCount = first;
    pull(stream->handle(), 6.0);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return second > 0; }, 5s));
    EXPECT_EQ(first, firstCount);

    bpm->stopLiveBPM();
    EXPECT_FALSE(bpm->liveBPMRunning());
    EXPECT_FALSE(bpm->liveBPMBlock());
    bpm->stopLiveBPM(); // nothing running: no effect
    bpm->stopAll();

    // Once the stream is gone, starting fails and leaves nothing behind.
    stream->free();
    EXPECT_FALSE(bpm->startBeatDetectionWithBlock([](double) {}));
    EXPECT_FALSE(bpm->beatDetectionRunning());
    EXPECT_FALSE(bpm->beatBlock());
    stream.reset();
    EXPECT_FALSE(bpm->startLiveBPMWithPeriod(1, 0, 0, [](float) {}));
}

TEST_F(TavroBPMTest, PlatformRefusesBadRequests) {
    auto stream = open(TavroSourceFlagDecode);
    const uint32_t h = stream->handle();
    EXPECT_EQ(BASS_FX_BPM_DecodeGet(h, 0, 10, (140u << 16) | 4464u, 0, nullptr, nullptr), -1.0f);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    for (double start : {5.0, 6.0}) { // an empty or reversed range
        ASSERT_NE(BASS_ChannelGetPosition(h, BASS_POS_BYTE), static_cast<QWORD>(-1)); // error code OK
        EXPECT_EQ(BASS_FX_BPM_DecodeGet(h, start, 5, (180u << 16) | 60u, 0, nullptr, nullptr), -1.0f);
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
        EXPECT_FALSE(BASS_FX_BPM_BeatDecodeGet(h, start, 5, 0, &TavroBeatCollectProc, nullptr));
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    }
    EXPECT_EQ(BASS_FX_BPM_DecodeGet(0, 0, 5, (180u << 16) | 60u, 0, nullptr, nullptr), -1.0f);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_FALSE(BASS_FX_BPM_CallbackSet(h, nullptr, 1.0, (180u << 16) | 60u, 0, nullptr));
    EXPECT_FALSE(BASS_FX_BPM_BeatDecodeGet(h, 0, 5, 0, nullptr, nullptr));
    EXPECT_FALSE(BASS_FX_BPM_Free(0));
    EXPECT_TRUE(BASS_FX_BPM_BeatFree(h)); // nothing running is fine

    auto playing = open(0);
    EXPECT_EQ(BASS_FX_BPM_DecodeGet(playing->handle(), 0, 5, (180u << 16) | 60u, 0, nullptr, nullptr), -1.0f);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);
    // Silence has no tempo.
    HSTREAM quiet = pushStream(44100, 2, BASS_STREAM_DECODE, std::vector<float>(44100 * 2 * 8, 0.0f), true);
    EXPECT_EQ(BASS_FX_BPM_DecodeGet(quiet, 0, 8, (180u << 16) | 60u, 0, nullptr, nullptr), 0.0f);
    BASS_StreamFree(quiet);
}

} // namespace
