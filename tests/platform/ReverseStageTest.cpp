// The reverse stage: a ramp backwards across block boundaries, direction
// changes, positions, seeks and syncs on the backwards timeline, the end,
// refusals, and the chain of reverse and tempo stages a stream builds.
#include "RampChannel.hpp"
#include "StageSignals.hpp"

using namespace tavro::test;

namespace {
class ReverseStageTest : public NoSoundTest {};

constexpr DWORD kRate = 44100;
constexpr int64_t kFrames = 10000;

// A decoding reverse stage over a stereo ramp, in blocks of 441 frames.
HSTREAM reversedRamp(DWORD flags = 0) {
    return BASS_FX_ReverseCreate(RampChannel::create(kRate, 2, BASS_STREAM_DECODE, kFrames), 0.01f,
                                 BASS_STREAM_DECODE | BASS_FX_FREESOURCE | flags);
}

QWORD framePos(DWORD h) {
    return BASS_ChannelGetPosition(h, BASS_POS_BYTE) / 8;
}

void expectRun(const std::vector<float>& out, float first, int step) {
    for (size_t i = 0; i < out.size() / 2; ++i)
        ASSERT_EQ(out[2 * i], first + step * static_cast<float>(i)) << "at output frame " << i;
}
} // namespace

TEST_F(ReverseStageTest, PlaysTheSourceBackwardsFrameByFrameFromTheEnd) {
    HSTREAM r = reversedRamp(BASS_SAMPLE_LOOP);
    ASSERT_NE(r, 0u) << BASS_ErrorGetCode();
    EXPECT_EQ(BASS_ChannelGetLength(r, BASS_POS_BYTE), kFrames * 8u);
    EXPECT_EQ(framePos(r), static_cast<QWORD>(kFrames));
    auto out = decodeAll(r, 2, 3000);
    EXPECT_EQ(framePos(r), static_cast<QWORD>(kFrames - 3000));
    const auto rest = decodeAll(r, 2, kFrames - 3000);
    out.insert(out.end(), rest.begin(), rest.end());
    ASSERT_EQ(out.size(), 2u * kFrames);
    expectRun(out, kFrames - 1, -1);
    for (size_t i = 0; i < out.size(); i += 2)
        ASSERT_EQ(out[i], out[i + 1]);
    // The loop flag starts again at the end.
    expectRun(decodeAll(r, 2, 100), kFrames - 1, -1);
}

TEST_F(ReverseStageTest, ChangingDirectionContinuesFromWhereItIs) {
    HSTREAM r = reversedRamp();
    decodeAll(r, 2, 3000); // 9999 .. 7000
    ASSERT_TRUE(BASS_ChannelSetAttribute(r, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_FORWARD));
    float dir = 0;
    ASSERT_TRUE(BASS_ChannelGetAttribute(r, BASS_ATTRIB_REVERSE_DIR, &dir));
    EXPECT_EQ(dir, 1.0f);
    expectRun(decodeAll(r, 2, 2000), 7000, 1);
    EXPECT_EQ(framePos(r), 9000u);
    ASSERT_TRUE(BASS_ChannelSetAttribute(r, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_REVERSE));
    expectRun(decodeAll(r, 2, 500), 8999, -1);
    // Forwards it ends at the source's end, backwards at 0.
    ASSERT_TRUE(BASS_ChannelSetAttribute(r, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_FORWARD));
    EXPECT_EQ(decodeAll(r, 2).size(), 2u * (kFrames - 8500));
    EXPECT_EQ(framePos(r), static_cast<QWORD>(kFrames));
    ASSERT_TRUE(BASS_ChannelSetAttribute(r, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_REVERSE));
    ASSERT_TRUE(BASS_ChannelSetPosition(r, 100 * 8, BASS_POS_BYTE));
    EXPECT_EQ(decodeAll(r, 2).size(), 200u);
    EXPECT_EQ(framePos(r), 0u);
}

