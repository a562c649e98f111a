// TavroEffects on real streams: what it installs, records and leaves on the channel.
#include "TestSource.hpp"
#include "effects/Effect.hpp"

#include <tavro/effects/TavroEffects.hpp>

#include <bass_fx.h>

#include <cmath>

using namespace tavro::test;

namespace {

class TavroEffectsTest : public NoSoundTest {
  protected:
    static std::shared_ptr<TavroStream> stream(TavroStreamOptions options = 0, std::vector<float> data = {}) {
        if (data.empty()) data.assign(44100 * 2, 0.0f);
        return testStream(std::move(data), 44100, 2, options);
    }
    // The platform's own record of an effect: how the tests see priorities
    // and bypass without a mock.
    static std::shared_ptr<tavro::platform::Effect> effect(uint32_t fx) {
        return tavro::platform::Handles::get<tavro::platform::Effect>(fx);
    }
    static float attribute(uint32_t h, DWORD attrib) {
        float v = NAN;
        BASS_ChannelGetAttribute(h, attrib, &v);
        return v;
    }
};

} // namespace

TEST_F(TavroEffectsTest, SingleInstanceEffectsInstallOnceUpdateInPlaceAndNullRemoves) {
    auto s = stream();
    ASSERT_TRUE(s);
    auto fx = TavroEffects::initWithStream(s);
    EXPECT_TRUE(fx->setReverb(nullptr)); // nothing installed: nothing to do
    EXPECT_TRUE(fx->fxHandles().empty());

    auto chorus = TavroChorusParams::defaultParams();
    ASSERT_TRUE(fx->setChorus(&chorus));
    const uint32_t h = fx->fxHandles().at(BASS_FX_DX8_CHORUS);
    chorus.depth = 40;
    chorus.phase = -180;
    ASSERT_TRUE(fx->setChorus(&chorus));
    ASSERT_EQ(fx->fxHandles().size(), 1u);
    EXPECT_EQ(fx->fxHandles().at(BASS_FX_DX8_CHORUS), h);
    BASS_DX8_CHORUS back{};
    ASSERT_TRUE(BASS_FXGetParameters(h, &back));
    EXPECT_EQ(back.fDepth, 40);
    EXPECT_EQ(back.lPhase, static_cast<DWORD>(BASS_DX8_PHASE_NEG_180));
    EXPECT_EQ(effect(h)->entry->priority, 0);

    // A value the platform refuses: false, and the effect stays recorded.
    auto reverb = TavroReverbParams::defaultParams();
    reverb.reverbMix = 10;
    EXPECT_FALSE(fx->setReverb(&reverb));
    EXPECT_EQ(fx->fxHandles().count(BASS_FX_DX8_REVERB), 1u);

    ASSERT_TRUE(fx->setChorus(nullptr));
    EXPECT_EQ(fx->fxHandles().count(BASS_FX_DX8_CHORUS), 0u);
    EXPECT_FALSE(BASS_FXGetParameters(h, &back)); // gone from the channel

    auto bq = TavroBiquadParams::defaultParams();
    bq.channels = 2;
    ASSERT_TRUE(fx->setBiquad(&bq));
    BASS_BFX_BQF bback{};
    ASSERT_TRUE(BASS_FXGetParameters(fx->fxHandles().at(BASS_FX_BFX_BQF), &bback));
    EXPECT_EQ(bback.lChannel, 2);
    EXPECT_TRUE(fx->setVolumeEnvelope({TavroVolumeEnvelopeNode::nodeAtSeconds(0, 1)}, true));
    EXPECT_EQ(fx->fxHandles().count(BASS_FX_BFX_VOLUME_ENV), 1u);
    EXPECT_TRUE(fx->setVolumeEnvelope({}, true));
    EXPECT_EQ(fx->fxHandles().count(BASS_FX_BFX_VOLUME_ENV), 0u);
}

