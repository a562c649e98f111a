// Every effect on unusual channel formats, and the effects that follow the
// channel's position.
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

#include <bass_fx.h>

#include <algorithm>
#include <cmath>
#include <vector>

using namespace tavro::test;

namespace {

class EffectFormatTest : public NoSoundTest {};

constexpr DWORD kAllTypes[] = {
    BASS_FX_DX8_CHORUS,  BASS_FX_DX8_COMPRESSOR,  BASS_FX_DX8_DISTORTION, BASS_FX_DX8_ECHO,
    BASS_FX_DX8_FLANGER, BASS_FX_DX8_PARAMEQ,     BASS_FX_DX8_REVERB,     BASS_FX_BFX_ROTATE,
    BASS_FX_BFX_PEAKEQ,  BASS_FX_BFX_DAMP,        BASS_FX_BFX_AUTOWAH,    BASS_FX_BFX_PHASER,
    BASS_FX_BFX_CHORUS,  BASS_FX_BFX_COMPRESSOR2, BASS_FX_BFX_VOLUME_ENV, BASS_FX_BFX_BQF,
    BASS_FX_BFX_ECHO4,   BASS_FX_BFX_FREEVERB,
};

} // namespace

// Each effect installs with its defaults, hands them back as acceptable
// parameters, and keeps its output finite and bounded on any format.
TEST_F(EffectFormatTest, EveryEffectRunsOnMonoSixChannelsAndExtremeRates) {
    struct Format {
        DWORD freq;
        unsigned chans;
    };
    for (Format fmt : {Format{8000, 1}, Format{44100, 2}, Format{192000, 6}}) {
        for (DWORD type : kAllTypes) {
            const auto in = sine(440, fmt.freq, fmt.freq / 2, fmt.chans, 0.5f);
            HSTREAM h = pushStream(fmt.freq, fmt.chans, BASS_STREAM_DECODE, in, true);
            HFX fx = BASS_ChannelSetFX(h, type, 0);
            ASSERT_NE(fx, 0u) << std::hex << type;
            alignas(8) unsigned char params[64] = {};
            ASSERT_TRUE(BASS_FXGetParameters(fx, params));
            EXPECT_TRUE(BASS_FXSetParameters(fx, params)) << std::hex << type;
            std::vector<float> out(in.size());
            const DWORD bytes = static_cast<DWORD>(out.size() * sizeof(float));
            EXPECT_EQ(BASS_ChannelGetData(h, out.data(), bytes | BASS_DATA_FLOAT), bytes) << std::hex << type;
            const bool sane = std::all_of(out.begin(), out.end(),
                                          [](float x) { return std::isfinite(x) && std::fabs(x) < 16; });
            EXPECT_TRUE(sane) << std::hex << type << " at " << fmt.freq << " Hz, " << fmt.chans
                              << " channels";
            BASS_StreamFree(h);
        }
    }
}

TEST_F(EffectFormatTest, ModulatedEffectsChangeTheSignalAndTheirDryMixPassesIt) {
    const auto in = sine(440, 44100, 44100, 2, 0.5f);
    auto run = [&](DWORD type, const void* p) {
        const auto out = render(44100, 2, in, [&](HSTREAM h) { install(h, type, p); });
        double diff = 0;
        for (size_t i = 0; i < in.size(); ++i)
            diff = std::max(diff, double(std::fabs(out[i] - in[i])));
        return diff;
    };
    BASS_DX8_CHORUS chorus{50, 10, 25, 1.1f, 1, 16, BASS_DX8_PHASE_90};
    BASS_DX8_FLANGER flanger{50, 100, -50, 0.25f, 0, 2, BASS_DX8_PHASE_ZERO};
    BASS_BFX_CHORUS bchorus{0.9f, 0.35f, 0.5f, 1, 400, 200, -1};
    BASS_BFX_AUTOWAH wah{0.5f, 1.5f, 0.5f, 2, 4.3f, 50, -1};
    BASS_BFX_PHASER phaser{0.999f, 0.999f, 0, 1, 4, 100, -1};
    EXPECT_GT(run(BASS_FX_DX8_CHORUS, &chorus), 0.05);
    EXPECT_GT(run(BASS_FX_DX8_FLANGER, &flanger), 0.05);
    EXPECT_GT(run(BASS_FX_BFX_CHORUS, &bchorus), 0.05);
    EXPECT_GT(run(BASS_FX_BFX_AUTOWAH, &wah), 0.05);
    EXPECT_GT(run(BASS_FX_BFX_PHASER, &phaser), 0.05);
    // Fully dry, they pass the input untouched.
    chorus.fWetDryMix = 0;
    EXPECT_EQ(run(BASS_FX_DX8_CHORUS, &chorus), 0.0);
    BASS_BFX_PHASER dry{1, 0, 0, 1, 4, 100, -1};
    EXPECT_EQ(run(BASS_FX_BFX_PHASER, &dry), 0.0);
    BASS_BFX_ROTATE still{0, -1};
    EXPECT_EQ(run(BASS_FX_BFX_ROTATE, &still), 0.0);
}

