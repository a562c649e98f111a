// Amplitude, modulation and delay nodes: their values, timing and state.
#include <tavro/dsp/TavroDSPBitCrusher.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>
#include <tavro/dsp/TavroDSPMath.hpp>
#include <tavro/dsp/TavroDSPRingModulator.hpp>
#include <tavro/dsp/TavroDSPSoftClip.hpp>
#include <tavro/dsp/TavroDSPStereoWidth.hpp>
#include <tavro/dsp/TavroDSPTremolo.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

// A delay line that cannot be had must come back as a null pointer, not end
// the run; the sanitizer's allocator aborts by default.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

using Block = std::vector<float>;

// In blocks of `block` frames, so state must carry across blocks.
Block run(TavroDSPNode& n, Block v, uint64_t channels, uint64_t rate, size_t block = 7) {
    const size_t frames = v.size() / channels;
    for (size_t at = 0; at < frames; at += block)
        n.processInterleavedFloat(v.data() + at * channels, std::min(block, frames - at), channels, rate);
    return v;
}

Block impulse(size_t n) {
    Block v(n, 0.0f);
    v[0] = 1.0f;
    return v;
}

std::vector<size_t> nonZero(const Block& v) {
    std::vector<size_t> at;
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i] != 0.0f) at.push_back(i);
    return at;
}

std::shared_ptr<TavroDSPDelay> wetDelay(float seconds, float feedback) {
    auto d = TavroDSPDelay::init();
    d->setDelaySeconds(seconds), d->setFeedback(feedback), d->setMix(1);
    return d;
}

} // namespace

TEST(TavroDSPNodesTest, GainSoftClipAndWidthValues) {
    auto gain = TavroDSPGain::init();
    const Block in = {0.5f, -0.25f, 0.75f, 0.1f};
    EXPECT_EQ(run(*gain, in, 2, 44100), in) << "0 dB is exactly 1";
    gain->setGainDB(-6);
    EXPECT_NEAR(run(*gain, in, 2, 44100)[0], 0.5f * 0.5011872f, 1e-7);

    auto clip = TavroDSPSoftClip::init();
    const Block clipped = run(*clip, {0.5f, -0.5f, 0.0f, 40.0f}, 1, 44100);
    EXPECT_NEAR(clipped[0], 0.7605975f, 1e-7);
    EXPECT_NEAR(clipped[1], -0.7605975f, 1e-7);
    EXPECT_EQ(clipped[2], 0.0f);
    EXPECT_EQ(clipped[3], 1.0f);

    auto width = TavroDSPStereoWidth::init();
    width->setWidth(0);
    const Block six = {0.1f, 0.9f, 0.2f, 0.3f, 0.4f, 0.5f};
    EXPECT_EQ(run(*width, six, 6, 44100), six);
    EXPECT_EQ(run(*width, six, 1, 44100), six);
    EXPECT_EQ(run(*width, {0.8f, 0.2f}, 2, 44100), (Block{0.5f, 0.5f}));
    width->setWidth(-1);
    EXPECT_EQ(run(*width, {0.75f, 0.25f}, 2, 44100), (Block{0.25f, 0.75f}));
}