TEST_F(TavroEffectsTest, ParametricEQReplacesItsBandsWithConsecutiveKeysAndPriorities) {
    auto s = stream();
    auto fx = TavroEffects::initWithStream(s);
    const auto band = TavroParamEQBand::bandWithCenter(1000, 12, 3);
    ASSERT_TRUE(fx->setParametricEQ({band, band, band}));
    auto chorus = TavroChorusParams::defaultParams();
    ASSERT_TRUE(fx->setChorus(&chorus));
    const uint32_t first = fx->fxHandles().at(107);
    ASSERT_TRUE(fx->setParametricEQ({band, TavroParamEQBand::bandWithCenter(200, 6, -4)}));
    EXPECT_EQ(fx->fxHandles().size(), 3u); // two bands and the chorus
    EXPECT_EQ(effect(first), nullptr);     // the old bands left the channel
    EXPECT_EQ(effect(fx->fxHandles().at(107))->entry->priority, 10);
    EXPECT_EQ(effect(fx->fxHandles().at(108))->entry->priority, 11);
    BASS_DX8_PARAMEQ p{};
    ASSERT_TRUE(BASS_FXGetParameters(fx->fxHandles().at(108), &p));
    EXPECT_EQ(p.fCenter, 200);
    EXPECT_EQ(p.fGain, -4);
    EXPECT_TRUE(fx->setParametricEQ({}));
    EXPECT_EQ(fx->fxHandles().size(), 1u);
}

TEST_F(TavroEffectsTest, TenBandEQPutsItsBandsAtTheirCentresAndLiftsThemOnTheSignal) {
    const auto in = sine(1000, 44100, 44100, 2, 0.1f);
    auto s = stream(0, in);
    auto fx = TavroEffects::initWithStream(s);
    std::vector<double> gains(12, 0.0); // two more than there are bands
    gains[5] = 12;                       // the 1 kHz band
    ASSERT_TRUE(fx->applyTenBandEQ(gains));
    ASSERT_EQ(fx->bfxHandles().size(), 10u);
    const float centres[] = {31.25f, 62.5f, 125, 250, 500, 1000, 2000, 4000, 8000, 16000};
    for (int i = 0; i < 10; ++i) {
        BASS_BFX_PEAKEQ p{};
        p.lBand = i;
        ASSERT_TRUE(BASS_FXGetParameters(fx->bfxHandles()[size_t(i)], &p));
        EXPECT_EQ(p.fCenter, centres[i]);
        EXPECT_EQ(p.fGain, static_cast<float>(gains[size_t(i)]));
        EXPECT_EQ(p.fBandwidth, 0.8f);
        EXPECT_EQ(effect(fx->bfxHandles()[size_t(i)])->entry->priority, i);
    }
    std::vector<float> out(in.size());
    ASSERT_EQ(
        BASS_ChannelGetData(s->handle(), out.data(), static_cast<DWORD>(out.size() * 4) | BASS_DATA_FLOAT),
        out.size() * 4);
    double ei = 0, eo = 0;
    for (size_t i = out.size() / 2; i < out.size(); ++i)
        ei += double(in[i]) * in[i], eo += double(out[i]) * out[i];
    EXPECT_NEAR(10 * std::log10(eo / ei), 12, 0.3);

    ASSERT_TRUE(fx->applyTenBandEQ({1, 2, 3}));
    EXPECT_EQ(fx->bfxHandles().size(), 3u);
    EXPECT_TRUE(fx->fxHandles().empty());
    ASSERT_TRUE(fx->applyTenBandEQ({}));
    EXPECT_TRUE(fx->bfxHandles().empty());
}

