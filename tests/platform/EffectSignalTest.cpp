// What the effects do to signals, measured on decoding streams.
#include "ClickMetric.hpp"
#include "PlatformFixture.hpp"

#include <bass_fx.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

using namespace tavro::test;

namespace {

class EffectSignalTest : public NoSoundTest {};

// Level in dB of channel c over frames [from, to).
double rmsDb(const std::vector<float>& v, unsigned chans, unsigned c, size_t from, size_t to) {
    double acc = 0;
    for (size_t i = from; i < to; ++i)
        acc += double(v[i * chans + c]) * v[i * chans + c];
    return 10 * std::log10(acc / double(to - from) + 1e-30);
}

// Gain in dB that an effect gives a steady sine, past its settling time.
double sineGainDb(DWORD type, const void* params, double hz, DWORD freq = 44100, unsigned chans = 2) {
    const size_t frames = freq; // one second
    const auto in = sine(hz, freq, frames, chans, 0.25f);
    const auto out = render(freq, chans, in, [&](HSTREAM h) { install(h, type, params); });
    EXPECT_EQ(out.size(), in.size());
    return rmsDb(out, chans, 0, frames / 2, frames) - rmsDb(in, chans, 0, frames / 2, frames);
}

} // namespace

TEST_F(EffectSignalTest, ParametricBandLiftsItsCentreAndLeavesDistantFrequencies) {
    BASS_DX8_PARAMEQ band{1000, 12, 12};
    EXPECT_NEAR(sineGainDb(BASS_FX_DX8_PARAMEQ, &band, 1000), 12.0, 0.2);
    EXPECT_NEAR(sineGainDb(BASS_FX_DX8_PARAMEQ, &band, 100), 0.0, 0.5);
    BASS_DX8_PARAMEQ cut{1000, 12, -12};
    EXPECT_NEAR(sineGainDb(BASS_FX_DX8_PARAMEQ, &cut, 1000), -12.0, 0.2);
}

TEST_F(EffectSignalTest, PeakingBandsSitAtTheirCentresAtAnyRate) {
    // A centre above Nyquist of an 8 kHz channel is accepted and kept stable.
    BASS_BFX_PEAKEQ hi{0, 0.8f, 0, 16000, 6, BASS_BFX_CHANALL};
    for (DWORD freq : {8000u, 44100u, 192000u}) {
        BASS_BFX_PEAKEQ band{0, 0.8f, 0, 1000, 6, BASS_BFX_CHANALL};
        EXPECT_NEAR(sineGainDb(BASS_FX_BFX_PEAKEQ, &band, 1000, freq, 1), 6.0, 0.2) << freq;
        EXPECT_NEAR(sineGainDb(BASS_FX_BFX_PEAKEQ, &band, 250, freq, 1), 0.0, 0.5) << freq;
        EXPECT_TRUE(std::isfinite(sineGainDb(BASS_FX_BFX_PEAKEQ, &hi, 440, freq, 1)));
    }
}

TEST_F(EffectSignalTest, OnePeakingEffectHoldsSeveralBandsSetOneAtATime) {
    const auto in = sine(1000, 44100, 44100, 1, 0.25f);
    const auto out = render(44100, 1, in, [&](HSTREAM h) {
        HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_PEAKEQ, 0);
        BASS_BFX_PEAKEQ a{0, 1, 0, 1000, 6, BASS_BFX_CHANALL};
        BASS_BFX_PEAKEQ b{3, 0, 2, 1000, -3, BASS_BFX_CHANALL};
        ASSERT_TRUE(BASS_FXSetParameters(fx, &a));
        ASSERT_TRUE(BASS_FXSetParameters(fx, &b));
        BASS_BFX_PEAKEQ back{};
        back.lBand = 3;
        ASSERT_TRUE(BASS_FXGetParameters(fx, &back));
        EXPECT_EQ(back.fGain, -3);
        EXPECT_EQ(back.fQ, 2);
    });
    EXPECT_NEAR(rmsDb(out, 1, 0, 22050, 44100) - rmsDb(in, 1, 0, 22050, 44100), 3.0, 0.2);
}

