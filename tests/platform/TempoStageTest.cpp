// The tempo stage: what tempo, pitch and rate do to duration and frequency,
// bit-exact pass-through, positions and position syncs in the source's time,
// seeking, the A-B loop, the end, changes without clicks, ownership and
// parameter checks.
#include "ClickMetric.hpp"
#include "RampChannel.hpp"
#include "StageSignals.hpp"

using namespace tavro::test;

namespace {
class TempoStageTest : public NoSoundTest {};

constexpr DWORD kRate = 44100;

void countCall(HSYNC, DWORD, DWORD, void* user) {
    static_cast<std::atomic<int>*>(user)->fetch_add(1);
}
} // namespace

TEST_F(TempoStageTest, DurationAndPitchFollowTempoPitchAndRate) {
    struct Case {
        DWORD attrib;
        float value;
        double duration, pitch; // factors on the 10 s tone at 441 Hz
        DWORD algo;
    };
    const Case cases[] = {
        {BASS_ATTRIB_TEMPO, 25, 0.8, 1, 0},
        {BASS_ATTRIB_TEMPO_PITCH, 12, 1, 2, 0},
        {BASS_ATTRIB_TEMPO_PITCH, -12, 1, 0.5, BASS_FX_TEMPO_ALGO_LINEAR},
        {BASS_ATTRIB_TEMPO_PITCH, -12, 1, 0.5, BASS_FX_TEMPO_ALGO_SHANNON},
        {BASS_ATTRIB_TEMPO_FREQ, 22050, 2, 0.5, 0},
        {BASS_ATTRIB_TEMPO_FREQ, 88200, 0.5, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.attrib << std::dec << " = " << c.value);
        HSTREAM src = pushStream(kRate, 1, BASS_STREAM_DECODE, sine(441, kRate, 441000, 1, 0.5f), true);
        HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE | c.algo);
        ASSERT_TRUE(BASS_ChannelSetAttribute(t, c.attrib, c.value));
        const auto out = decodeAll(t, 1);
        EXPECT_NEAR(static_cast<double>(out.size()), 441000 * c.duration, 4410 * c.duration);
        EXPECT_NEAR(toneHz(out, 10000, out.size() - 10000, kRate), 441 * c.pitch, 4.41 * c.pitch);
        BASS_StreamFree(t);
    }
}

TEST_F(TempoStageTest, NeutralSettingsPassEveryFrameThroughUnchanged) {
    HSTREAM t =
        BASS_FX_TempoCreate(RampChannel::create(kRate, 2, BASS_STREAM_DECODE, 100000), BASS_STREAM_DECODE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 10)); // changed and put back: neutral
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 0));
    const auto out = decodeAll(t, 2);
    ASSERT_EQ(out.size(), 200000u);
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], static_cast<float>(i / 2)) << i;
}

TEST_F(TempoStageTest, BackToNeutralPlaysOutWhatWasHeldThenContinuesExactly) {
    DWORD src = RampChannel::create(kRate, 1, BASS_STREAM_DECODE, -1);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 10));
    decodeAll(t, 1, 44100);
    const QWORD readTo = BASS_ChannelGetPosition(src, BASS_POS_BYTE) / 4;
    const double before = positionSeconds(t);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 0));
    const auto out = decodeAll(t, 1, 44100);
    // The output ends in one unbroken run of the source that passes the frame
    // the stage had read to: nothing skipped, nothing repeated.
    size_t run = out.size() - 1;
    while (run > 0 && out[run - 1] + 1 == out[run])
        --run;
    ASSERT_LE(out[run], static_cast<float>(readTo));
    const size_t handover = run + static_cast<size_t>(readTo - static_cast<QWORD>(out[run]));
    EXPECT_GT(handover, 0u);
    EXPECT_LT(handover, 20000u);
    EXPECT_NEAR(out[handover / 2], before * kRate + handover / 2.0, 2000); // the held part ran on
    EXPECT_EQ(positionSeconds(t) * kRate, out.back() + 1);
}

