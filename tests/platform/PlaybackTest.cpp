// Playing channels on the no-sound device: ends, auto-free, slides and the
// guarantee that removed callbacks are never called again.
#include "PlatformFixture.hpp"
#include "RampChannel.hpp"
#include "output/Device.hpp"
#include "runtime/SyncThread.hpp"

#include <atomic>
#include <thread>

using namespace tavro::test;

namespace {
class PlaybackTest : public NoSoundTest {};

struct Flag {
    std::atomic<int> count{0};
    std::atomic<DWORD> data{0};
    std::atomic<std::thread::id> thread{};
};
void flagSync(HSYNC, DWORD, DWORD data, void* user) {
    auto* f = static_cast<Flag*>(user);
    f->data = data;
    f->thread = std::this_thread::get_id();
    f->count++;
}
} // namespace

TEST_F(PlaybackTest, EndSyncFiresWhenHeardAndAutoFreeReleasesTheStream) {
    const auto data = sine(440, 44100, 4410, 2, 0.5f); // 100 ms
    HSTREAM h = pushStream(44100, 2, BASS_STREAM_AUTOFREE, data, true);
    Flag end, mixEnd, freed;
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_END, 0, flagSync, &end), 0u);
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_END | BASS_SYNC_MIXTIME, 0, flagSync, &mixEnd), 0u);
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_FREE | BASS_SYNC_MIXTIME, 0, flagSync, &freed), 0u);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    // Mixtime: as soon as it is rendered, well before it is heard.
    ASSERT_TRUE(waitFor([&] { return mixEnd.count == 1; }, std::chrono::seconds(2)));
    ASSERT_TRUE(waitFor([&] { return end.count == 1; }, std::chrono::seconds(2)));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(90));
    EXPECT_NE(end.thread.load(), std::this_thread::get_id());
    ASSERT_TRUE(waitFor([&] { return freed.count == 1; }, std::chrono::seconds(2)));
    EXPECT_FALSE(BASS_ChannelIsActive(h));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
}

TEST_F(PlaybackTest, PushStreamStallsWithoutDataAndResumesWhenFed) {
    HSTREAM h = BASS_StreamCreate(44100, 1, BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelIsActive(h) == BASS_ACTIVE_STALLED; }, std::chrono::seconds(1)));
    const auto data = sine(440, 44100, 8820, 1, 0.5f);
    BASS_StreamPutData(h, data.data(), static_cast<DWORD>(data.size() * 4));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) >= 4410 * 4; }, std::chrono::seconds(2)));
    BASS_StreamFree(h);
}

TEST_F(PlaybackTest, SlideReachesItsTargetAndFiresItsSync) {
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    Flag slid;
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_SLIDE, 0, flagSync, &slid), 0u);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(BASS_ChannelSlideAttribute(h, BASS_ATTRIB_VOL, 0.25f, 200));
    EXPECT_TRUE(BASS_ChannelIsSliding(h, BASS_ATTRIB_VOL));
    EXPECT_FALSE(BASS_ChannelIsSliding(h, BASS_ATTRIB_PAN));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    float v = 0;
    ASSERT_TRUE(BASS_ChannelGetAttribute(h, BASS_ATTRIB_VOL, &v));
    EXPECT_GT(v, 0.3f);
    EXPECT_LT(v, 0.95f);
    ASSERT_TRUE(waitFor([&] { return slid.count == 1; }, std::chrono::seconds(2)));
    EXPECT_EQ(slid.data.load(), static_cast<DWORD>(BASS_ATTRIB_VOL));
    EXPECT_FALSE(BASS_ChannelIsSliding(h, BASS_ATTRIB_VOL));
    ASSERT_TRUE(BASS_ChannelGetAttribute(h, BASS_ATTRIB_VOL, &v));
    EXPECT_FLOAT_EQ(v, 0.25f);
    // Sliding to -1 fades out and stops.
    ASSERT_TRUE(BASS_ChannelSlideAttribute(h, BASS_ATTRIB_VOL, -1.0f, 50));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelIsActive(h) == BASS_ACTIVE_STOPPED; }, std::chrono::seconds(2)));
}