TEST(TavroDSPNodesTest, BitCrusherQuantisesAndHolds) {
    auto b = TavroDSPBitCrusher::init();
    EXPECT_EQ(b->quantiserStep(), 0.0078125f);
    EXPECT_EQ(run(*b, Block(8, 0.3f), 2, 44100), Block(8, 0.296875f));
    const std::vector<std::pair<float, uint64_t>> holds = {{0.5f, 2}, {0.4f, 2},     {0.3f, 3}, {2.0f, 1},
                                                           {7.0f, 1}, {0.001f, 100}, {NAN, 1}};
    for (auto [ratio, frames] : holds) {
        b->setSampleRateReductionRatio(ratio);
        EXPECT_EQ(b->holdFrames(), frames) << "ratio " << ratio;
    }
    // Hold of 3 in blocks of 2 frames: the count runs on across blocks.
    auto held = TavroDSPBitCrusher::init();
    held->setSampleRateReductionRatio(0.3f);
    EXPECT_EQ(run(*held, {0, 0.125f, 0.25f, 0.375f, 0.5f, 0.625f, 0.75f}, 1, 44100, 2),
              (Block{0, 0, 0, 0.375f, 0.375f, 0.375f, 0.75f}));

    for (int32_t bits : {1, 0, -5}) {
        auto coarse = TavroDSPBitCrusher::init();
        coarse->setBitDepth(bits), coarse->setSampleRateReductionRatio(1);
        EXPECT_EQ(run(*coarse, {0.4f, 0.5f, -0.5f, -1.0f}, 1, 44100), (Block{0, 1, -1, -1}))
            << bits << " bits";
    }
    b->setBitDepth(31);
    EXPECT_EQ(b->quantiserStep(), std::ldexp(1.0f, -29)) << "deeper than 30 bits acts as 30";

    Block ten(3 * 10);
    for (size_t i = 0; i < ten.size(); ++i)
        ten[i] = 0.01f + 0.013f * static_cast<float>(i);
    const Block crushed = run(*TavroDSPBitCrusher::init(), ten, 10, 44100);
    for (size_t i = 0; i < ten.size(); ++i)
        EXPECT_EQ(crushed[i] == ten[i], i % 10 >= 8) << "sample " << i;
}

TEST(TavroDSPNodesTest, OscillatorsStartAtPhaseZeroAndRunOnAcrossBlocks) {
    auto ring = TavroDSPRingModulator::init();
    ring->setMix(0);
    const Block in = {0.5f, -0.5f, 0.25f, 0.75f, 1.0f, -1.0f};
    EXPECT_EQ(run(*ring, in, 2, 44100), in);
    auto fresh = TavroDSPRingModulator::init();
    fresh->setMix(1), fresh->setCarrierFrequency(30000); // wraps the phase almost every frame
    const Block out = run(*fresh, in, 2, 44100, 1);
    EXPECT_EQ(out[0], 0.0f) << "sin 0 on the first frame";
    const double inc = 30000.0 * 2 * std::numbers::pi / 44100;
    for (size_t f = 1; f < 3; ++f) {
        const auto m =
            static_cast<float>(std::sin(std::fmod(inc * static_cast<double>(f), 2 * std::numbers::pi)));
        EXPECT_NEAR(out[2 * f], in[2 * f] * m, 1e-6);
        EXPECT_NEAR(out[2 * f + 1], in[2 * f + 1] * m, 1e-6) << "one carrier for both channels";
    }

    // 441 Hz at 44.1 kHz: 100 frames a cycle; full depth peaks at frame 25
    // and reaches zero at frame 75.
    auto tremolo = TavroDSPTremolo::init();
    tremolo->setDepth(0);
    EXPECT_EQ(run(*tremolo, Block(50, 0.5f), 1, 44100), Block(50, 0.5f));
    tremolo->setDepth(1), tremolo->setRate(441);
    auto fullDepth = tremolo->copy();
    const Block gains = run(*fullDepth, Block(400, 1.0f), 2, 44100, 30);
    EXPECT_EQ(gains[0], 0.5f) << "1 - depth / 2 at phase 0";
    EXPECT_NEAR(gains[50], 1.0f, 1e-6);
    EXPECT_NEAR(gains[151], 0.0f, 1e-6);
    EXPECT_NEAR(gains[250], 1.0f, 1e-6);
}

TEST(TavroDSPNodesTest, DelayEchoesOneFrameShortOfTheRing) {
    auto d = wetDelay(0.25f, 0.5f);
    const Block out = run(*d, impulse(34000), 1, 44100, 1024);
    EXPECT_EQ(d->delaySamples(), 11025u);
    EXPECT_EQ(nonZero(out), (std::vector<size_t>{11024, 22048, 33072}));
    EXPECT_EQ(out[33072], 0.25f);
    for (float seconds : {0.0f, -3.0f, NAN})
        EXPECT_EQ(nonZero(run(*wetDelay(seconds, 0), impulse(5), 1, 44100)), std::vector<size_t>{1});
    const Block endless = run(*wetDelay(0.0625f, 1), impulse(13), 1, 80); // 5 slots
    EXPECT_EQ(endless, (Block{0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1})) << "feedback 1 does not decay";

    // Dry, the line still fills: switch to wet and the impulse comes out.
    auto dry = TavroDSPDelay::init();
    dry->setDelaySeconds(0.125f), dry->setMix(0); // 10 slots at 80 Hz
    EXPECT_EQ(run(*dry, impulse(5), 1, 80), impulse(5));
    dry->setMix(1);
    EXPECT_EQ(nonZero(run(*dry, Block(10), 1, 80)), std::vector<size_t>{4});
}