TEST_F(TempoStageTest, PositionsAreInTheSourcesTimeAndSeekingFlushes) {
    DWORD src = RampChannel::create(kRate, 2, BASS_STREAM_DECODE, 441000);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 25));
    EXPECT_EQ(BASS_ChannelGetLength(t, BASS_POS_BYTE), 441000u * 8);
    const auto half = decodeAll(t, 2, 176400); // half of the 8 s output
    EXPECT_NEAR(positionSeconds(t), 5.0, 0.05);
    EXPECT_NEAR(half.back(), positionSeconds(t) * kRate, 2000); // a ramp's value is its frame
    EXPECT_GT(BASS_ChannelGetPosition(src, BASS_POS_BYTE), BASS_ChannelGetPosition(t, BASS_POS_BYTE));

    ASSERT_TRUE(BASS_ChannelSetPosition(t, BASS_ChannelSeconds2Bytes(t, 7.0), BASS_POS_BYTE));
    EXPECT_EQ(BASS_ChannelGetPosition(t, BASS_POS_BYTE), 7u * 44100 * 8);
    EXPECT_EQ(BASS_ChannelGetPosition(src, BASS_POS_BYTE), 7u * 44100 * 8);
    const auto after = decodeAll(t, 2, 8820);
    for (size_t i = 0; i < after.size(); i += 2)
        ASSERT_GT(after[i], 7 * 44100 - 2000) << "nothing from before";
    EXPECT_NEAR(positionSeconds(t), 7.25, 0.02);
    decodeAll(t, 2);
    EXPECT_EQ(BASS_ChannelGetPosition(t, BASS_POS_BYTE), 441000u * 8);
    EXPECT_FALSE(BASS_ChannelSetPosition(t, 441001u * 8, BASS_POS_BYTE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_POSITION);
}

TEST_F(TempoStageTest, PlayingPositionRunsAtTheTempoAndFollowsSeeks) {
    HSTREAM t = BASS_FX_TempoCreate(RampChannel::create(kRate, 2, BASS_STREAM_DECODE, 60 * kRate), 0);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 25));
    ASSERT_TRUE(BASS_ChannelPlay(t, FALSE));
    ASSERT_TRUE(BASS_ChannelSetPosition(t, BASS_ChannelSeconds2Bytes(t, 4.0), BASS_POS_BYTE));
    EXPECT_EQ(positionSeconds(t), 4.0); // at once, before anything was rendered
    ASSERT_TRUE(waitFor([&] { return positionSeconds(t) > 4.05; }, std::chrono::seconds(2)));
    const auto t0 = std::chrono::steady_clock::now();
    const double p0 = positionSeconds(t);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    const double p1 = positionSeconds(t);
    EXPECT_NEAR((p1 - p0) / std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(),
                1.25, 0.04);
    EXPECT_GT(BASS_ChannelGetPosition(t, BASS_POS_BYTE | BASS_POS_DECODE),
              BASS_ChannelGetPosition(t, BASS_POS_BYTE));
    ASSERT_TRUE(BASS_ChannelPause(t));
    ASSERT_TRUE(BASS_ChannelSetPosition(t, BASS_ChannelSeconds2Bytes(t, 2.0), BASS_POS_BYTE));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(positionSeconds(t), 2.0);
    ASSERT_TRUE(BASS_ChannelPlay(t, TRUE));
    EXPECT_EQ(positionSeconds(t), 0.0);
}

TEST_F(TempoStageTest, LoopInPassThroughLandsOnTheExactStartFrameEveryTime) {
    DWORD src = RampChannel::create(kRate, 2, BASS_STREAM_DECODE, -1);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_FX_FREESOURCE);
    Loop loop{src, 2000 * 8};
    ASSERT_NE(BASS_ChannelSetSync(t, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 6000 * 8, Loop::back, &loop), 0u);
    FrameTrace trace(t);
    ASSERT_TRUE(BASS_ChannelPlay(t, FALSE));
    ASSERT_TRUE(waitFor([&] { return loop.jumps >= 3; }, std::chrono::seconds(5)));
    BASS_ChannelStop(t);
    std::lock_guard lock(trace.m);
    expectLoopedRamp(trace.frames, 14000, 2000, 6000);
}

TEST_F(TempoStageTest, LoopAtAnotherTempoIsSeamless) {
    DWORD src = RampChannel::create(kRate, 1, BASS_STREAM_DECODE, -1);
    HSTREAM t = BASS_FX_TempoCreate(src, BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 10));
    Loop loop{src, 44100 * 4};
    ASSERT_NE(BASS_ChannelSetSync(t, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 88200 * 4, Loop::back, &loop), 0u);
    const auto out = decodeAll(t, 1, 6 * 44100);
    ASSERT_EQ(out.size(), 6u * 44100);
    EXPECT_EQ(loop.sourceAt.load(), 88200u * 4); // fired on the source's exact frame
    std::vector<size_t> drops;
    for (size_t i = 1; i < out.size(); ++i) {
        if (out[i] < out[i - 1] - 20000) drops.push_back(i);
        if (!drops.empty()) {
            ASSERT_GT(out[i], 44100 - 2000) << "no silence, nothing outside the loop at " << i;
        }
    }
    // Every pass after the first lasts the loop at the tempo: what the
    // processing held when the source jumped is played out, not dropped.
    ASSERT_GE(drops.size(), 3u);
    for (size_t k = 1; k < drops.size(); ++k)
        EXPECT_NEAR(static_cast<double>(drops[k] - drops[k - 1]), 44100 / 1.1, 600) << "pass " << k;
}