TEST_F(EffectSignalTest, BiquadTypesShapeTheSpectrumAsTheirNamesSay) {
    struct Case {
        int type;
        double hz, expectDb, tol;
    };
    const Case cases[] = {
        {BASS_BFX_BQF_LOWPASS, 100, 0, 0.2},    {BASS_BFX_BQF_LOWPASS, 8000, -37, 3},
        {BASS_BFX_BQF_HIGHPASS, 8000, 0, 0.3},  {BASS_BFX_BQF_HIGHPASS, 100, -40, 4},
        {BASS_BFX_BQF_NOTCH, 1000, -40, 40},    {BASS_BFX_BQF_BANDPASS_Q, 1000, 0, 0.2},
        {BASS_BFX_BQF_PEAKINGEQ, 1000, 9, 0.2}, {BASS_BFX_BQF_ALLPASS, 3000, 0, 0.1},
        {BASS_BFX_BQF_LOWSHELF, 50, 9, 0.3},    {BASS_BFX_BQF_HIGHSHELF, 15000, 9, 0.3},
    };
    for (const Case& k : cases) {
        BASS_BFX_BQF p{k.type, 1000, 9, 1, 0, 0, BASS_BFX_CHANALL};
        const double db = sineGainDb(BASS_FX_BFX_BQF, &p, k.hz);
        if (k.type == BASS_BFX_BQF_NOTCH)
            EXPECT_LT(db, -20) << k.type;
        else
            EXPECT_NEAR(db, k.expectDb, k.tol) << k.type << " at " << k.hz;
    }
}

TEST_F(EffectSignalTest, EchoRepeatsAnImpulseAfterItsDelayOnEachSide) {
    const DWORD freq = 44100;
    std::vector<float> in(size_t(freq) * 2, 0.0f);
    in[0] = in[1] = 1.0f;
    BASS_DX8_ECHO p{50, 50, 100, 250, FALSE};
    const auto out = render(freq, 2, in, [&](HSTREAM h) { install(h, BASS_FX_DX8_ECHO, &p); });
    ASSERT_EQ(out.size(), in.size());
    const size_t l = 4410, r = 11025; // 100 ms and 250 ms
    EXPECT_NEAR(out[0], 0.5f, 1e-6f);
    EXPECT_NEAR(out[l * 2], 0.5f, 1e-6f);
    EXPECT_NEAR(out[2 * l * 2], 0.25f, 1e-6f); // the first repeat fed back at 50 %
    EXPECT_NEAR(out[r * 2 + 1], 0.5f, 1e-6f);
    EXPECT_EQ(out[l * 2 + 1], 0.0f);
    double elsewhere = 0;
    for (size_t i = 1; i < l; ++i)
        elsewhere += std::fabs(out[i * 2]);
    EXPECT_EQ(elsewhere, 0.0);
}

TEST_F(EffectSignalTest, PanDelayBouncesRepeatsBetweenTheSides) {
    std::vector<float> in(44100 * 2, 0.0f);
    in[0] = 1.0f; // left only
    BASS_DX8_ECHO p{100, 50, 100, 100, TRUE};
    const auto out = render(44100, 2, in, [&](HSTREAM h) { install(h, BASS_FX_DX8_ECHO, &p); });
    EXPECT_NEAR(out[4410 * 2], 1.0f, 1e-6f);     // first repeat left
    EXPECT_NEAR(out[8820 * 2 + 1], 0.5f, 1e-6f); // second on the right
    EXPECT_EQ(out[8820 * 2], 0.0f);
}

TEST_F(EffectSignalTest, Echo4DelaysBySecondsOnItsChannelsOnly) {
    std::vector<float> in(8000 * 2, 0.0f);
    in[0] = in[1] = 1.0f;
    BASS_BFX_ECHO4 p{1, 1, 0, 0.5f, FALSE, BASS_BFX_CHAN2};
    const auto out = render(8000, 2, in, [&](HSTREAM h) { install(h, BASS_FX_BFX_ECHO4, &p); });
    EXPECT_NEAR(out[4000 * 2 + 1], 1.0f, 1e-6f);
    EXPECT_EQ(out[4000 * 2], 0.0f);
}

