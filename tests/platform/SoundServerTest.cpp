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

// A 48 kHz stereo float WAV of a 440 Hz tone, as 32-bit words in memory.
std::vector<float> toneFile(double seconds) {
    const auto tone = sine(440, 48000, static_cast<size_t>(seconds * 48000), 2, 0.5f);
    const uint32_t bytes = static_cast<uint32_t>(tone.size() * 4);
    const uint32_t hdr[] = {0x46464952, 36 + bytes, 0x45564157, 0x20746d66, 16, 0x00020003, 48000, 48000 * 8, 0x00200008, 0x61746164, bytes};
    std::vector<float> file(11 + tone.size());
    std::memcpy(file.data(), hdr, sizeof hdr);
    std::memcpy(file.data() + 11, tone.data(), bytes);
    return file;
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
    // The engine on this test's own sink.
    bool initOwnSink() {
        const int device = ownSink();
        return device > 0 && BASS_Init(device, 48000, 0, nullptr, nullptr);
    }
    // The engine on this test's own sink and a tone of `seconds` ready to play there.
    HSTREAM toneOnOwnSink(double seconds) {
        if (!initOwnSink()) return 0;
        tone_ = toneFile(seconds);
        return BASS_StreamCreateFile(TRUE, tone_.data(), 0, tone_.size() * 4, BASS_SAMPLE_FLOAT);
    }

    std::string sink_, module_;
    std::vector<float> tone_;
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
    ASSERT_TRUE(initOwnSink());
    TimedRecorder rec(1.5, monitor());
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
    ASSERT_TRUE(initOwnSink());
    TimedRecorder rec(1.5, monitor());
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
    ASSERT_TRUE(initOwnSink());
    // A procedure stream of silence at another rate than the device's.
    HSTREAM h = BASS_StreamCreate(44100, 2, BASS_SAMPLE_FLOAT,
                          [](HSTREAM, void* b, DWORD len, void*) -> DWORD {
                              std::memset(b, 0, len);
                              return len;
                          },
                          nullptr);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    // A null sink that was idle renders in 2 s blocks until its current one
    // is over: a new stream may wait that long to be heard at all.
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::seconds(4)));
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

namespace {

// Runs of signal in a recording, split where it is silent for `gap` frames or
// more: [first, last] frame pairs.
std::vector<std::pair<size_t, size_t>> signalRuns(const std::vector<float>& rec, size_t gap) {
    std::vector<std::pair<size_t, size_t>> runs;
    const size_t n = rec.size() / 2;
    size_t quiet = 0;
    for (size_t i = 0; i < n; ++i) {
        if (std::fabs(rec[2 * i]) > 0.01f || std::fabs(rec[2 * i + 1]) > 0.01f) {
            if (runs.empty() || quiet >= gap) runs.push_back({i, i});
            runs.back().second = i;
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    return runs;
}

// Two processes that keep both cores busy for the test's duration.
struct CpuBurners {
    CpuBurners() { std::system("for i in 1 2; do timeout 12 sh -c 'while :; do :; done' & done"); }
    ~CpuBurners() { std::system("pkill -f \"while :; do :; done\""); }
};

std::atomic<int> gEnds{0};
double gEndAt[8];

} // namespace

// The end report (a mixtime sync) comes at most 100 ms before the last frame
// is heard, with both cores busy and no underrun; replaying from the report,
// by play alone or by a seek and play, plays the whole tail and then the
// track again.
TEST_F(SoundServerTest, EndReportComesJustBeforeTheHeardEndAndReplaysKeepTheTail) {
    HSTREAM h = toneOnOwnSink(2.0);
    ASSERT_NE(h, 0u) << BASS_ErrorGetCode();
    gEnds = 0;
    ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_END | BASS_SYNC_MIXTIME, 0,
                                  [](HSYNC, DWORD, DWORD, void*) { gEndAt[gEnds.fetch_add(1) & 7] = TimedRecorder::now(); },
                                  nullptr),
              0u);
    CpuBurners burners;
    TimedRecorder rec(7.0, monitor());
    ASSERT_TRUE(rec.ok());
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([] { return gEnds == 1; }, std::chrono::seconds(4)));
    EXPECT_TRUE(BASS_ChannelPlay(h, FALSE)); // the obvious repeat button
    ASSERT_TRUE(waitFor([] { return gEnds == 2; }, std::chrono::seconds(4)));
    EXPECT_TRUE(BASS_ChannelSetPosition(h, 0, BASS_POS_BYTE));
    EXPECT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([] { return gEnds == 3; }, std::chrono::seconds(4)));
    EXPECT_TRUE(waitFor([&] { return BASS_ChannelIsActive(h) == BASS_ACTIVE_STOPPED; }, std::chrono::seconds(1)));
    const auto runs = signalRuns(rec.finish(), 240);
    ASSERT_FALSE(runs.empty());
    // Every pass heard whole: runs of 2 s each (or passes joined without a gap).
    double heard = 0;
    for (auto [a, b] : runs) {
        const double len = static_cast<double>(b - a + 1) / 48000;
        EXPECT_NEAR(len / 2.0, std::round(len / 2.0), 0.005) << "a run of " << len << " s";
        heard += len;
    }
    EXPECT_NEAR(heard, 6.0, 0.02);
    // The first end report against the first pass's heard end.
    const double heardEnd = rec.timeOf(static_cast<double>(runs[0].first) + 96000);
    std::printf("end report %.1f ms before the heard end\n", (heardEnd - gEndAt[0]) * 1000);
    EXPECT_LE(heardEnd - gEndAt[0], 0.100);
    EXPECT_GE(heardEnd - gEndAt[0], -0.005);
}