TEST_F(TempoStageTest, TheEndComesOnceEverythingHeldWasGivenBack) {
    // Two seconds of silence, then a tenth of a second of tone.
    std::vector<float> data(2 * 44100, 0.0f);
    const auto tone = sine(441, kRate, 4410, 1, 0.5f);
    data.insert(data.end(), tone.begin(), tone.end());
    HSTREAM t = BASS_FX_TempoCreate(pushStream(kRate, 1, BASS_STREAM_DECODE, data, true),
                                    BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, 25));
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_PITCH, 3));
    std::atomic<int> ends{0};
    BASS_ChannelSetSync(t, BASS_SYNC_END | BASS_SYNC_MIXTIME, 0, countCall, &ends);
    const auto out = decodeAll(t, 1);
    EXPECT_NEAR(static_cast<double>(out.size()), 92610 / 1.25, 100);
    EXPECT_GT(rms(out, out.size() - 1764, 1764), 0.25); // the tone's last 50 ms are there
    EXPECT_EQ(ends.load(), 1);
    EXPECT_EQ(BASS_ChannelGetData(t, data.data(), 4), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ENDED);

    // With the loop flag every pass runs to the source's end.
    HSTREAM looped = BASS_FX_TempoCreate(RampChannel::create(kRate, 1, BASS_STREAM_DECODE, 1000),
                                         BASS_STREAM_DECODE | BASS_SAMPLE_LOOP | BASS_FX_FREESOURCE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(looped, BASS_ATTRIB_TEMPO, 100));
    ends = 0;
    BASS_ChannelSetSync(looped, BASS_SYNC_END | BASS_SYNC_MIXTIME, 0, countCall, &ends);
    const auto passes = decodeAll(looped, 1, 2100);
    EXPECT_EQ(ends.load(), 4);
    for (size_t i : {500, 1000, 1500, 2000})
        EXPECT_LT(passes[i], passes[i - 10] - 400) << "a pass starts at " << i;
}

TEST_F(TempoStageTest, CreationAndFreeingOfTheSource) {
    EXPECT_EQ(BASS_FX_TempoCreate(12345678, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_EQ(BASS_FX_TempoCreate(RampChannel::create(kRate, 2, 0, 1000), 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);

    DWORD src = RampChannel::create(48000, 2, BASS_STREAM_DECODE, 1000);
    HSTREAM kept = BASS_FX_TempoCreate(src, 0);
    BASS_CHANNELINFO info;
    ASSERT_TRUE(BASS_ChannelGetInfo(kept, &info));
    EXPECT_EQ(info.freq, 48000u);
    EXPECT_EQ(info.chans, 2u);
    EXPECT_EQ(info.flags & (BASS_SAMPLE_FLOAT | BASS_STREAM_DECODE), static_cast<DWORD>(BASS_SAMPLE_FLOAT));
    EXPECT_EQ(BASS_FX_TempoGetSource(kept), src);
    ASSERT_TRUE(BASS_StreamFree(kept));
    EXPECT_TRUE(BASS_ChannelGetInfo(src, &info)); // without FREESOURCE the source stays
    EXPECT_EQ(BASS_FX_TempoGetSource(kept), 0u);

    ASSERT_TRUE(BASS_StreamFree(BASS_FX_TempoCreate(src, BASS_FX_FREESOURCE)));
    EXPECT_FALSE(BASS_ChannelGetInfo(src, &info));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_EQ(BASS_FX_GetVersion() >> 16, 0x0204u);
}

TEST_F(TempoStageTest, AttributesAreCheckedAndTheirExtremesStayFinite) {
    HSTREAM t =
        BASS_FX_TempoCreate(pushStream(kRate, 2, BASS_STREAM_DECODE, sine(441, kRate, 441000, 2, 0.9f), true),
                            BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
    const struct {
        DWORD attrib;
        float good, bad1, bad2;
    } cases[] = {
        {BASS_ATTRIB_TEMPO, -95, -95.5f, 5001},
        {BASS_ATTRIB_TEMPO_PITCH, 60, -61, 60.5f},
        {BASS_ATTRIB_TEMPO_FREQ, 11025, 11024, 176401},
        {BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER, 0, 2, -1},
        {BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH, 128, 7, 129},
        {BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO, 1, 0.5f, 2},
        {BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS, 82, 251, 10.5f},
        {BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS, 28, 101, -1},
        {BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS, 12, 0, 51},
        {BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK, 0, 3, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.attrib);
        EXPECT_TRUE(BASS_ChannelSetAttribute(t, c.attrib, c.good));
        for (const float bad : {c.bad1, c.bad2, NAN}) {
            EXPECT_FALSE(BASS_ChannelSetAttribute(t, c.attrib, bad)) << bad;
            EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
        }
        float v = -1;
        ASSERT_TRUE(BASS_ChannelGetAttribute(t, c.attrib, &v));
        EXPECT_EQ(v, c.good);
    }
    EXPECT_NEAR(BASS_FX_TempoGetRateRatio(t), 32.0f * 0.25f, 1e-4); // pitch +60 at a quarter of the rate
    float v;
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH, 20));
    BASS_ChannelGetAttribute(t, BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH, &v);
    EXPECT_EQ(v, 16); // blocks of eight taps
    // The channel's own rate is another thing than the transposer's.
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_FREQ, 22050));
    BASS_ChannelGetAttribute(t, BASS_ATTRIB_TEMPO_FREQ, &v);
    EXPECT_EQ(v, 11025);
    EXPECT_FALSE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_REVERSE_DIR, -1)); // no stage below takes it
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLTYPE);
    BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_FREQ, 0);
    for (const float tempo : {-95.0f, 5000.0f}) // tempo and pitch at their extremes
        for (const float pitch : {-60.0f, 60.0f}) {
            BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO, tempo);
            BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_PITCH, pitch);
            const auto out = decodeAll(t, 2, 4096);
            ASSERT_FALSE(out.empty());
            for (float s : out)
                ASSERT_TRUE(std::isfinite(s)) << tempo << " " << pitch;
        }
}