TEST_F(EffectSignalTest, CompressorsReduceALoudSineByTheExpectedGain) {
    // 0.5 peak = -6.02 dBFS; 13.98 dB over a -20 dB threshold at 4:1 leaves 3.5 dB.
    const double expected = -(20 * std::log10(0.5) + 20) * (1 - 1.0 / 4);
    const DWORD freq = 44100;
    const auto in = sine(1000, freq, freq, 2, 0.5f);
    BASS_DX8_COMPRESSOR dx{0, 10, 200, -20, 4, 4};
    auto out = render(freq, 2, in, [&](HSTREAM h) { install(h, BASS_FX_DX8_COMPRESSOR, &dx); });
    EXPECT_NEAR(rmsDb(out, 2, 0, freq / 2, freq) - rmsDb(in, 2, 0, freq / 2, freq), expected, 0.3);
    // Compressor 2 adds its make-up gain.
    BASS_BFX_COMPRESSOR2 c2{5, -20, 4, 10, 200, BASS_BFX_CHANALL};
    out = render(freq, 2, in, [&](HSTREAM h) { install(h, BASS_FX_BFX_COMPRESSOR2, &c2); });
    EXPECT_NEAR(rmsDb(out, 2, 1, freq / 2, freq) - rmsDb(in, 2, 1, freq / 2, freq), expected + 5, 0.3);
    // Below the threshold nothing changes.
    const auto quiet = sine(1000, freq, freq, 2, 0.05f);
    out = render(freq, 2, quiet, [&](HSTREAM h) { install(h, BASS_FX_DX8_COMPRESSOR, &dx); });
    EXPECT_NEAR(rmsDb(out, 2, 0, freq / 2, freq) - rmsDb(quiet, 2, 0, freq / 2, freq), 0.0, 0.05);
}

TEST_F(EffectSignalTest, BadParametersAreRefusedAndOutputStaysFinite) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    BASS_DX8_ECHO echoes[] = {
        {50, 50, -10, 100, FALSE}, {50, 50, 100, nan, FALSE}, {50, 500, 100, 100, FALSE}};
    BASS_DX8_COMPRESSOR comps[] = {
        {1e9f, 10, 200, -20, 3, 4}, {0, 10, 200, -20, 0.5f, 4}, {0, inf, 200, -20, 3, 4}};
    BASS_BFX_BQF bqfs[] = {{9, 1000, 0, 1, 0, 0, -1},
                           {6, -5, 0, 1, 0, 0, -1},
                           {6, 1000, 100, 1, 0, 0, -1},
                           {6, 1000, 0, 0, 0, 0, -1}};
    BASS_BFX_ECHO4 e4[] = {
        {1, 1, 2, 0.1f, FALSE, -1}, {1, 1, 0.5f, -1, FALSE, -1}, {nan, 1, 0.5f, 0.1f, FALSE, -1}};
    const auto in = sine(440, 44100, 44100, 2, 1.0f);
    const auto out = render(44100, 2, in, [&](HSTREAM h) {
        auto refuses = [&](DWORD type, const void* bad) {
            HFX fx = BASS_ChannelSetFX(h, type, 0);
            EXPECT_FALSE(BASS_FXSetParameters(fx, bad)) << type;
            EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
        };
        for (const auto& p : echoes)
            refuses(BASS_FX_DX8_ECHO, &p);
        for (const auto& p : comps)
            refuses(BASS_FX_DX8_COMPRESSOR, &p);
        for (const auto& p : bqfs)
            refuses(BASS_FX_BFX_BQF, &p);
        for (const auto& p : e4)
            refuses(BASS_FX_BFX_ECHO4, &p);
        // The most extreme legal settings, stacked.
        BASS_DX8_ECHO loud{100, 100, 1, 1, TRUE};
        install(h, BASS_FX_DX8_ECHO, &loud);
        BASS_BFX_BQF peak{BASS_BFX_BQF_PEAKINGEQ, 20, 24, 0, 100, 0, -1};
        install(h, BASS_FX_BFX_BQF, &peak);
        BASS_DX8_COMPRESSOR gain{60, 0.01f, 50, 0, 1, 0};
        install(h, BASS_FX_DX8_COMPRESSOR, &gain);
    });
    ASSERT_EQ(out.size(), in.size());
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); }));
}

