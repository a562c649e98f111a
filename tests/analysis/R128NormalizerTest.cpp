// The normaliser core: coefficients, seeds, reset, readings and their hold,
// the attack and release time constants, the limiter and the frame limit.
#include "PlatformFixture.hpp"
#include "analysis/R128NormalizerState.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

using tavro::test::sine;

namespace {

struct StateDeleter {
    void operator()(R128NormalizerState* s) const { r128_normalizer_destroy(s); }
};
using State = std::unique_ptr<R128NormalizerState, StateDeleter>;

State make(uint32_t chans = 2, double rate = 44100, uint64_t maxFrames = 8192) {
    return State(r128_normalizer_create(chans, maxFrames, rate));
}

// Runs `frames` frames of silence, in calls of at most `step` frames.
void runSilence(R128NormalizerState* s, uint64_t frames, uint64_t step = 4410) {
    std::vector<float> buf(step * s->channels);
    while (frames > 0) {
        const uint64_t n = std::min(frames, step);
        std::fill(buf.begin(), buf.end(), 0.0f);
        r128_normalizer_process_interleaved(s, buf.data(), n);
        frames -= n;
    }
}

double seededGain(double seed, bool asLufs) {
    auto s = make();
    if (asLufs)
        r128_normalizer_seed_integrated_lufs(s.get(), seed);
    else
        r128_normalizer_seed_gain(s.get(), seed);
    float frame[2] = {0, 0};
    r128_normalizer_process_interleaved(s.get(), frame, 1);
    return r128_normalizer_current_gain(s.get());
}

} // namespace

TEST(R128NormalizerTest, CreationDerivesItsConstantsFromTheRateAndSettersLimitTheirValues) {
    auto a = make(2, 44100);
    ASSERT_TRUE(a);
    EXPECT_NEAR(a->attackCoeff, 0.000113372, 1e-9);
    EXPECT_NEAR(a->releaseCoeff, 0.0000151170, 1e-10);
    EXPECT_EQ(a->updateIntervalFrames, 4410u);
    EXPECT_EQ(a->holdFrames, 22050u);
    EXPECT_EQ(r128_normalizer_current_gain(a.get()), 1.0);

    auto b = make(2, 48000);
    ASSERT_TRUE(b);
    EXPECT_NEAR(b->attackCoeff, 0.000104161, 1e-9);
    EXPECT_NEAR(b->releaseCoeff, 0.0000138888, 1e-10);
    EXPECT_EQ(b->updateIntervalFrames, 4800u);
    EXPECT_EQ(b->holdFrames, 24000u);

    EXPECT_FALSE(make(0));
    EXPECT_FALSE(make(2, 44100, 0));
    EXPECT_FALSE(make(2, 0));
    EXPECT_EQ(r128_normalizer_current_gain(nullptr), 1.0);
    r128_normalizer_destroy(nullptr);
    r128_normalizer_reset(nullptr);
    r128_normalizer_process_interleaved(nullptr, nullptr, 10);

    // The setters keep their values within limits.
    r128_normalizer_set_target_lufs(a.get(), 5);
    EXPECT_EQ(a->targetLufs.load(), 0.0);
    r128_normalizer_set_target_lufs(a.get(), -60);
    EXPECT_EQ(a->targetLufs.load(), -40.0);
    r128_normalizer_set_max_boost_db(a.get(), 30);
    EXPECT_EQ(a->maxBoostDb.load(), 24.0);
    r128_normalizer_set_max_boost_db(a.get(), -3);
    EXPECT_EQ(a->maxBoostDb.load(), 0.0);
}

TEST(R128NormalizerTest, SeedsJumpToTheirGainWithinTheLimits) {
    EXPECT_NEAR(seededGain(-23, true), 2.2387, 1e-4);
    EXPECT_NEAR(seededGain(-4, true), 0.2512, 1e-4);
    EXPECT_NEAR(seededGain(-45, true), 3.9811, 1e-4);
    EXPECT_EQ(seededGain(-70, true), 1.0);
    EXPECT_EQ(seededGain(NAN, true), 1.0);

    EXPECT_EQ(seededGain(0, false), 1.0);
    EXPECT_EQ(seededGain(-1, false), 1.0);
    EXPECT_EQ(seededGain(INFINITY, false), 1.0);
    EXPECT_NEAR(seededGain(100, false), 3.9811, 1e-4);
    EXPECT_NEAR(seededGain(0.01, false), 0.0631, 1e-4);

    // The seed uses the target in force when it is made, not when applied.
    auto s = make();
    r128_normalizer_set_target_lufs(s.get(), -20);
    r128_normalizer_seed_integrated_lufs(s.get(), -23);
    r128_normalizer_set_target_lufs(s.get(), -10);
    runSilence(s.get(), 1);
    EXPECT_NEAR(r128_normalizer_current_gain(s.get()), std::pow(10.0, 3.0 / 20.0), 1e-9);
}