TEST_F(TavroEffectsTest, TempoOperationsNeedTheTempoChain) {
    auto plain = TavroEffects::initWithStream(stream());
    EXPECT_FALSE(plain->applySpeedRatio(1.25f));
    EXPECT_EQ(plain->speedRatio(), 1.0f);
    EXPECT_FALSE(plain->applyPitchSemitones(2));
    EXPECT_FALSE(plain->setTempoOverlapMS(10));
    EXPECT_FALSE(plain->applyReverseEnabled(true));

    auto s = stream(TavroStreamOptionFXChain);
    ASSERT_TRUE(s);
    auto fx = TavroEffects::initWithStream(s);
    ASSERT_TRUE(fx->applySpeedRatio(1.25f));
    EXPECT_EQ(fx->speedRatio(), 1.25f);
    EXPECT_EQ(attribute(s->handle(), BASS_ATTRIB_TEMPO), 25.0f);
    ASSERT_TRUE(fx->applyPitchSemitones(-3));
    EXPECT_EQ(attribute(s->handle(), BASS_ATTRIB_TEMPO_PITCH), -3.0f);
}

TEST_F(TavroEffectsTest, BypassAllAndRemoveAll) {
    auto s = stream(TavroStreamOptionFXChain);
    auto fx = TavroEffects::initWithStream(s);
    auto echo = TavroEchoParams::defaultParams();
    ASSERT_TRUE(fx->setEcho(&echo));
    ASSERT_TRUE(fx->applyTenBandEQ({1, 2}));
    ASSERT_TRUE(fx->applySpeedRatio(1.5f));
    auto rg = TavroReplayGainParams::defaultParams();
    rg.enabled = true;
    rg.trackGain = -6.5f;
    ASSERT_TRUE(fx->applyReplayGain(&rg));
    fx->setBypassAll(true);
    EXPECT_TRUE(fx->bypassed());
    EXPECT_TRUE(effect(fx->fxHandles().at(BASS_FX_DX8_ECHO))->entry->bypassed());
    EXPECT_TRUE(effect(fx->bfxHandles()[1])->entry->bypassed());
    // One installed afterwards is active.
    auto comp = TavroCompressorParams::defaultParams();
    ASSERT_TRUE(fx->setCompressor(&comp));
    EXPECT_FALSE(effect(fx->fxHandles().at(BASS_FX_DX8_COMPRESSOR))->entry->bypassed());

    const uint32_t echoFx = fx->fxHandles().at(BASS_FX_DX8_ECHO);
    fx->removeAllEffects();
    EXPECT_FALSE(fx->bypassed());
    EXPECT_TRUE(fx->fxHandles().empty());
    EXPECT_TRUE(fx->bfxHandles().empty());
    EXPECT_EQ(effect(echoFx), nullptr);
    EXPECT_EQ(attribute(s->handle(), BASS_ATTRIB_TEMPO), 50.0f);
    // Replay gain is the channel's volume, which removal leaves alone; only
    // switching it off gives full volume back.
    EXPECT_NEAR(attribute(s->handle(), BASS_ATTRIB_VOL), 0.473151f, 1e-6f);
    ASSERT_TRUE(fx->applyReplayGain(nullptr));
    EXPECT_EQ(attribute(s->handle(), BASS_ATTRIB_VOL), 1.0f);
}

TEST_F(TavroEffectsTest, AGoneStreamFailsAndRecordsNothing) {
    auto s = stream();
    auto fx = TavroEffects::initWithStream(s);
    auto echo = TavroEchoParams::defaultParams();
    ASSERT_TRUE(fx->setEcho(&echo));
    s->free();
    s.reset();
    auto rev = TavroReverbParams::defaultParams();
    EXPECT_FALSE(fx->setReverb(&rev));
    EXPECT_EQ(fx->fxHandles().count(BASS_FX_DX8_REVERB), 0u);
    EXPECT_FALSE(fx->setParametricEQ({TavroParamEQBand::bandWithCenter(1000, 12, 0)}));
    EXPECT_TRUE(fx->setEcho(nullptr)); // removal still drops the record
    EXPECT_TRUE(fx->fxHandles().empty());
}