TEST_F(EffectSignalTest, ReverbTailsDecayAtTheSetTime) {
    const DWORD freq = 44100;
    // A short noise burst, then silence.
    auto in = noise(2205 * 2, 1, 0.5f);
    in.resize(size_t(freq) * 3 * 2, 0.0f);
    // At every high-frequency ratio, the defaults' 0.001 included, the lows
    // of the tail (below about 300 Hz) decay over the reverb time given.
    for (float ratio : {0.001f, 0.01f, 0.5f, 0.999f}) {
        SCOPED_TRACE(ratio);
        BASS_DX8_REVERB p{0, 0, 1000, ratio};
        auto out = render(freq, 2, in, [&](HSTREAM h) { install(h, BASS_FX_DX8_REVERB, &p); });
        ASSERT_EQ(out.size(), in.size());
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); }));
        float lp = 0;
        for (size_t i = 0; i < out.size(); i += 2) out[i] = lp += 0.043f * (out[i] - lp);
        const auto at = [&](double s) { return size_t(s * freq); };
        const double early = rmsDb(out, 2, 0, at(0.3), at(0.4));
        const double late = rmsDb(out, 2, 0, at(0.8), at(0.9));
        EXPECT_GT(early, -60);
        EXPECT_NEAR(early - late, 30, 6); // 60 dB per reverb time, within 20 %
    }
}

TEST_F(EffectSignalTest, FreeverbTailDecaysAndFreezeHoldsIt) {
    const DWORD freq = 48000;
    std::vector<float> in(size_t(freq) * 3 * 2, 0.0f);
    for (size_t i = 0; i < 4800; ++i)
        in[i * 2] = in[i * 2 + 1] = (i % 100 < 50) ? 0.5f : -0.5f;
    auto tail = [&](bool freeze) {
        HFX fx = 0;
        std::vector<float> out;
        HSTREAM h = pushStream(freq, 2, BASS_STREAM_DECODE, in, true);
        BASS_BFX_FREEVERB p{0, 1, 0.5f, 0.5f, 1, 0, BASS_BFX_CHANALL};
        fx = install(h, BASS_FX_BFX_FREEVERB, &p);
        out.resize(in.size());
        // Half a second in, freeze what rings.
        const DWORD half = freq / 2 * 2 * sizeof(float);
        EXPECT_EQ(BASS_ChannelGetData(h, out.data(), half | BASS_DATA_FLOAT), half);
        if (freeze) {
            p.lMode = BASS_BFX_FREEVERB_MODE_FREEZE;
            EXPECT_TRUE(BASS_FXSetParameters(fx, &p));
        }
        const DWORD rest = static_cast<DWORD>((out.size() - half / sizeof(float)) * sizeof(float));
        BASS_ChannelGetData(h, out.data() + half / sizeof(float), rest | BASS_DATA_FLOAT);
        BASS_StreamFree(h);
        return rmsDb(out, 2, 0, freq, freq * 3 / 2) - rmsDb(out, 2, 0, freq * 2, freq * 5 / 2);
    };
    EXPECT_GT(tail(false), 20);        // decays
    EXPECT_NEAR(tail(true), 0.0, 1.0); // holds
}

// ---------------------------------------------------------------- changes while audio flows