TEST_F(EffectFormatTest, RotateCarriesOneSideAcrossToTheOther) {
    std::vector<float> in(1000 * 2, 0.0f);
    for (size_t i = 0; i < 1000; ++i)
        in[i * 2] = 1.0f; // left only
    const BASS_BFX_ROTATE p{1, BASS_BFX_CHANALL};
    const auto out = render(1000, 2, in, [&](HSTREAM h) { install(h, BASS_FX_BFX_ROTATE, &p); });
    ASSERT_EQ(out.size(), in.size());
    EXPECT_NEAR(out[0], 1.0f, 1e-6f);
    EXPECT_NEAR(out[250 * 2 + 1], 0.5f, 1e-3f); // a quarter turn: half across
    EXPECT_NEAR(out[500 * 2 + 1], 1.0f, 1e-3f); // half a turn: all across
    EXPECT_NEAR(out[500 * 2], 0.0f, 1e-3f);
}

TEST_F(EffectFormatTest, VolumeEnvelopeFollowsThePositionAfterASeek) {
    const DWORD freq = 1000;
    const DWORD h = RampChannel::create(freq, 1, BASS_STREAM_DECODE, 10 * freq);
    HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_VOLUME_ENV, 0);
    // Given out of order: they are sorted by position.
    const BASS_BFX_ENV_NODE nodes[] = {{4.0, 0.0f}, {0.0, 1.0f}, {2.0, 0.5f}};
    BASS_BFX_VOLUME_ENV env{BASS_BFX_CHANALL, 3, nodes, TRUE};
    ASSERT_TRUE(BASS_FXSetParameters(fx, &env));
    ASSERT_TRUE(BASS_ChannelSetPosition(h, QWORD(3000) * sizeof(float), BASS_POS_BYTE));
    float out[100];
    ASSERT_EQ(BASS_ChannelGetData(h, out, sizeof out | BASS_DATA_FLOAT), sizeof out);
    for (int i = 0; i < 100; i += 25) {
        const double frame = 3000 + i;
        const double expectGain = 0.5 * (1 - (frame / freq - 2) / 2);
        EXPECT_NEAR(out[i], frame * expectGain, 1e-2) << i;
    }
    // Past the last node it holds its value: silence here.
    ASSERT_TRUE(BASS_ChannelSetPosition(h, QWORD(6000) * sizeof(float), BASS_POS_BYTE));
    ASSERT_EQ(BASS_ChannelGetData(h, out, sizeof out | BASS_DATA_FLOAT), sizeof out);
    EXPECT_EQ(out[50], 0.0f);

    BASS_BFX_VOLUME_ENV back{};
    ASSERT_TRUE(BASS_FXGetParameters(fx, &back));
    EXPECT_EQ(back.lNodeCount, 3);
    EXPECT_EQ(back.bFollow, TRUE);
    const BASS_BFX_ENV_NODE bad[] = {{-1.0, 1.0f}};
    BASS_BFX_VOLUME_ENV badEnv{BASS_BFX_CHANALL, 1, bad, TRUE};
    EXPECT_FALSE(BASS_FXSetParameters(fx, &badEnv));
    BASS_BFX_VOLUME_ENV noNodes{BASS_BFX_CHANALL, 2, nullptr, TRUE};
    EXPECT_FALSE(BASS_FXSetParameters(fx, &noNodes));
}

TEST_F(EffectFormatTest, DynamicAmplificationRaisesAQuietSignalTowardsItsTarget) {
    const auto in = sine(440, 44100, 44100 * 3, 1, 0.1f);
    const BASS_BFX_DAMP p{0.5f, 0.01f, 1, 1, 0, BASS_BFX_CHANALL};
    const auto out = render(44100, 1, in, [&](HSTREAM h) { install(h, BASS_FX_BFX_DAMP, &p); });
    ASSERT_EQ(out.size(), in.size());
    float early = 0, late = 0;
    for (size_t i = 0; i < 4410; ++i)
        early = std::max(early, std::fabs(out[i]));
    for (size_t i = out.size() - 4410; i < out.size(); ++i)
        late = std::max(late, std::fabs(out[i]));
    EXPECT_LT(early, 0.2f);
    EXPECT_GT(late, 0.4f);
    EXPECT_LE(late, 0.5f + 1e-3f); // never past the target
}

TEST_F(EffectFormatTest, DistortionAddsHarmonicsAndStaysWithinItsGain) {
    const auto in = sine(200, 44100, 44100, 1, 0.9f);
    const BASS_DX8_DISTORTION p{-6, 100, 1000, 4000, 8000};
    const auto out = render(44100, 1, in, [&](HSTREAM h) { install(h, BASS_FX_DX8_DISTORTION, &p); });
    ASSERT_EQ(out.size(), in.size());
    // Energy at the third harmonic (600 Hz), measured by correlation.
    double re = 0, im = 0;
    for (size_t i = 22050; i < 44100; ++i) {
        re += out[i] * std::cos(2 * M_PI * 600 * double(i) / 44100);
        im += out[i] * std::sin(2 * M_PI * 600 * double(i) / 44100);
    }
    EXPECT_GT(std::hypot(re, im) / 22050 * 2, 0.01);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::fabs(x) < 1.0f; }));
}
