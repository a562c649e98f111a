// The volume normaliser on a stream: off until enabled, settings and seeds
// forwarded to the core, blocks split into the core's chunks, foreign
// formats passed through, and a quiet track brought to the target on a real
// stream's DSP chain.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <tavro/analysis/TavroVolumeNormalizer.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <ebur128.h>

#include <cmath>

using namespace tavro::test;

namespace {

constexpr unsigned kRate = 44100;

class TavroVolumeNormalizerTest : public MediaTestOn<FloatDspTest> {
  protected:
    static void SetUpTestSuite() {
        MediaTestOn::SetUpTestSuite();
        // Eight seconds of a 1 kHz stereo sine at -30 dBFS (-30 LUFS), then one
        // second at full scale that the boosted gain drives into the limiter.
        const float quiet = std::pow(10.0f, -30.0f / 20.0f);
        auto pcm = sine(1000, kRate, 9 * kRate, 2, quiet);
        for (size_t i = 8 * kRate * 2; i < pcm.size(); ++i)
            pcm[i] /= quiet;
        path_ = media_->path("quiet.wav");
        writeFloatWav(path_, pcm, kRate, 2);
    }

    // A normaliser, disabled, on a decoding stream of the quiet track.
    void SetUp() override {
        FloatDspTest::SetUp();
        stream = open();
        ASSERT_TRUE(stream);
        n = TavroVolumeNormalizer::initWithStream(stream);
    }

    static std::shared_ptr<TavroStream> open(TavroSourceFlags flags = TavroSourceFlagDecode |
                                                                      TavroSourceFlagFloat) {
        return TavroStream::streamWithSource(
            TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path_)), flags);
    }

    static inline std::string path_;
    std::shared_ptr<TavroStream> stream;
    std::shared_ptr<TavroVolumeNormalizer> n;
};

struct StateDeleter {
    void operator()(R128NormalizerState* s) const { r128_normalizer_destroy(s); }
};

} // namespace

TEST_F(TavroVolumeNormalizerTest, AttachedAtOnceButSilentUntilEnabled) {
    EXPECT_NE(n->dspHandle(), 0u);
    EXPECT_TRUE(n->hasState());
    EXPECT_EQ(n->stateChannels(), 2u);
    EXPECT_EQ(n->stateSampleRate(), kRate);
    EXPECT_FALSE(n->isEnabled());
    EXPECT_EQ(n->currentGain(), 1.0f);

    n->seedGain(2.0f);
    std::vector<float> block(1024 * 2, 0.25f);
    n->processInterleaved(block.data(), 1024, 2);
    EXPECT_EQ(block[0], 0.25f);
    EXPECT_EQ(n->currentGain(), 1.0f); // the seed waits for the first enabled block

    n->setEnabled(true);
    n->processInterleaved(block.data(), 1024, 2);
    EXPECT_EQ(block[0], 0.5f);
    EXPECT_EQ(n->currentGain(), 2.0f);

    // Disabling and re-enabling resumes with the gain reached.
    n->setEnabled(false);
    n->setEnabled(true);
    EXPECT_EQ(n->currentGain(), 2.0f);

    // A mono block reaching a stereo state passes unchanged.
    std::vector<float> mono(512, 0.25f);
    n->processInterleaved(mono.data(), 512, 1);
    EXPECT_EQ(mono[0], 0.25f);

    n->detach();
    EXPECT_EQ(n->dspHandle(), 0u);
}

TEST_F(TavroVolumeNormalizerTest, SettingsAndSeedsReachTheCore) {
    n->setEnabled(true);
    n->seedIntegratedLufs(-23.0f);
    std::vector<float> block(64 * 2, 0.0f);
    n->processInterleaved(block.data(), 64, 2);
    EXPECT_NEAR(n->currentGain(), 2.2387f, 1e-4f);

    // The attribute keeps -50; the core works with -40, so a -45 LUFS track
    // is raised by 5 dB, not lowered.
    n->setTargetLufs(-50.0f);
    EXPECT_EQ(n->targetLufs(), -50.0f);
    n->seedIntegratedLufs(-45.0f);
    n->processInterleaved(block.data(), 64, 2);
    EXPECT_NEAR(n->currentGain(), std::pow(10.0f, 5.0f / 20.0f), 1e-5f);

    n->setMaxBoostDB(2.0f);
    // Non-finite settings are refused; the old ones stay, in the core too.
    n->setTargetLufs(NAN);
    n->setMaxBoostDB(INFINITY);
    EXPECT_EQ(n->targetLufs(), -50.0f);
    EXPECT_EQ(n->maxBoostDB(), 2.0f);
    n->seedIntegratedLufs(-45.0f);
    n->processInterleaved(block.data(), 64, 2);
    EXPECT_NEAR(n->currentGain(), std::pow(10.0f, 2.0f / 20.0f), 1e-5f);

    // Reset caps the level at unity on the next block.
    n->reset();
    n->processInterleaved(block.data(), 64, 2);
    EXPECT_EQ(n->currentGain(), 1.0f);
}