namespace {

constexpr DWORD kRate = 44100;
constexpr float kToneAmp = 0.5f;

// A steady 440 Hz tone that fades in over 50 ms, so that nothing but the
// change under test has energy above 8 kHz.
std::vector<float> steadyTone(size_t frames) {
    auto v = sine(440, kRate, frames, 2, kToneAmp);
    const size_t fade = kRate / 20;
    for (size_t i = 0; i < fade; ++i) {
        const float g = static_cast<float>(0.5 - 0.5 * std::cos(M_PI * static_cast<double>(i) / fade));
        v[2 * i] *= g, v[2 * i + 1] *= g;
    }
    return v;
}

// Runs one second of the tone through a decoding stream that `setup`
// prepares, calls `change` at 0.5 s (near a crest, where a step is loudest)
// and returns the click it makes.
double clickOfChange(const std::function<HFX(HSTREAM)>& setup, const std::function<void(HSTREAM, HFX)>& change) {
    const size_t frames = kRate, at = kRate / 2 + 25;
    const auto in = steadyTone(frames);
    HSTREAM h = pushStream(kRate, 2, BASS_STREAM_DECODE, in, true);
    EXPECT_NE(h, 0u);
    const HFX fx = setup(h);
    std::vector<float> out(in.size());
    const auto pull = [&](size_t from, size_t to) {
        const auto bytes = static_cast<DWORD>((to - from) * 2 * sizeof(float));
        EXPECT_EQ(BASS_ChannelGetData(h, out.data() + from * 2, bytes | BASS_DATA_FLOAT), bytes);
    };
    pull(0, at);
    change(h, fx);
    pull(at, frames);
    BASS_StreamFree(h);
    return clickDb(out, 2, kRate, kToneAmp, kRate / 4);
}

// An effect installed with `before`, then given `after`.
template <class P> double clickOfStep(DWORD type, const P& before, const P& after) {
    return clickOfChange([&](HSTREAM h) { return install(h, type, &before); },
                         [&](HSTREAM, HFX fx) { EXPECT_TRUE(BASS_FXSetParameters(fx, &after)); });
}

} // namespace

