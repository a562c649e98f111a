// Seeking, looping from a mixtime sync, and positions of decoding and playing
// channels, on a channel whose samples are their own frame numbers.
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

using namespace tavro::test;

namespace {
class PositionTest : public NoSoundTest {};

} // namespace

TEST_F(PositionTest, SeekingLandsOnTheExactFrame) {
    DWORD h = RampChannel::create(48000, 2, BASS_STREAM_DECODE, 480000);
    const QWORD bytes = BASS_ChannelSeconds2Bytes(h, 1.2345);
    EXPECT_EQ(bytes, 59256u * 8); // floor(1.2345 * 48000) frames
    ASSERT_TRUE(BASS_ChannelSetPosition(h, bytes, BASS_POS_BYTE));
    float f[2];
    ASSERT_EQ(BASS_ChannelGetData(h, f, 8 | BASS_DATA_FLOAT), 8u);
    EXPECT_EQ(f[0], 59256.0f);
    EXPECT_EQ(BASS_ChannelGetLength(h, BASS_POS_BYTE), 480000u * 8);
    EXPECT_FALSE(BASS_ChannelSetPosition(h, 480001u * 8, BASS_POS_BYTE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_POSITION);
}

TEST_F(PositionTest, LoopSyncJumpsBackWithoutAGapWhenDecoding) {
    DWORD h = RampChannel::create(44100, 1, BASS_STREAM_DECODE, -1);
    Loop loop{0, 1000 * 4};
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 3000 * 4, Loop::back, &loop), 0u);
    std::vector<float> out(10000);
    ASSERT_EQ(BASS_ChannelGetData(h, out.data(), 10000 * 4 | BASS_DATA_FLOAT), 40000u);
    expectLoopedRamp(out, 10000, 1000, 3000);
    EXPECT_EQ(loop.jumps.load(), 4); // at output frames 3000, 5000, 7000 and 9000
}

TEST_F(PositionTest, LoopSyncOnAPlayingChannelIsSampleAccurate) {
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    Loop loop{0, 2000 * 8};
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 6000 * 8, Loop::back, &loop), 0u);
    FrameTrace trace(h); // the frame numbers leaving the DSP chain: what the mixer is fed
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return loop.jumps >= 3; }, std::chrono::seconds(5)));
    BASS_ChannelStop(h);
    std::lock_guard lock(trace.m);
    expectLoopedRamp(trace.frames, 14000, 2000, 6000);
}

TEST_F(PositionTest, HeardPositionAdvancesInRealTimeAndFollowsSeeks) {
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::seconds(2)));
    const auto t0 = std::chrono::steady_clock::now();
    const double p0 = BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const double p1 = BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    // The heard position moves in device-period steps (a few ms).
    EXPECT_NEAR((p1 - p0) / wall, 1.0, 0.02);
    // The decoder runs ahead of what is heard by about the buffer length.
    EXPECT_GT(BASS_ChannelGetPosition(h, BASS_POS_BYTE | BASS_POS_DECODE), BASS_ChannelGetPosition(h, BASS_POS_BYTE));

    ASSERT_TRUE(BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, 10.0), BASS_POS_BYTE));
    const double afterSeek = BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
    EXPECT_GE(afterSeek, 10.0);
    EXPECT_LT(afterSeek, 10.1);

    ASSERT_TRUE(BASS_ChannelPause(h));
    EXPECT_EQ(BASS_ChannelIsActive(h), static_cast<DWORD>(BASS_ACTIVE_PAUSED));
    const QWORD paused = BASS_ChannelGetPosition(h, BASS_POS_BYTE);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), paused);
    // Stopping keeps the heard position, so playing again continues from there.
    ASSERT_TRUE(BASS_ChannelStop(h));
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), paused);
    ASSERT_TRUE(BASS_ChannelPlay(h, TRUE));
    EXPECT_LT(BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE)), 0.1);
}