TEST_F(TempoStageTest, PreventClickKeepsTheProcessingInThePathAtNeutralSettings) {
    HSTREAM t =
        BASS_FX_TempoCreate(RampChannel::create(kRate, 1, BASS_STREAM_DECODE, 44100), BASS_STREAM_DECODE);
    ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK, 1));
    const auto out = decodeAll(t, 1);
    EXPECT_NEAR(static_cast<double>(out.size()), 44100, 50);
    size_t differ = 0;
    for (size_t i = 0; i < out.size(); ++i)
        differ += out[i] != static_cast<float>(i);
    EXPECT_GT(differ, 0u);
}

TEST_F(TempoStageTest, ChangesWhileRunningDoNotClick) {
    struct Change {
        DWORD attrib;
        float value;
    };
    const struct Case {
        bool preventClick;
        std::vector<Change> changes; // the first before any audio, the rest a quarter second apart
    } cases[] = {
        {false, {{BASS_ATTRIB_TEMPO_PITCH, 0}, {BASS_ATTRIB_TEMPO_PITCH, 3}}},
        {false, {{BASS_ATTRIB_TEMPO_PITCH, 3}, {BASS_ATTRIB_TEMPO_PITCH, 0}}},
        {true, {{BASS_ATTRIB_TEMPO_PITCH, 0}, {BASS_ATTRIB_TEMPO_PITCH, 3}}},
        {true, {{BASS_ATTRIB_TEMPO_PITCH, 3}, {BASS_ATTRIB_TEMPO_PITCH, 0}}},
        {false, {{BASS_ATTRIB_TEMPO, 0}, {BASS_ATTRIB_TEMPO, 20}, {BASS_ATTRIB_TEMPO, 0}}},
        {false, {{BASS_ATTRIB_TEMPO_FREQ, 44100}, {BASS_ATTRIB_TEMPO_FREQ, 48000}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "prevent click " << c.preventClick << ", to " << c.changes[1].value);
        HSTREAM t = BASS_FX_TempoCreate(
            pushStream(kRate, 1, BASS_STREAM_DECODE, sine(440, kRate, 88200, 1, 0.5f), true),
            BASS_STREAM_DECODE | BASS_FX_FREESOURCE);
        ASSERT_TRUE(BASS_ChannelSetAttribute(t, BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK, c.preventClick));
        std::vector<float> out;
        for (const auto& change : c.changes) {
            ASSERT_TRUE(BASS_ChannelSetAttribute(t, change.attrib, change.value));
            const auto part = decodeAll(t, 1, kRate / 4);
            out.insert(out.end(), part.begin(), part.end());
        }
        EXPECT_LT(clickDb(out, 1, kRate, 0.5, kRate / 10), -55); // from past SoundTouch's start
        BASS_StreamFree(t);
    }
}