TEST_F(EffectSignalTest, ParameterChangesWhileAudioFlowsDoNotClick) {
    constexpr double kAudible = -55;
    const auto wet = [](float w) { return BASS_BFX_PHASER{0.999f, w, 0, 1, 4, 100, BASS_BFX_CHANALL}; };
    const auto wah = [](float w) { return BASS_BFX_AUTOWAH{0.5f, w, 0.5f, 2, 4.3f, 50, BASS_BFX_CHANALL}; };
    const auto chorus = [](float mix, DWORD wave) { return BASS_DX8_CHORUS{mix, 10, 25, 1.1f, wave, 16, 3}; };
    const auto flanger = [](float mix) { return BASS_DX8_FLANGER{mix, 100, -50, 0.25f, 1, 2, 2}; };
    const auto echo = [](float mix, float ms) { return BASS_DX8_ECHO{mix, 50, ms, ms, FALSE}; };
    const auto echo4 = [](float w, float s) { return BASS_BFX_ECHO4{0.999f, w, 0.5f, s, TRUE, BASS_BFX_CHANALL}; };
    const auto bfxChorus = [](float w) { return BASS_BFX_CHORUS{0.9f, w, 0.5f, 1, 400, 200, BASS_BFX_CHANALL}; };
    const auto reverb = [](float mix) { return BASS_DX8_REVERB{0, mix, 1000, 0.001f}; };
    const auto freeverb = [](float w, DWORD mode) { return BASS_BFX_FREEVERB{1, w, 0.5f, 0.5f, 1, mode, -1}; };
    const auto param = [](float hz, float db) { return BASS_DX8_PARAMEQ{hz, 12, db}; };
    const auto peak = [](float hz, float db) { return BASS_BFX_PEAKEQ{0, 1, 0, hz, db, BASS_BFX_CHANALL}; };
    const auto bqf = [](int type, float hz) { return BASS_BFX_BQF{type, hz, 0, 0, 0.707f, 0, BASS_BFX_CHANALL}; };
    const auto comp = [](float gain, float pre) { return BASS_DX8_COMPRESSOR{gain, 10, 200, -20, 3, pre}; };
    const struct {
        const char* what;
        double db;
    } cases[] = {
        {"phaser wet", clickOfStep(BASS_FX_BFX_PHASER, wet(0), wet(0.999f))},
        {"auto-wah wet", clickOfStep(BASS_FX_BFX_AUTOWAH, wah(0), wah(1.5f))},
        {"chorus mix", clickOfStep(BASS_FX_DX8_CHORUS, chorus(0, 1), chorus(100, 1))},
        {"chorus waveform", clickOfStep(BASS_FX_DX8_CHORUS, chorus(50, 1), chorus(50, 0))},
        {"flanger mix", clickOfStep(BASS_FX_DX8_FLANGER, flanger(0), flanger(100))},
        {"echo mix", clickOfStep(BASS_FX_DX8_ECHO, echo(0, 300), echo(50, 300))},
        {"echo delay", clickOfStep(BASS_FX_DX8_ECHO, echo(50, 300), echo(50, 120))},
        {"echo 4 wet", clickOfStep(BASS_FX_BFX_ECHO4, echo4(0, 0.3f), echo4(0.8f, 0.3f))},
        {"echo 4 delay", clickOfStep(BASS_FX_BFX_ECHO4, echo4(0.8f, 0.3f), echo4(0.8f, 0.12f))},
        {"BFX chorus wet", clickOfStep(BASS_FX_BFX_CHORUS, bfxChorus(0), bfxChorus(1))},
        {"reverb mix", clickOfStep(BASS_FX_DX8_REVERB, reverb(-96), reverb(0))},
        {"Freeverb wet", clickOfStep(BASS_FX_BFX_FREEVERB, freeverb(0, 0), freeverb(1, 0))},
        {"Freeverb freeze", clickOfStep(BASS_FX_BFX_FREEVERB, freeverb(1, 0), freeverb(1, 1))},
        {"EQ gain", clickOfStep(BASS_FX_DX8_PARAMEQ, param(440, 0), param(440, 12))},
        {"EQ centre", clickOfStep(BASS_FX_DX8_PARAMEQ, param(1000, 12), param(440, 12))},
        {"peaking gain", clickOfStep(BASS_FX_BFX_PEAKEQ, peak(440, 0), peak(440, 12))},
        {"peaking centre", clickOfStep(BASS_FX_BFX_PEAKEQ, peak(1000, 12), peak(440, 12))},
        {"low-pass cutoff", clickOfStep(BASS_FX_BFX_BQF, bqf(BASS_BFX_BQF_LOWPASS, 2000),
                                        bqf(BASS_BFX_BQF_LOWPASS, 500))},
        {"filter type", clickOfStep(BASS_FX_BFX_BQF, bqf(BASS_BFX_BQF_LOWPASS, 2000),
                                    bqf(BASS_BFX_BQF_HIGHPASS, 200))},
        {"compressor gain", clickOfStep(BASS_FX_DX8_COMPRESSOR, comp(0, 4), comp(12, 4))},
        {"compressor look-ahead", clickOfStep(BASS_FX_DX8_COMPRESSOR, comp(0, 4), comp(0, 0))},
    };
    for (const auto& c : cases)
        EXPECT_LT(c.db, kAudible) << c.what;

    // Adding, removing and bypassing crossfade with the dry signal.
    const auto none = [](HSTREAM) { return HFX(0); };
    const auto withReverb = [&](HSTREAM h) {
        const auto r = reverb(0);
        return install(h, BASS_FX_DX8_REVERB, &r);
    };
    const auto lowpass = bqf(BASS_BFX_BQF_LOWPASS, 500);
    EXPECT_LT(clickOfChange(none, [&](HSTREAM h, HFX) { install(h, BASS_FX_BFX_BQF, &lowpass); }), kAudible);
    EXPECT_LT(clickOfChange(none, [&](HSTREAM h, HFX) { withReverb(h); }), kAudible);
    EXPECT_LT(clickOfChange(withReverb, [](HSTREAM h, HFX fx) { EXPECT_TRUE(BASS_ChannelRemoveFX(h, fx)); }),
              kAudible);
    EXPECT_LT(clickOfChange(withReverb, [](HSTREAM, HFX fx) { EXPECT_TRUE(BASS_FXSetBypass(fx, TRUE)); }),
              kAudible);
}

TEST_F(EffectSignalTest, SettingsMadeBeforeAudioFlowsApplyFromTheFirstFrame) {
    const auto in = sine(440, kRate, 4410, 2, kToneAmp);
    const BASS_BFX_ECHO4 quiet{0.25f, 0, 0, 0.1f, FALSE, BASS_BFX_CHANALL};
    for (bool bypass : {false, true}) {
        const auto out = render(kRate, 2, in, [&](HSTREAM h) {
            HFX fx = install(h, BASS_FX_BFX_ECHO4, &quiet);
            BASS_FXSetBypass(fx, bypass);
        });
        ASSERT_EQ(out.size(), in.size());
        for (size_t i = 0; i < in.size(); ++i)
            ASSERT_FLOAT_EQ(out[i], bypass ? in[i] : in[i] * 0.25f) << i;
    }
}