TEST_F(PlaybackTest, RemovedDspAndFreedStreamCallNothingAfterReturning) {
    struct Probe {
        std::atomic<bool> removed{false};
        std::atomic<int> lateCalls{0};
        std::atomic<int> calls{0};
    };
    auto dsp = [](HDSP, DWORD, void*, DWORD, void* u) {
        auto* p = static_cast<Probe*>(u);
        p->calls++;
        if (p->removed) p->lateCalls++;
        std::this_thread::sleep_for(std::chrono::microseconds(200)); // widen the window
    };
    for (int round = 0; round < 20; ++round) {
        Probe p;
        DWORD h = RampChannel::create(44100, 2, 0, -1);
        HDSP d = BASS_ChannelSetDSP(h, dsp, &p, 0);
        ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
        ASSERT_TRUE(waitFor([&] { return p.calls > 0; }, std::chrono::seconds(2)));
        if (round % 2) {
            ASSERT_TRUE(BASS_ChannelRemoveDSP(h, d));
        } else {
            ASSERT_TRUE(BASS_StreamFree(h));
        }
        p.removed = true;
        BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE); // provoke more rendering if still alive
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(p.lateCalls.load(), 0);
        BASS_StreamFree(h);
    }
}

TEST_F(PlaybackTest, SyncRemovedFromItsOwnCallbackAndOneTimeSyncsFireOnce) {
    DWORD h = RampChannel::create(1000, 1, BASS_STREAM_DECODE, -1);
    Flag once;
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS | BASS_SYNC_MIXTIME | BASS_SYNC_ONETIME, 10 * 4, flagSync, &once), 0u);
    Flag heard;
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS, 20 * 4, flagSync, &heard), 0u);
    std::vector<float> buf(100);
    BASS_ChannelGetData(h, buf.data(), 400);
    BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE);
    BASS_ChannelGetData(h, buf.data(), 400);
    EXPECT_EQ(once.count.load(), 1);
    // Non-mixtime syncs of a decoding channel fire on the sync thread once decoded.
    ASSERT_TRUE(waitFor([&] { return heard.count == 2; }, std::chrono::seconds(1)));
    EXPECT_NE(heard.thread.load(), std::this_thread::get_id());
    BASS_StreamFree(h);
}

TEST_F(PlaybackTest, StoppingTheOutputPausesChannelsUntilStarted) {
    DWORD h = RampChannel::create(44100, 2, 0, -1);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(BASS_Pause());
    EXPECT_EQ(BASS_ChannelIsActive(h), static_cast<DWORD>(BASS_ACTIVE_PAUSED_DEVICE));
    EXPECT_FALSE(BASS_ChannelPlay(RampChannel::create(44100, 2, 0, -1), FALSE));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_START);
    ASSERT_TRUE(BASS_Start());
    EXPECT_EQ(BASS_ChannelIsActive(h), static_cast<DWORD>(BASS_ACTIVE_PLAYING));
}

// The no-sound device and the update thread sleep while nothing plays, wake
// at a play, and the time they spend shows in the CPU reading.
TEST_F(PlaybackTest, TheOutputIdlesWhileNothingPlaysAndItsWorkShowsInTheCpuReading) {
    auto device = tavro::platform::Device::current();
    ASSERT_TRUE(waitFor([&] { return !device->anyPlaying(); }, std::chrono::milliseconds(500)));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint64_t idle = device->framesRendered();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(device->framesRendered(), idle);

    BASS_GetCPU();
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_SAMPLE_FLOAT, STREAMPROC_PUSH, nullptr);
    const auto tone = sine(440, 44100, 44100, 2, 0.5f);
    BASS_StreamPutData(h, tone.data(), static_cast<DWORD>(tone.size() * sizeof(float)));
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    EXPECT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::milliseconds(200)));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const float cpu = BASS_GetCPU();
    EXPECT_GT(cpu, 0.0f);
    EXPECT_LT(cpu, 100.0f);
}
