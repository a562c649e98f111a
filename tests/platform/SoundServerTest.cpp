// Output through a real sound server (the private one scripts/test starts):
// device list, default device, what reaches the sink, device notifications.
#include "PlatformFixture.hpp"
#include "PulseServer.hpp"

#include <atomic>
#include <cstring>
#include <mutex>

using namespace tavro::test;

namespace {

struct Measured {
    double peakL = 0, peakR = 0;
    size_t crossings = 0, frames = 0;
};

// Measures the part of a recording where the signal is present (the monitor
// delivers nothing until something plays, so time alone cannot align it).
Measured measureSignal(const std::vector<float>& rec) {
    const size_t n = rec.size() / 2;
    size_t first = n, last = 0;
    for (size_t i = 0; i < n; ++i)
        if (std::fabs(rec[2 * i]) > 0.02f || std::fabs(rec[2 * i + 1]) > 0.02f) first = std::min(first, i), last = i;
    Measured m;
    if (first >= last) return m;
    first += 2400; // skip the edges
    last -= std::min<size_t>(last, 2400);
    for (size_t i = first; i < last; ++i) {
        m.peakL = std::max(m.peakL, static_cast<double>(std::fabs(rec[2 * i])));
        m.peakR = std::max(m.peakR, static_cast<double>(std::fabs(rec[2 * i + 1])));
        if (i > first && (rec[2 * i] >= 0) != (rec[2 * i - 2] >= 0)) m.crossings++;
    }
    m.frames = last > first ? last - first : 0;
    return m;
}

class SoundServerTest : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WITHOUT_SOUND_SERVER(); }
    void TearDown() override {
        BASS_Free();
        if (!module_.empty()) pactl("unload-module " + module_);
    }

    // A sink of this test's own, so tests running side by side do not hear
    // each other; returns its device number (0 when it could not be made).
    int ownSink() {
        sink_ = std::string("tavro_") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        module_ = pactl("load-module module-null-sink rate=48000 format=float32le sink_name=" + sink_);
        for (int attempt = 0; attempt < 200; ++attempt) {
            BASS_DEVICEINFO info;
            for (DWORD d = 1; BASS_GetDeviceInfo(d, &info); ++d)
                if (info.driver && sink_ == info.driver && (info.flags & BASS_DEVICE_ENABLED)) return static_cast<int>(d);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return 0;
    }
    std::string monitor() const { return sink_ + ".monitor"; }

    std::string sink_, module_;
};

} // namespace

TEST_F(SoundServerTest, ListsTheServerOutputsAndPicksItsDefault) {
    BASS_DEVICEINFO info;
    ASSERT_TRUE(BASS_GetDeviceInfo(0, &info));
    EXPECT_STREQ(info.name, "No sound");
    EXPECT_FALSE(info.flags & BASS_DEVICE_DEFAULT);
    ASSERT_TRUE(BASS_GetDeviceInfo(1, &info));
    EXPECT_STREQ(info.name, "TavroTestSink");
    EXPECT_STREQ(info.driver, "tavro_test");
    EXPECT_EQ(info.flags & (BASS_DEVICE_DEFAULT | BASS_DEVICE_ENABLED), DWORD(BASS_DEVICE_DEFAULT | BASS_DEVICE_ENABLED));
    EXPECT_FALSE(BASS_GetDeviceInfo(99, &info));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DEVICE);

    ASSERT_TRUE(BASS_Init(-1, 48000, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_GetDevice(), 1u);
    EXPECT_FALSE(BASS_Init(-1, 48000, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ALREADY);
    EXPECT_FALSE(BASS_Init(42, 48000, 0, nullptr, nullptr));
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_DEVICE);
    ASSERT_TRUE(BASS_GetDeviceInfo(1, &info));
    EXPECT_TRUE(info.flags & BASS_DEVICE_INIT);
}