// Heard positions and non-mixtime position syncs follow what leaves the sink
// within 10 ms: clicks every 250 ms, their recorded times against the syncs'
// and the positions reported meanwhile.
TEST_F(SoundServerTest, HeardPositionsAndSyncsMatchWhatLeavesTheSink) {
    ASSERT_TRUE(initOwnSink());
    constexpr size_t kStep = 12000, kClicks = 9;
    std::vector<float> train((kClicks + 1) * kStep * 2, 0.0f);
    for (size_t k = 1; k <= kClicks; ++k)
        for (size_t i = 0; i < 48; ++i) train[(k * kStep + i) * 2] = train[(k * kStep + i) * 2 + 1] = 0.8f;
    static double fired[kClicks + 1];
    static std::atomic<int> firedCount;
    firedCount = 0;
    TimedRecorder rec(3.2, monitor());
    ASSERT_TRUE(rec.ok());
    HSTREAM h = pushStream(48000, 2, 0, train, true);
    for (size_t k = 1; k <= kClicks; ++k)
        ASSERT_NE(BASS_ChannelSetSync(h, BASS_SYNC_POS, k * kStep * 8,
                                      [](HSYNC, DWORD, DWORD, void* k) {
                                          fired[reinterpret_cast<size_t>(k)] = TimedRecorder::now();
                                          firedCount++;
                                      },
                                      reinterpret_cast<void*>(k)),
                  0u);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    std::vector<std::pair<double, double>> polls; // (time, heard frame)
    while (BASS_ChannelIsActive(h) == BASS_ACTIVE_PLAYING && polls.size() < 2000) {
        const double t0 = TimedRecorder::now();
        const QWORD pos = BASS_ChannelGetPosition(h, BASS_POS_BYTE);
        const double t1 = TimedRecorder::now();
        if (t1 - t0 < 0.001) polls.push_back({(t0 + t1) / 2, static_cast<double>(pos / 8)});
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const auto runs = signalRuns(rec.finish(), 4800);
    BASS_StreamFree(h);
    ASSERT_EQ(runs.size(), kClicks);
    EXPECT_EQ(firedCount.load(), static_cast<int>(kClicks));
    double worstSync = 0, worstPos = 0, sumSync = 0, sumPos = 0;
    for (size_t k = 1; k <= kClicks; ++k) {
        const double d = fired[k] - rec.timeOf(static_cast<double>(runs[k - 1].first));
        sumSync += d;
        worstSync = std::max(worstSync, std::fabs(d));
    }
    for (auto [t, frame] : polls) {
        // The last click heard by then, and the frames since.
        size_t k = 0;
        while (k < kClicks && rec.timeOf(static_cast<double>(runs[k].first)) <= t) ++k;
        if (k == 0) continue;
        const double expected = static_cast<double>(k * kStep) + (t - rec.timeOf(static_cast<double>(runs[k - 1].first))) * 48000;
        if (expected > static_cast<double>((kClicks + 1) * kStep)) continue; // past the end
        worstPos = std::max(worstPos, std::fabs(frame - expected) / 48000);
        sumPos += (frame - expected) / 48000;
    }
    std::printf("mean sync %.1f ms, mean position %.1f ms\n", sumSync / kClicks * 1000, sumPos / static_cast<double>(polls.size()) * 1000);
    std::printf("worst sync %.1f ms, worst position %.1f ms over %zu readings\n", worstSync * 1000, worstPos * 1000, polls.size());
    EXPECT_LE(worstSync, 0.010);
    EXPECT_LE(worstPos, 0.010);
}

// Seeks, relative seeks and a stop and play on a playing stream: what is
// heard never drops out for 5 ms or more.
TEST_F(SoundServerTest, SeeksOnAPlayingStreamNeverDropOut) {
    HSTREAM h = toneOnOwnSink(10.0);
    ASSERT_NE(h, 0u) << BASS_ErrorGetCode();
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelGetPosition(h, BASS_POS_BYTE) > 0; }, std::chrono::seconds(4)));
    TimedRecorder rec(3.5, monitor());
    ASSERT_TRUE(rec.ok());
    uint32_t seed = 99;
    for (int i = 0; i < 24; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(110));
        seed = seed * 1664525u + 1013904223u;
        const double at = (i % 3 == 2) ? BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE)) + 0.5
                                       : 1.0 + (seed >> 8) % 7000 / 1000.0;
        ASSERT_TRUE(BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, at), BASS_POS_BYTE));
    }
    const double stopAt = TimedRecorder::now();
    ASSERT_TRUE(BASS_ChannelStop(h));
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    // Stopped is stopped: if this thread lost the processor between the two
    // calls, the output rightly played that long without the channel.
    const double stopped = TimedRecorder::now() - stopAt;
    const auto runs = signalRuns(rec.finish(), 240);
    BASS_StreamFree(h);
    size_t gaps = 0;
    for (size_t i = 1; i < runs.size(); ++i) {
        const double gap = static_cast<double>(runs[i].first - runs[i - 1].second) / 48000;
        const double before = stopAt - rec.timeOf(static_cast<double>(runs[i - 1].second));
        const bool caller = std::abs(before) < 0.1 && gap < stopped + 0.0015;
        gaps += caller ? 0 : 1;
        std::printf("gap of %.1f ms, %.0f ms before the stop and play%s\n", gap * 1000, before * 1000,
                    caller ? " (the calls were that far apart)" : "");
    }
    EXPECT_EQ(gaps, 0u) << "the sound stopped " << gaps << " times";
}