TEST(TavroDSPNodesTest, DelayLineFollowsTimeAndLayout) {
    auto d = wetDelay(0.25f, 0); // 20 slots at 80 Hz
    run(*d, Block(12), 1, 80);
    run(*d, impulse(1), 1, 80); // into slot 12
    d->setDelaySeconds(0.125f);
    EXPECT_EQ(nonZero(run(*d, impulse(30), 1, 80)), std::vector<size_t>{9}) << "shorter: at once, same line";
    EXPECT_EQ(d->bufSize(), 20u);
    d->setDelaySeconds(0.1875f);
    EXPECT_TRUE(nonZero(run(*d, Block(40), 1, 80)).empty()) << "slot 12 must not replay its old echo";
    EXPECT_EQ(d->delaySamples(), 15u);

    run(*d, impulse(3), 1, 80);
    d->setDelaySeconds(0.5f);
    EXPECT_TRUE(nonZero(run(*d, Block(60), 1, 80)).empty()) << "longer than the line: a new, silent one";
    EXPECT_EQ(d->bufSize(), 40u);
    run(*d, impulse(3), 1, 80);
    EXPECT_TRUE(nonZero(run(*d, Block(120), 2, 80)).empty()) << "stereo: a new, silent line";
    EXPECT_EQ(d->bufChannels(), 2u);

    d->setDelaySeconds(std::numeric_limits<float>::infinity());
    run(*d, Block(2), 1, 100);
    EXPECT_EQ(d->delaySamples(), 1000u) << "limited to 10 s";

    // Memory that cannot be had: the old line and time stay for the same
    // layout; another layout passes dry; a sane request is tried again.
    auto small = wetDelay(0.125f, 0);
    run(*small, impulse(1), 1, 80);
    const uint64_t absurdRate = uint64_t{1} << 52;
    EXPECT_EQ(nonZero(run(*small, Block(12), 1, absurdRate)), std::vector<size_t>{8});
    EXPECT_EQ(run(*small, {0.5f, -0.5f}, 2, absurdRate), (Block{0.5f, -0.5f}));
    run(*small, {0.5f, -0.5f}, 2, 80);
    EXPECT_EQ(small->bufChannels(), 2u);
    EXPECT_EQ(small->copy()->kind(), TavroDSPNodeKindDelay);
    EXPECT_EQ(std::static_pointer_cast<TavroDSPDelay>(small->copy())->bufSize(), 0u) << "a copy has no line";
}

TEST(TavroDSPNodesTest, FastSineAndTanhKeepTheLibraryValuesInFloats) {
    uint32_t seed = 11;
    for (int i = 0; i < 200000; ++i) {
        seed = seed * 1664525u + 1013904223u;
        const double phase = seed / 4294967296.0 * 3 * std::numbers::pi - 0.5;
        ASSERT_EQ(static_cast<float>(TavroDSPMath::sine(phase)), static_cast<float>(std::sin(phase)))
            << phase;
        const float v =
            std::ldexp(static_cast<float>(seed >> 8) / 16777216.0f, i % 40 - 30) * (i % 2 ? -1 : 1);
        ASSERT_EQ(static_cast<float>(TavroDSPMath::hyperbolicTangent(v)),
                  static_cast<float>(std::tanh(double{v})))
            << v;
    }
    for (float v : {0.0f, -0.0f, 25.0f, -1e30f, INFINITY, -INFINITY})
        EXPECT_EQ(TavroDSPMath::hyperbolicTangent(v), std::tanh(static_cast<double>(v))) << v;
    EXPECT_TRUE(std::isnan(TavroDSPMath::hyperbolicTangent(NAN)));
    double far[3];
    EXPECT_EQ(TavroDSPMath::oscillate(-2e5, 0.5, far, 3), -2e5 + 1.5);
    EXPECT_EQ(far[2], std::sin(-2e5 + 1.0)) << "phases beyond the fast range go to the C library";
}