TEST_F(SoundServerTest, VolumeAndPanReachTheSink) {
    const int device = ownSink();
    ASSERT_GT(device, 0);
    ASSERT_TRUE(BASS_Init(device, 48000, 0, nullptr, nullptr));
    MonitorRecorder rec(48000 * 3 / 2, monitor().c_str());
    ASSERT_TRUE(rec.ok());
    const auto tone = sine(1000, 48000, 48000, 2, 0.8f);
    HSTREAM h = pushStream(48000, 2, BASS_STREAM_AUTOFREE, tone, true);
    ASSERT_TRUE(BASS_ChannelSetAttribute(h, BASS_ATTRIB_VOL, 0.5f));
    ASSERT_TRUE(BASS_ChannelSetAttribute(h, BASS_ATTRIB_PAN, -1.0f));
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    const Measured m = measureSignal(rec.finish());
    ASSERT_GT(m.frames, 24000u) << "too little of the tone reached the sink";
    EXPECT_NEAR(m.peakL, 0.4, 0.02);
    EXPECT_LT(m.peakR, 0.005);
}

TEST_F(SoundServerTest, OtherRatesAreConvertedToTheDeviceRate) {
    const int device = ownSink();
    ASSERT_GT(device, 0);
    ASSERT_TRUE(BASS_Init(device, 48000, 0, nullptr, nullptr));
    MonitorRecorder rec(48000 * 3 / 2, monitor().c_str());
    const auto tone = sine(1000, 44100, 44100, 1, 0.5f);
    HSTREAM h = pushStream(44100, 1, BASS_STREAM_AUTOFREE, tone, true);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    const Measured m = measureSignal(rec.finish());
    ASSERT_GT(m.frames, 24000u);
    // 1 kHz: two zero crossings a millisecond, whatever the stream's own rate.
    EXPECT_NEAR(static_cast<double>(m.crossings) / (static_cast<double>(m.frames) / 48.0), 2.0, 0.02);
    EXPECT_NEAR(m.peakL, 0.5, 0.02);
    EXPECT_NEAR(m.peakR, 0.5, 0.02);
}

TEST_F(SoundServerTest, PositionAdvancesAtTheDeviceRate) {
    const int device = ownSink();
    ASSERT_GT(device, 0);
    ASSERT_TRUE(BASS_Init(device, 48000, 0, nullptr, nullptr));
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_SAMPLE_FLOAT, STREAMPROC_DUMMY, nullptr);
    // A dummy stream is decode-only; play a procedure stream of silence instead.
    BASS_StreamFree(h);
    h = BASS_StreamCreate(44100, 2, BASS_SAMPLE_FLOAT,
                          [](HSTREAM, void* b, DWORD len, void*) -> DWORD {
                              std::memset(b, 0, len);
                              return len;
                          },
                          nullptr);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::seconds(2)));
    const auto t0 = std::chrono::steady_clock::now();
    const double p0 = BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    const double p1 = BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_NEAR((p1 - p0) / wall, 1.0, 0.02);
}

TEST_F(SoundServerTest, DeviceChangesAreNotified) {
    static std::mutex m;
    static std::vector<DWORD> codes;
    codes.clear();
    ASSERT_TRUE(BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, reinterpret_cast<const void*>(+[](DWORD code) {
        std::lock_guard lock(m);
        codes.push_back(code);
    })));
    ASSERT_TRUE(BASS_Init(-1, 48000, 0, nullptr, nullptr));
    auto seen = [&](DWORD c) {
        std::lock_guard lock(m);
        return std::find(codes.begin(), codes.end(), c) != codes.end();
    };
    // Finds the device by its server name; its number stays the same once known.
    auto find = [](const char* name, BASS_DEVICEINFO& info) {
        for (DWORD d = 1; BASS_GetDeviceInfo(d, &info); ++d)
            if (info.driver && std::string(info.driver) == name) return d;
        return DWORD(0);
    };
    const std::string module = pactl("load-module module-null-sink sink_name=tavro_second");
    ASSERT_FALSE(module.empty());
    EXPECT_TRUE(waitFor([&] { return seen(1); }, std::chrono::seconds(3)));
    BASS_DEVICEINFO info;
    const DWORD second = find("tavro_second", info);
    ASSERT_NE(second, 0u);
    EXPECT_TRUE(info.flags & BASS_DEVICE_ENABLED);

    pactl("unload-module " + module);
    EXPECT_TRUE(waitFor([&] { return seen(2); }, std::chrono::seconds(3)));
    ASSERT_TRUE(waitFor([&] { return BASS_GetDeviceInfo(second, &info) && !(info.flags & BASS_DEVICE_ENABLED); },
                        std::chrono::seconds(3)));
    EXPECT_STREQ(info.driver, "tavro_second");
    BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, nullptr);
}
