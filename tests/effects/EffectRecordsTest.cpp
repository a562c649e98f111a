// Effect records: their defaults and how they map onto the platform's structures.
#include "effects/EffectRecords.hpp"

#include <gtest/gtest.h>

#include <cstdint>

using namespace tavro::effects;

TEST(EffectRecordsTest, StandardDefaultsAndPlainConstruction) {
    const auto chorus = TavroChorusParams::defaultParams();
    EXPECT_EQ(chorus.wetDryMix, 50);
    EXPECT_EQ(chorus.depth, 10);
    EXPECT_EQ(chorus.feedback, 25);
    EXPECT_EQ(chorus.frequency, 1.1f);
    EXPECT_EQ(chorus.waveform, 1);
    EXPECT_EQ(chorus.delay, 16);
    EXPECT_EQ(toBass(chorus).lPhase, 3u);

    const auto plain = toBass(TavroChorusParams{});
    EXPECT_EQ(plain.lPhase, 2u);
    EXPECT_EQ(plain.lWaveform, 0u);
    EXPECT_EQ(plain.fWetDryMix, 0);

    const auto flanger = toBass(TavroFlangerParams::defaultParams());
    EXPECT_EQ(flanger.fFeedback, -50);
    EXPECT_EQ(flanger.fDelay, 2);
    EXPECT_EQ(flanger.lPhase, 2u);

    const auto reverb = toBass(TavroReverbParams::defaultParams());
    EXPECT_EQ(reverb.fReverbMix, -10);
    EXPECT_EQ(reverb.fReverbTime, 1000);
    EXPECT_EQ(reverb.fHighFreqRTRatio, 0.5f);
    const auto comp = toBass(TavroCompressorParams::defaultParams());
    EXPECT_EQ(comp.fRelease, 200);
    EXPECT_EQ(comp.fPredelay, 4);
    EXPECT_EQ(toBass(TavroDistortionParams::defaultParams()).fPreLowpassCutoff, 8000);
}

TEST(EffectRecordsTest, PhaseTruncatesTowardZero) {
    const std::pair<int32_t, int32_t> cases[] = {{-180, 0}, {-90, 1}, {-45, 2}, {0, 2},  {45, 2},
                                                 {90, 3},   {135, 3}, {180, 4}, {270, 5}};
    for (auto [deg, step] : cases) {
        TavroFlangerParams f;
        f.phase = deg;
        EXPECT_EQ(toBass(f).lPhase, static_cast<DWORD>(step)) << deg;
    }
}

TEST(EffectRecordsTest, BoolsBecomeOneOrZero) {
    auto echo = TavroEchoParams::defaultParams();
    EXPECT_EQ(toBass(echo).lPanDelay, 0);
    echo.panDelay = true;
    EXPECT_EQ(toBass(echo).lPanDelay, 1);

    TavroEcho4Params e4;
    EXPECT_EQ(e4.channels, -1);
    EXPECT_EQ(toBass(e4).bStereo, 0);
    EXPECT_EQ(TavroEcho4Params::defaultParams().delay, 0.4f);
    EXPECT_EQ(toBass(TavroEcho4Params::defaultParams()).bStereo, 1);

    auto fv = TavroFreeverbParams::defaultParams();
    EXPECT_EQ(toBass(fv).lMode, 0u);
    fv.freeze = true;
    EXPECT_EQ(toBass(fv).lMode, static_cast<DWORD>(BASS_BFX_FREEVERB_MODE_FREEZE));
}

TEST(EffectRecordsTest, ChannelMaskIsNarrowedTo32Bits) {
    auto bq = TavroBiquadParams::defaultParams();
    auto s = toBass(bq);
    EXPECT_EQ(s.lChannel, BASS_BFX_CHANALL);
    EXPECT_EQ(s.lFilter, BASS_BFX_BQF_PEAKINGEQ);
    EXPECT_EQ(s.fCenter, 1000);
    EXPECT_EQ(s.fBandwidth, 1.0f);
    EXPECT_EQ(s.fQ, 0);
    bq.channels = 3;
    EXPECT_EQ(toBass(bq).lChannel, 3);
    bq.channels = (int64_t{1} << 32) + 1;
    EXPECT_EQ(toBass(bq).lChannel, 1);
    bq.filterType = (int64_t{1} << 32) + 7;
    EXPECT_EQ(toBass(bq).lFilter, 7);
}

TEST(EffectRecordsTest, BandsAndEnvelopeNodesKeepTheirArgumentOrder) {
    const auto g = TavroGraphicEQBand::bandWithCenter(1000, -6, 1, 0);
    EXPECT_EQ(g.gain, -6);
    EXPECT_EQ(g.bandwidth, 1);
    const auto s = toBass(g, 4);
    EXPECT_EQ(s.lBand, 4);
    EXPECT_EQ(s.fGain, -6);
    EXPECT_EQ(s.fCenter, 1000);
    EXPECT_EQ(s.lChannel, BASS_BFX_CHANALL);
    const auto p = TavroParamEQBand::bandWithCenter(1000, 1, -6);
    EXPECT_EQ(p.bandwidth, 1);
    EXPECT_EQ(p.gain, -6);
    EXPECT_EQ(toBass(p).fGain, -6);
    // Envelope nodes too keep the order they were given in.
    const auto n = toBass({TavroVolumeEnvelopeNode::nodeAtSeconds(2.5, 0.0f),
                           TavroVolumeEnvelopeNode::nodeAtSeconds(1.0, 0.5f)});
    ASSERT_EQ(n.size(), 2u);
    EXPECT_EQ(n[0].pos, 2.5);
    EXPECT_EQ(n[0].val, 0.0f);
    EXPECT_EQ(n[1].pos, 1.0);
}

TEST(EffectRecordsTest, ReplayGainVolume) {
    EXPECT_EQ(replayGainVolume(nullptr), 1.0f);
    auto p = TavroReplayGainParams::defaultParams();
    EXPECT_TRUE(p.clipProtection);
    EXPECT_EQ(replayGainVolume(&p), 1.0f);
    p.enabled = true;
    p.trackGain = -6.5f;
    EXPECT_NEAR(replayGainVolume(&p), 0.473151f, 1e-6f);
    p.trackGain = 3;
    EXPECT_EQ(replayGainVolume(&p), 1.0f);
    p.clipProtection = false;
    EXPECT_NEAR(replayGainVolume(&p), 1.412538f, 1e-6f);
    p.useAlbumGain = true;
    p.albumGain = -3;
    p.preAmp = -3;
    EXPECT_NEAR(replayGainVolume(&p), 0.501187f, 1e-6f);
}
