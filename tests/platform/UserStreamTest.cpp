// Push and procedure streams read as decoding channels: data, formats, ends,
// syncs, DSP order and levels.
#include "PlatformFixture.hpp"

#include <atomic>
#include <cstring>

using namespace tavro::test;

namespace {
class UserStreamTest : public NoSoundTest {};

std::vector<float> ramp(size_t frames, unsigned chans) {
    std::vector<float> v(frames * chans);
    for (size_t i = 0; i < frames; ++i)
        for (unsigned c = 0; c < chans; ++c) v[i * chans + c] = static_cast<float>(i) / 65536.0f + 0.5f * c;
    return v;
}
} // namespace

TEST_F(UserStreamTest, PushedFramesComeBackUnchangedAndTheEndIsReported) {
    const auto data = ramp(1000, 2);
    HSTREAM h = pushStream(44100, 2, BASS_STREAM_DECODE, data, true);
    ASSERT_NE(h, 0u);
    std::vector<float> out(2000);
    DWORD got = BASS_ChannelGetData(h, out.data(), 600 * 8 | BASS_DATA_FLOAT);
    EXPECT_EQ(got, 600u * 8);
    got = BASS_ChannelGetData(h, out.data() + 1200, 600 * 8 | BASS_DATA_FLOAT);
    EXPECT_EQ(got, 400u * 8);
    EXPECT_EQ(std::memcmp(out.data(), data.data(), data.size() * sizeof(float)), 0);
    EXPECT_EQ(BASS_ChannelGetData(h, out.data(), 64 | BASS_DATA_FLOAT), 0xFFFFFFFFu);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ENDED);
    EXPECT_EQ(BASS_ChannelIsActive(h), static_cast<DWORD>(BASS_ACTIVE_STOPPED));
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), 1000u * 8);
    EXPECT_TRUE(BASS_StreamFree(h));
    EXPECT_FALSE(BASS_ChannelPlay(h, FALSE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
}

TEST_F(UserStreamTest, SixteenBitStreamsConvertAtTheEdges) {
    HSTREAM h = BASS_StreamCreate(8000, 1, BASS_STREAM_DECODE, STREAMPROC_PUSH, nullptr);
    ASSERT_NE(h, 0u);
    const int16_t in[4] = {0, 16384, -32768, 32767};
    EXPECT_EQ(BASS_StreamPutData(h, in, sizeof in), sizeof in);
    // Odd byte counts are not whole frames.
    EXPECT_EQ(BASS_StreamPutData(h, in, 3), 0xFFFFFFFFu);
    float f[4];
    ASSERT_EQ(BASS_ChannelGetData(h, f, sizeof f | BASS_DATA_FLOAT), sizeof f);
    EXPECT_FLOAT_EQ(f[1], 0.5f);
    EXPECT_FLOAT_EQ(f[2], -1.0f);
    BASS_CHANNELINFO info;
    ASSERT_TRUE(BASS_ChannelGetInfo(h, &info));
    EXPECT_EQ(info.freq, 8000u);
    EXPECT_EQ(info.chans, 1u);
    EXPECT_EQ(info.origres, 16u);
    EXPECT_TRUE(info.flags & BASS_STREAM_DECODE);
    EXPECT_EQ(BASS_ChannelSeconds2Bytes(h, 0.5), 8000u);
    EXPECT_DOUBLE_EQ(BASS_ChannelBytes2Seconds(h, 16000), 1.0);
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, ProcedureStreamStallsOnShortReturnsAndEndsOnTheFlag) {
    struct State {
        int calls = 0;
    } st;
    auto proc = [](HSTREAM, void* buf, DWORD len, void* user) -> DWORD {
        auto* s = static_cast<State*>(user);
        ++s->calls;
        std::memset(buf, 0, len);
        if (s->calls == 1) return 400;                        // 100 mono float frames
        return s->calls == 2 ? 0 : (40 | BASS_STREAMPROC_END); // nothing yet, then the end
    };
    HSTREAM h = BASS_StreamCreate(1000, 1, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, proc, &st);
    std::vector<float> out(1000);
    EXPECT_EQ(BASS_ChannelGetData(h, out.data(), 4000), 400u);
    EXPECT_EQ(BASS_ChannelGetData(h, out.data(), 4000), 0u); // stalled, not ended
    EXPECT_EQ(BASS_ChannelGetData(h, out.data(), 4000), 40u);
    EXPECT_EQ(BASS_ChannelGetData(h, out.data(), 4000), 0xFFFFFFFFu);
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, MixtimePositionSyncFiresAtTheExactFrame) {
    const auto data = ramp(10000, 1);
    HSTREAM h = pushStream(44100, 1, BASS_STREAM_DECODE, data, true);
    struct Seen {
        std::atomic<uint64_t> framesBefore{0};
        uint64_t counted = 0;
        std::atomic<int> fired{0};
    } seen;
    auto dsp = [](HDSP, DWORD, void*, DWORD len, void* user) { static_cast<Seen*>(user)->counted += len / 4; };
    auto sync = [](HSYNC, DWORD, DWORD, void* user) {
        auto* s = static_cast<Seen*>(user);
        s->framesBefore = s->counted;
        s->fired++;
    };
    BASS_ChannelSetDSP(h, dsp, &seen, 0);
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS | BASS_SYNC_MIXTIME, 1234 * 4, sync, &seen), 0u);
    std::vector<float> out(10000);
    BASS_ChannelGetData(h, out.data(), 5000 * 4 | BASS_DATA_FLOAT);
    EXPECT_EQ(seen.fired.load(), 1);
    EXPECT_EQ(seen.framesBefore.load(), 1234u);
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, DspsRunInFallingPriorityAndStopOnceRemoved) {
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT, STREAMPROC_DUMMY, nullptr);
    std::vector<int> order;
    auto first = [](HDSP, DWORD, void*, DWORD, void* u) { static_cast<std::vector<int>*>(u)->push_back(1000); };
    auto second = [](HDSP, DWORD, void*, DWORD, void* u) { static_cast<std::vector<int>*>(u)->push_back(0); };
    HDSP low = BASS_ChannelSetDSP(h, second, &order, 0);
    HDSP high = BASS_ChannelSetDSP(h, first, &order, 1000);
    ASSERT_TRUE(low && high);
    float buf[256];
    BASS_ChannelGetData(h, buf, sizeof buf);
    ASSERT_EQ(order.size(), 2u);
    EXPECT_EQ(order[0], 1000);
    EXPECT_EQ(order[1], 0);
    EXPECT_TRUE(BASS_ChannelRemoveDSP(h, high));
    EXPECT_FALSE(BASS_ChannelRemoveDSP(h, high));
    order.clear();
    BASS_ChannelGetData(h, buf, sizeof buf);
    EXPECT_EQ(order, std::vector<int>{0});
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, SingleChannelDspSeesOnlyItsChannel) {
    const auto data = ramp(64, 2);
    HSTREAM h = pushStream(44100, 2, BASS_STREAM_DECODE, data, true);
    auto zero = [](HDSP, DWORD, void* buf, DWORD len, void*) { std::memset(buf, 0, len); };
    ASSERT_NE(BASS_ChannelSetDSPEx(h, zero, nullptr, 0, BASS_DSP_MONO_N(2) | BASS_DSP_FLOAT), 0u);
    EXPECT_EQ(BASS_ChannelSetDSPEx(h, zero, nullptr, 0, BASS_DSP_MONO_N(3)), 0u);
    std::vector<float> out(128);
    BASS_ChannelGetData(h, out.data(), 512 | BASS_DATA_FLOAT);
    for (size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(out[2 * i], data[2 * i]);
        EXPECT_EQ(out[2 * i + 1], 0.0f);
    }
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, LevelsOfAMinusSixDecibelSine) {
    const float amp = 0.501187f; // -6 dBFS
    auto data = sine(1000, 44100, 44100, 2, amp);
    for (size_t i = 0; i < data.size(); i += 2) data[i + 1] *= 0.5f;
    HSTREAM h = pushStream(44100, 2, BASS_STREAM_DECODE, data, true);
    float lv[2];
    ASSERT_TRUE(BASS_ChannelGetLevelEx(h, lv, 0.05f, BASS_LEVEL_STEREO));
    EXPECT_NEAR(lv[0], 0.501, 0.01);
    EXPECT_NEAR(lv[1], 0.2506, 0.01);
    ASSERT_TRUE(BASS_ChannelGetLevelEx(h, lv, 0.05f, BASS_LEVEL_STEREO | BASS_LEVEL_RMS));
    EXPECT_NEAR(lv[0], 0.354, 0.01);
    ASSERT_TRUE(BASS_ChannelGetLevelEx(h, lv, 0.05f, BASS_LEVEL_MONO));
    EXPECT_NEAR(lv[0], 0.501, 0.01);
    // Reading levels consumed 150 ms of the decoding channel.
    EXPECT_EQ(BASS_ChannelGetPosition(h, BASS_POS_BYTE), 3u * 2205 * 8);
    BASS_StreamFree(h);
}

TEST_F(UserStreamTest, BadArgumentsFailWithTheirErrors) {
    EXPECT_EQ(BASS_StreamCreate(0, 2, 0, STREAMPROC_PUSH, nullptr), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_FREQ);
    EXPECT_EQ(BASS_StreamCreate(44100, 0, 0, STREAMPROC_PUSH, nullptr), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_STREAM_DECODE, STREAMPROC_PUSH, nullptr);
    EXPECT_FALSE(BASS_ChannelPlay(h, FALSE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DECODE);
    EXPECT_FALSE(BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_NOTFILE);
    EXPECT_EQ(BASS_ChannelGetLength(h, BASS_POS_BYTE), static_cast<QWORD>(-1));
    EXPECT_EQ(BASS_ChannelSetSync(h, 99, 0, [](HSYNC, DWORD, DWORD, void*) {}, nullptr), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLTYPE);
    EXPECT_FALSE(BASS_ChannelSetAttribute(h, 999, 1.0f));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLTYPE);
    EXPECT_FALSE(BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, NAN));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    BASS_StreamFree(h);
    EXPECT_FALSE(BASS_StreamFree(h));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_FALSE(BASS_ChannelGetInfo(0, nullptr));
}
