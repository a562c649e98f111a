// The player on the no-sound device: loading, transport, state reports and
// their order, progress ticks, fades, and errors.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/player/TavroPlayer.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <string>
#include <vector>

using namespace tavro::test;
using namespace std::chrono_literals;

namespace {

class TavroPlayerTest : public MediaTest {
  protected:
    static void SetUpTestSuite() {
        MediaTest::SetUpTestSuite();
        writeWav16(media_->path("short.wav"), testSignal(44100 / 4, 2, 44100), 44100, 2); // 250 ms
        writeWav16(media_->path("long.wav"), testSignal(44100 * 5, 2, 44100), 44100, 2);
    }
    static std::shared_ptr<TavroSource> file(const std::string& name) {
        return TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(media_->path(name)));
    }
};

// Records every report in the order it arrives.
struct Recorder : TavroPlayerDelegate {
    std::vector<std::string> events;
    void bassPlayerDidChangeState(TavroPlayer&, int64_t state) override { events.push_back("delegate state " + std::to_string(state)); }
    void bassPlayerDidReachEnd(TavroPlayer&) override { events.push_back("delegate end"); }
    void bassPlayerDidFailWithError(TavroPlayer&, const TavroError& e) override { events.push_back("delegate error " + e.localizedDescription()); }
};

void record(TavroPlayer& p, std::vector<std::string>& events) {
    p.setOnStateChange([&](int64_t s) { events.push_back("state " + std::to_string(s)); });
    p.setOnEnd([&] { events.push_back("end"); });
    p.setOnError([&](const TavroError& e) { events.push_back("error " + e.localizedDescription()); });
}

} // namespace

TEST_F(TavroPlayerTest, FreshPlayerDefaults) {
    auto p = TavroPlayer::init();
    EXPECT_EQ(p->state(), TavroPlayerStateStopped);
    EXPECT_EQ(p->volume(), 1.0f);
    EXPECT_EQ(p->pan(), 0.0f);
    EXPECT_TRUE(p->fxChainEnabled());
    EXPECT_FALSE(p->stream());
    EXPECT_EQ(p->position(), 0.0);
    EXPECT_FALSE(p->isPlaying());
    TavroError e;
    EXPECT_FALSE(p->play(&e));
    EXPECT_EQ(e.localizedDescription(), "No stream loaded");
    EXPECT_EQ(e.code(), -1);
    EXPECT_FALSE(p->pause());
    EXPECT_FALSE(p->fadeInOver(1, &e));
    EXPECT_FALSE(p->fadeOutAndPauseOver(1));
}

TEST_F(TavroPlayerTest, EndOfTrackReportsEndBeforeTheEndedState) {
    auto p = TavroPlayer::initWithSource(file("short.wav"));
    auto rec = std::make_shared<Recorder>();
    p->setDelegate(rec);
    record(*p, rec->events);
    ASSERT_TRUE(p->play());
    EXPECT_TRUE(rec->events.empty()) << "reported from inside play()";
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return p->state() == TavroPlayerStateEnded && rec->events.size() >= 6; }, 3s));
    const std::vector<std::string> expected = {"state 1", "delegate state 1", "end", "delegate end", "state 4", "delegate state 4"};
    EXPECT_EQ(rec->events, expected);
}

TEST_F(TavroPlayerTest, LoadsKeepVolumeAndPanAndFailuresAreDelivered) {
    auto p = TavroPlayer::init();
    std::vector<std::string> events;
    record(*p, events);
    p->setVolume(0.3f);
    p->setPan(0.25f);
    ASSERT_TRUE(p->loadSource(file("long.wav")));
    EXPECT_FLOAT_EQ(p->stream()->volume(), 0.3f);
    EXPECT_FLOAT_EQ(p->stream()->pan(), 0.25f);
    EXPECT_TRUE(p->stream()->hasFXChain());
    EXPECT_NEAR(p->duration(), 5.0, 1e-6);
    EXPECT_FALSE(p->loadSource(file("missing.wav")));
    EXPECT_FALSE(p->stream());
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return !events.empty(); }, 1s));
    EXPECT_EQ(events[0], "error Failed to create stream");
    TavroError e;
    EXPECT_FALSE(p->loadSource(file("missing.wav"), &e));
    EXPECT_EQ(e.code(), BASS_ERROR_FILEOPEN);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return events.size() == 2; }, 1s));
    EXPECT_EQ(events[1], "error Cannot open file");
    // A source that fails silently leaves no stale error to report.
    struct Silent : TavroSource {
        uint32_t createStreamWithFlags(TavroSourceFlags, TavroError*) override { return 0; }
        std::string displayName() const override { return "silent"; }
    };
    EXPECT_FALSE(p->loadSource(std::make_shared<Silent>(), &e));
    EXPECT_EQ(e.code(), -1);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return events.size() == 3; }, 1s));
    EXPECT_EQ(events[2], "error Failed to create stream");

    auto includeAll = [&](bool on) {
        p->setIncludesDSP(on), p->setIncludesCrossfeed(on), p->setIncludesVolumeNormalizer(on);
        p->setIncludesEffects(on), p->setIncludesAnalyzer(on), p->setIncludesBPM(on);
    };
    includeAll(true);
    ASSERT_TRUE(p->loadSource(file("long.wav")));
    ASSERT_TRUE(p->effects());
    ASSERT_TRUE(p->analyzer());
    ASSERT_TRUE(p->bpm());
    EXPECT_EQ(p->analyzer()->stream().lock(), p->stream());
    EXPECT_EQ(p->bpm()->stream().lock(), p->stream());
    // A load releases the old components: the analyser's monitor stops with them.
    p->analyzer()->startMonitoringWithInterval(0.01, 256, 0, [](const auto&) { FAIL() << "monitor outlived its load"; });
    ASSERT_TRUE(p->volumeNormalizer());
    ASSERT_TRUE(p->dsp());
    ASSERT_TRUE(p->crossfeed());
    EXPECT_NE(p->dsp()->dspHandle(), 0u);
    includeAll(false);
    p->setSpatialEnabled(true);
    ASSERT_TRUE(p->loadSource(file("long.wav")));
    TavroMainQueue::runFor(std::chrono::milliseconds(50));
    EXPECT_FALSE(p->analyzer());
    EXPECT_FALSE(p->bpm());
    EXPECT_FALSE(p->dsp());
    EXPECT_FALSE(p->crossfeed());
    EXPECT_FALSE(p->volumeNormalizer());
    EXPECT_FALSE(p->effects());
    EXPECT_FALSE(p->stream()->hasFXChain());
    EXPECT_EQ(p->stream()->channelCount(), 1u);
    auto reversed = TavroPlayer::initWithSource(file("long.wav"), TavroPlayerOptionReverse);
    EXPECT_FALSE(reversed->fxChainEnabled());
    EXPECT_FALSE(reversed->play(&e));
    EXPECT_EQ(e.code(), BASS_ERROR_DECODE);
}