TEST(R128NormalizerTest, SeedHoldsReadingsForHalfASecond) {
    auto s = make();
    r128_normalizer_seed_integrated_lufs(s.get(), -23);
    const double seeded = std::pow(10.0, 7.0 / 20.0);
    auto loud = sine(1000, 44100, 4410, 2, 0.5f);
    // Five calls of 4410 frames exhaust the hold exactly; the call in which
    // it reaches 0 still takes no reading.
    for (int i = 0; i < 5; ++i) {
        auto block = loud;
        r128_normalizer_process_interleaved(s.get(), block.data(), 4410);
        EXPECT_EQ(r128_normalizer_current_gain(s.get()), seeded) << "call " << i;
    }
    auto block = loud;
    r128_normalizer_process_interleaved(s.get(), block.data(), 1);
    EXPECT_LT(s->targetGain, seeded);
    EXPECT_LT(r128_normalizer_current_gain(s.get()), seeded);
}

TEST(R128NormalizerTest, ReadingsComeEveryTenthOfASecondAndIgnoreSilence) {
    auto s = make();
    // About -38 LUFS short-term after 0.1 s: the boost is capped at 12 dB.
    auto quiet = sine(1000, 44100, 4410, 2, 0.1f);
    r128_normalizer_process_interleaved(s.get(), quiet.data(), 4409);
    EXPECT_EQ(s->targetGain, 1.0);
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 1.0);
    r128_normalizer_process_interleaved(s.get(), quiet.data() + 2 * 4409, 1);
    EXPECT_NEAR(s->targetGain, std::pow(10.0, 12.0 / 20.0), 1e-12);
    EXPECT_GT(r128_normalizer_current_gain(s.get()), 1.0);

    // Four seconds of silence push the short-term reading to -inf.
    runSilence(s.get(), 4 * 44100);
    EXPECT_NEAR(s->targetGain, std::pow(10.0, 12.0 / 20.0), 1e-12);
}

TEST(R128NormalizerTest, ResetCapsTheGainAtUnityAndHoldsIt) {
    auto s = make();
    r128_normalizer_seed_gain(s.get(), 2.0);
    runSilence(s.get(), 1);
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 2.0);
    r128_normalizer_reset(s.get());
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 2.0); // only a request
    runSilence(s.get(), 1);
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 1.0);
    EXPECT_EQ(s->targetGain, 1.0);
    EXPECT_EQ(s->holdRemainingFrames, 22050u - 1);

    r128_normalizer_seed_gain(s.get(), 0.5);
    runSilence(s.get(), 1);
    r128_normalizer_reset(s.get());
    runSilence(s.get(), 1);
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 0.5);
    EXPECT_EQ(s->targetGain, 0.5);

    // A seed made together with a reset wins.
    r128_normalizer_reset(s.get());
    r128_normalizer_seed_gain(s.get(), 3.0);
    runSilence(s.get(), 1);
    EXPECT_EQ(r128_normalizer_current_gain(s.get()), 3.0);
    EXPECT_EQ(s->resetPending.load(), 0);
}

TEST(R128NormalizerTest, GainFallsAndRisesWithItsTimeConstants) {
    auto s = make();
    s->gain = 1.0;
    s->targetGain = 0.5;
    runSilence(s.get(), 8820);
    EXPECT_NEAR(r128_normalizer_current_gain(s.get()), 0.5 + 0.5 * std::exp(-1.0), 1e-6);

    s->gain = 0.5;
    s->targetGain = 1.0;
    runSilence(s.get(), 66150, 8192);
    EXPECT_NEAR(r128_normalizer_current_gain(s.get()), 1.0 - 0.5 * std::exp(-1.0), 1e-6);
}

TEST(R128NormalizerTest, LimiterBendsEverySampleAboveTheKnee) {
    auto s = make(1);
    const float k = 1.0f - 0.9f;
    std::vector<float> v = {0.95f, 0.9f, -0.95f, 3.0f, -3.0f, 0.5f, 1e6f, 1.5f};
    r128_normalizer_process_interleaved(s.get(), v.data(), v.size());
    EXPECT_NEAR(v[0], 0.94621, 1e-5);
    EXPECT_EQ(v[1], 0.9f);
    EXPECT_NEAR(v[2], -0.94621, 1e-5);
    // 32-bit tanh saturates to exactly 1 from about 1.8 up, and 0.9f + k is
    // exactly 1.0f: far above the knee the output touches the bound but
    // never passes it.
    EXPECT_LE(v[3], 0.9f + k);
    EXPECT_GT(v[3], 0.999f);
    EXPECT_GE(v[4], -(0.9f + k));
    EXPECT_EQ(v[5], 0.5f);
    EXPECT_LE(v[6], 0.9f + k);
    EXPECT_LT(v[7], 1.0f);
}

TEST(R128NormalizerTest, OneCallHandlesAtMostMaxFrames) {
    auto s = make(2);
    r128_normalizer_seed_gain(s.get(), 2.0);
    std::vector<float> v(10000 * 2, 0.25f);
    r128_normalizer_process_interleaved(s.get(), v.data(), 10000);
    for (size_t i = 0; i < v.size(); ++i) {
        const float want = i < 8192 * 2 ? 0.5f : 0.25f;
        if (v[i] != want) {
            ADD_FAILURE() << "sample " << i << " is " << v[i];
            break;
        }
    }
    EXPECT_EQ(s->holdRemainingFrames, 22050u - 8192);
}