TEST_F(ReverseStageTest, SeeksAndPositionSyncsWorkOnTheBackwardsTimeline) {
    HSTREAM r = reversedRamp();
    ASSERT_TRUE(BASS_ChannelSetPosition(r, 5000 * 8, BASS_POS_BYTE));
    EXPECT_EQ(framePos(r), 5000u);
    struct Seen {
        DWORD channel;
        std::vector<QWORD> at;
    } seen{r, {}};
    auto note = [](HSYNC, DWORD, DWORD, void* u) {
        auto* s = static_cast<Seen*>(u);
        s->at.push_back(BASS_ChannelGetPosition(s->channel, BASS_POS_BYTE) / 8);
    };
    ASSERT_NE(BASS_ChannelSetSync(r, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 3000 * 8, note, &seen), 0u);
    expectRun(decodeAll(r, 2, 4000), 4999, -1);
    EXPECT_EQ(seen.at, std::vector<QWORD>{3000}); // on its frame, though no block ends there
    ASSERT_TRUE(BASS_ChannelSetAttribute(r, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_FORWARD));
    decodeAll(r, 2, 3000);
    EXPECT_EQ(seen.at, (std::vector<QWORD>{3000, 3000})); // passed again the other way
}

TEST_F(ReverseStageTest, PlayingBackwardsTheHeardPositionFalls) {
    HSTREAM r = BASS_FX_ReverseCreate(RampChannel::create(kRate, 2, BASS_STREAM_DECODE, 10 * kRate), 2.0f,
                                      BASS_FX_FREESOURCE);
    ASSERT_TRUE(BASS_ChannelPlay(r, FALSE));
    ASSERT_TRUE(waitFor([&] { return positionSeconds(r) < 9.9; }, std::chrono::seconds(2)));
    const double p0 = positionSeconds(r);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_NEAR(p0 - positionSeconds(r), 0.5, 0.1);
}

TEST_F(ReverseStageTest, WhatCannotRunBackwardsIsRefused) {
    HSTREAM decoding = reversedRamp();
    EXPECT_FALSE(BASS_ChannelPlay(decoding, FALSE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);
    for (const float dir : {0.0f, 2.0f, -0.5f, NAN}) {
        EXPECT_FALSE(BASS_ChannelSetAttribute(decoding, BASS_ATTRIB_REVERSE_DIR, dir)) << dir;
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    }
    HSTREAM push =
        BASS_StreamCreate(kRate, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    EXPECT_EQ(BASS_FX_ReverseCreate(push, 2.0f, BASS_STREAM_DECODE), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_NOTFILE);
    EXPECT_EQ(BASS_FX_ReverseCreate(RampChannel::create(kRate, 2, 0, kFrames), 2.0f, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);
    DWORD ramp = RampChannel::create(kRate, 2, BASS_STREAM_DECODE, kFrames);
    for (const float block : {0.0f, -1.0f, NAN, 11.0f}) {
        EXPECT_EQ(BASS_FX_ReverseCreate(ramp, block, BASS_STREAM_DECODE), 0u) << block;
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    }
}

// What a stream with both stages builds: source, reverse stage, tempo stage on top.
TEST_F(ReverseStageTest, UnderATempoStageTheWholeChainRunsBackwards) {
    DWORD src = RampChannel::create(kRate, 2, BASS_STREAM_DECODE, kFrames);
    HSTREAM r = BASS_FX_ReverseCreate(src, 2.0f, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    HSTREAM t = BASS_FX_TempoCreate(r, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    EXPECT_EQ(framePos(t), static_cast<QWORD>(kFrames));
    expectRun(decodeAll(t, 2, 4000), kFrames - 1, -1);
    EXPECT_EQ(framePos(t), static_cast<QWORD>(kFrames - 4000));
    // The direction set on the top reaches the reverse stage.
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_FORWARD));
    expectRun(decodeAll(t, 2, 1000), kFrames - 4000, 1);
    // At double tempo backwards the position falls twice as fast; the audio
    // keeps to it within a processing sequence.
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_REVERSE_DIR, BASS_FX_RVS_REVERSE));
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 100));
    const auto out = decodeAll(t, 2, 1000);
    EXPECT_NEAR(static_cast<double>(framePos(t)), kFrames - 3000 - 2000, 300);
    EXPECT_NEAR(out.back(), static_cast<double>(framePos(t)), 2000);
    ASSERT_TRUE(BASS_StreamFree(t)); // frees all three
    BASS_CHANNELINFO info;
    EXPECT_FALSE(BASS_ChannelGetInfo(r, &info));
    EXPECT_FALSE(BASS_ChannelGetInfo(src, &info));
}