TEST_F(TavroPlayerTest, TransportChangesStateAndStopRewinds) {
    auto p = TavroPlayer::initWithSource(file("long.wav"));
    std::vector<std::string> events;
    record(*p, events);
    ASSERT_TRUE(p->play());
    ASSERT_TRUE(p->pause());
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return events.size() == 2; }, 1s));
    EXPECT_EQ(events, (std::vector<std::string>{"state 1", "state 2"}));
    ASSERT_TRUE(p->seekToSeconds(2.0));
    EXPECT_NEAR(p->position(), 2.0, 0.05);
    ASSERT_TRUE(p->seekBy(1.0));
    EXPECT_NEAR(p->position(), 3.0, 0.05);
    ASSERT_TRUE(p->stop());
    EXPECT_EQ(p->state(), TavroPlayerStateStopped);
    EXPECT_NEAR(p->position(), 0.0, 1e-9);
}

TEST_F(TavroPlayerTest, ProgressTicksAtItsInterval) {
    auto p = TavroPlayer::initWithSource(file("long.wav"));
    std::vector<std::chrono::steady_clock::time_point> ticks;
    p->setOnProgress([&](double) { ticks.push_back(std::chrono::steady_clock::now()); });
    const auto t0 = std::chrono::steady_clock::now();
    p->beginProgressUpdatesEvery(0.1);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return ticks.size() >= 3; }, 2s));
    EXPECT_GE(ticks[0] - t0, 100ms);
    EXPECT_LT(ticks[0] - t0, 250ms); // leeway 10 ms, generous for a loaded machine
    p->beginProgressUpdatesEvery(0);
    EXPECT_FALSE(p->progressTimer());
    const size_t n = ticks.size();
    TavroMainQueue::runFor(300ms);
    EXPECT_EQ(ticks.size(), n);
}

TEST_F(TavroPlayerTest, FadeOutRunsItsActionAndRestoresTheVolume) {
    auto p = TavroPlayer::initWithSource(file("long.wav"));
    std::vector<std::string> events;
    record(*p, events);
    p->setVolume(0.8f);
    ASSERT_TRUE(p->play());
    ASSERT_TRUE(p->fadeOutAndPauseOver(0.2));
    EXPECT_TRUE(p->stream()->isSlidingVolume());
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return p->state() == TavroPlayerStatePaused; }, 2s));
    EXPECT_FLOAT_EQ(p->volume(), 0.8f);
    EXPECT_FLOAT_EQ(p->stream()->volume(), 0.8f);
    ASSERT_TRUE(p->fadeVolumeTo(0.2f, 3));
    EXPECT_FLOAT_EQ(p->volume(), 0.2f);
    EXPECT_GT(p->stream()->volume(), 0.5f); // still sliding
    p->setVolume(0.6f);
    ASSERT_TRUE(p->fadeInOver(0.2));
    EXPECT_LT(p->stream()->volume(), 0.1f);
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return !p->stream()->isSlidingVolume(); }, 2s));
    EXPECT_FLOAT_EQ(p->stream()->volume(), 0.6f);
}

// A repeat button written the obvious way: play again from the end report,
// once by play alone and once after a seek to the start. Each time the track
// plays whole and ends again; the player never says "playing" over a channel
// that has stopped.
TEST_F(TavroPlayerTest, PlayingAgainFromTheEndReportRepeatsTheTrack) {
    auto p = TavroPlayer::initWithSource(file("short.wav"));
    int ends = 0;
    p->setOnEnd([&] {
        ++ends;
        if (ends == 2) p->seekToSeconds(0);
        if (ends < 3) {
            EXPECT_TRUE(p->play());
        }
    });
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(p->play());
    for (int i = 0; i < 300 && ends < 3; ++i) TavroMainQueue::runFor(10ms);
    ASSERT_EQ(ends, 3);
    // Three passes of 250 ms were heard, none of them cut short.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3 * 250ms - 60ms);
    TavroMainQueue::runFor(200ms);
    EXPECT_EQ(p->state(), TavroPlayerStateEnded);
    EXPECT_EQ(BASS_ChannelIsActive(p->stream()->handle()), static_cast<DWORD>(BASS_ACTIVE_STOPPED));
}