TEST_F(TavroVolumeNormalizerTest, LargeBlocksAreProcessedInChunksOf8192) {
    n->setEnabled(true);
    auto block = sine(440, kRate, 20000, 2, 0.3f);
    auto expected = block;
    n->processInterleaved(block.data(), 20000, 2);

    // Readings fall at the start of a call, so only the chunking 8192, 8192,
    // 3616 reproduces the output bit for bit.
    std::unique_ptr<R128NormalizerState, StateDeleter> ref(r128_normalizer_create(2, 8192, kRate));
    r128_normalizer_process_interleaved(ref.get(), expected.data(), 8192);
    r128_normalizer_process_interleaved(ref.get(), expected.data() + 2 * 8192, 8192);
    r128_normalizer_process_interleaved(ref.get(), expected.data() + 2 * 16384, 3616);
    EXPECT_EQ(block, expected);
    EXPECT_EQ(n->currentGain(), static_cast<float>(r128_normalizer_current_gain(ref.get())));
}

TEST_F(TavroVolumeNormalizerTest, QuietTrackReachesTheTargetAndNeverPassesTheLimiter) {
    n->setMaxBoostDB(18.0f); // -30 LUFS needs 14 dB
    n->setEnabled(true);

    ebur128_state* meter = ebur128_init(2, kRate, EBUR128_MODE_S);
    ASSERT_TRUE(meter);
    const float bound = 0.9f + (1.0f - 0.9f);
    std::vector<float> block(1024 * 2);
    uint64_t frames = 0;
    double settledAt = -1, worst = 0, lastLufs = 0;
    float peak = 0;
    for (;;) {
        const DWORD got = BASS_ChannelGetData(stream->handle(), block.data(),
                                              static_cast<DWORD>(block.size() * 4) | BASS_DATA_FLOAT);
        if (got == 0 || got == 0xFFFFFFFF) break;
        const size_t count = got / 8;
        for (size_t i = 0; i < count * 2; ++i)
            peak = std::max(peak, std::fabs(block[i]));
        ebur128_add_frames_float(meter, block.data(), count);
        const uint64_t before = frames;
        frames += count;
        // Short-term readings every 100 ms over the quiet part.
        if (frames <= 8 * kRate && frames / 4410 != before / 4410) {
            double lufs = 0;
            ASSERT_EQ(ebur128_loudness_shortterm(meter, &lufs), EBUR128_SUCCESS);
            lastLufs = lufs;
            if (std::fabs(lufs + 16.0) <= 1.0) {
                if (settledAt < 0) settledAt = static_cast<double>(frames) / kRate;
            } else if (settledAt >= 0) {
                worst = std::max(worst, std::fabs(lufs + 16.0));
            }
        }
    }
    ebur128_destroy(&meter);
    EXPECT_EQ(frames, 9u * kRate);
    EXPECT_GE(settledAt, 0.0) << "last short-term reading " << lastLufs;
    EXPECT_LE(settledAt, 5.0);
    EXPECT_EQ(worst, 0.0) << "left the target band after settling";
    EXPECT_LE(peak, bound);
    EXPECT_GT(peak, 0.9f); // the loud second did reach the limiter
}

TEST_F(TavroVolumeNormalizerTest, RidesTheGainOfAPlayingStream) {
    stream = open(TavroSourceFlagFloat);
    ASSERT_TRUE(stream);
    n = TavroVolumeNormalizer::initWithStream(stream);
    n->setEnabled(true);
    ASSERT_TRUE(stream->play(false));
    // The quiet track needs +14 dB: the gain climbs as soon as blocks render.
    EXPECT_TRUE(waitFor([&] { return n->currentGain() > 1.5f; }, std::chrono::milliseconds(3000)));
    // Control calls land while blocks render; none of them waits for the renderer.
    for (int i = 0; i < 50; ++i) {
        n->setTargetLufs(-16.0f - static_cast<float>(i % 5));
        n->setMaxBoostDB(static_cast<float>(i % 13));
        if (i % 10 == 0) n->seedIntegratedLufs(-30.0f);
        if (i % 10 == 5) n->reset();
        n->setEnabled(i % 7 != 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    n.reset(); // removal while the renderer runs
    stream->stop();
}

TEST_F(TavroVolumeNormalizerTest, DestructionTakesTheDspOffTheChannel) {
    n->setEnabled(true);
    n->seedGain(2.0f);
    n.reset();
    std::vector<float> block(256 * 2);
    ASSERT_EQ(BASS_ChannelGetData(stream->handle(), block.data(),
                                  static_cast<DWORD>(block.size() * 4) | BASS_DATA_FLOAT),
              block.size() * 4);
    const auto want = sine(1000, kRate, 256, 2, std::pow(10.0f, -30.0f / 20.0f));
    for (size_t i = 0; i < block.size(); ++i)
        ASSERT_NEAR(block[i], want[i], 1e-6f) << i;
}

TEST_F(TavroVolumeNormalizerTest, NoFormatMeansNoState) {
    n = TavroVolumeNormalizer::initWithStream(nullptr);
    EXPECT_FALSE(n->hasState());
    EXPECT_EQ(n->dspHandle(), 0u);
    n->setEnabled(true);
    n->seedGain(2.0f);
    n->reset();
    std::vector<float> block(64 * 2, 0.25f);
    n->processInterleaved(block.data(), 64, 2);
    EXPECT_EQ(block[0], 0.25f);
    EXPECT_EQ(n->currentGain(), 1.0f);
}
