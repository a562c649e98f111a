// The sound server dies and comes back under a playing application: the
// platform holds its channels, reconnects by itself and plays on. Each test
// runs its own server, killed and restarted by PID, and records its sink.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"
#include "PrivateSoundServer.hpp"
#include "PulseServer.hpp"

#include <atomic>
#include <cmath>

using namespace tavro::test;

namespace {

constexpr DWORD kRate = 48000;
// Every frame says where it lies in the stream: a ramp over 8 s, exact in the
// platform's float path and the server's, so a recording tells what was
// played and what was skipped.
constexpr double kPeriod = 8.0 * kRate;

float rampAt(uint64_t n) { return static_cast<float>(static_cast<double>(n % uint64_t(kPeriod)) / kPeriod * 0.8 - 0.4); }
int64_t frameOf(float v) { return std::llround((static_cast<double>(v) + 0.4) / 0.8 * kPeriod); }

DWORD rampProc(HSTREAM, void* buffer, DWORD length, void* user) {
    auto* next = static_cast<uint64_t*>(user);
    auto* out = static_cast<float*>(buffer);
    for (DWORD i = 0; i < length / 8; ++i, ++*next) out[2 * i] = out[2 * i + 1] = rampAt(*next);
    return length;
}

std::atomic<int> lossNotes{0};
void countLosses(DWORD code) {
    if (code == 4) ++lossNotes;
}

class ServerRestartTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        server.use();
        lossNotes = 0;
        BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, reinterpret_cast<const void*>(&countLosses));
        ASSERT_TRUE(BASS_Init(-1, kRate, 0, nullptr, nullptr)) << BASS_ErrorGetCode();
        ASSERT_NE(BASS_GetDevice(), 0u) << "the private server's sink should be the default output";
    }
    void TearDown() override {
        BASS_Free();
        BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, nullptr);
    }
    PrivateSoundServer server;
};

} // namespace

// A stream the platform can seek (a file) comes back from the frame that was
// heard; one it cannot (a procedure) from where the device had taken it, so
// what the dead server held is skipped. They play on the left and the right.
TEST_F(ServerRestartTest, PlaybackComesBackByItselfFromWhereTheListenerWas) {
    uint64_t next = kRate; // start a second in, away from the ramp's wrap
    HSTREAM live = BASS_StreamCreate(kRate, 2, BASS_SAMPLE_FLOAT, rampProc, &next);
    std::vector<float> ramp(size_t(kPeriod) * 2);
    for (size_t i = 0; i < ramp.size() / 2; ++i) ramp[2 * i + 1] = rampAt(i + kRate);
    const std::string path = ::testing::TempDir() + "tavro_ramp.wav";
    writeFloatWav(path, ramp, kRate, 2);
    HSTREAM file = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_SAMPLE_FLOAT);
    ASSERT_NE(live, 0u);
    ASSERT_NE(file, 0u);
    BASS_ChannelSetAttribute(live, BASS_ATTRIB_PAN, -1);
    ASSERT_TRUE(BASS_ChannelPlay(live, FALSE));
    ASSERT_TRUE(BASS_ChannelPlay(file, FALSE));

    // Recorded until the server dies under the recorder.
    TimedRecorder before(4.0, "tavro_test.monitor");
    ASSERT_TRUE(before.ok());
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    server.kill();
    const auto& a = before.finish();
    int64_t lastHeard[2] = {-1, -1};
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != 0.0f) lastHeard[i % 2] = frameOf(a[i]);
    ASSERT_GT(lastHeard[0], int64_t(kRate));
    ASSERT_GT(lastHeard[1], int64_t(kRate));

    // While the server is away the channels are held where they were heard.
    ASSERT_TRUE(waitFor([&] { return BASS_ChannelIsActive(file) == BASS_ACTIVE_PAUSED_DEVICE; },
                        std::chrono::milliseconds(1000)));
    const QWORD held = BASS_ChannelGetPosition(file, BASS_POS_BYTE) / 8 + kRate; // the ramps start a second in
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(BASS_ChannelGetPosition(file, BASS_POS_BYTE) / 8 + kRate, held);
    EXPECT_NEAR(static_cast<double>(held), static_cast<double>(lastHeard[1]), 0.01 * kRate);
    EXPECT_EQ(BASS_ChannelIsActive(live), DWORD(BASS_ACTIVE_PAUSED_DEVICE));
    EXPECT_FALSE(BASS_Start());
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_REINIT);
    EXPECT_EQ(lossNotes.load(), 1);

    ASSERT_TRUE(server.start());
    const double back = TimedRecorder::now();
    TimedRecorder after(2.5, "tavro_test.monitor");
    ASSERT_TRUE(after.ok());
    const auto& b = after.finish();
    for (unsigned c : {0u, 1u}) {
        int64_t k = -1;
        for (size_t i = 0; i < b.size() / 2 && k < 0; ++i)
            if (b[2 * i + c] != 0.0f) k = static_cast<int64_t>(i);
        ASSERT_GE(k, 0) << "nothing came back on side " << c;
        EXPECT_LT(after.timeOf(static_cast<double>(k)) - back, 1.0);
        const int64_t resumed = frameOf(b[2 * size_t(k) + c]), skipped = resumed - lastHeard[c];
        std::printf("%s: back %.0f ms after the server, %.1f ms skipped\n", c ? "file" : "procedure",
                    (after.timeOf(static_cast<double>(k)) - back) * 1000, static_cast<double>(skipped) / kRate * 1000);
        if (c == 1) { // from the frame heard, to within the heard clock's accuracy on a busy machine
            EXPECT_LE(std::abs(skipped), int64_t(0.015 * kRate));
        } else { // at most what the server held, and nothing twice
            EXPECT_GE(skipped, 0);
            EXPECT_LE(skipped, int64_t(0.1 * kRate));
        }
        for (int64_t i = 1; i < 4800 && size_t(k + i) < b.size() / 2; ++i)
            ASSERT_EQ(frameOf(b[2 * size_t(k + i) + c]), resumed + i) << "a gap after the return, side " << c;
    }
    EXPECT_EQ(BASS_ChannelIsActive(file), DWORD(BASS_ACTIVE_PLAYING));
    EXPECT_TRUE(BASS_Start());
    EXPECT_EQ(lossNotes.load(), 1);
}

TEST_F(ServerRestartTest, AChosenOutputThatGoesAwayHandsOverToTheDefaultAndIsTakenBackWhenItReturns) {
    const std::string load = "load-module module-null-sink sink_name=tavro_other rate=48000 channels=2";
    std::string module = pactl(load);
    ASSERT_FALSE(module.empty());
    BASS_Free();
    BASS_DEVICEINFO info;
    int other = -1;
    for (DWORD d = 1; BASS_GetDeviceInfo(d, &info); ++d)
        if (info.driver && std::string(info.driver) == "tavro_other") other = static_cast<int>(d);
    ASSERT_GT(other, 0);
    ASSERT_TRUE(BASS_Init(other, kRate, 0, nullptr, nullptr));
    uint64_t next = 0;
    HSTREAM h = BASS_StreamCreate(kRate, 2, BASS_SAMPLE_FLOAT, rampProc, &next);
    ASSERT_TRUE(BASS_ChannelPlay(h, FALSE));
    const auto sinkOf = [](const std::string& name) { return pactl("list short sinks | grep " + name + " | cut -f1"); };
    const auto ourSink = [] { return pactl("list short sink-inputs | cut -f2"); };
    ASSERT_TRUE(waitFor([&] { return ourSink() == sinkOf("tavro_other"); }, std::chrono::milliseconds(2000)));

    pactl("unload-module " + module);
    ASSERT_TRUE(waitFor([&] { return ourSink() == sinkOf("tavro_test"); }, std::chrono::milliseconds(2000)))
        << "the stream is on " << ourSink();
    const QWORD before = BASS_ChannelGetPosition(h, BASS_POS_BYTE);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(BASS_ChannelIsActive(h), DWORD(BASS_ACTIVE_PLAYING));
    EXPECT_GT(BASS_ChannelGetPosition(h, BASS_POS_BYTE), before + 8 * QWORD(kRate / 10)) << "it did not play on";

    module = pactl(load);
    ASSERT_TRUE(waitFor([&] { return ourSink() == sinkOf("tavro_other"); }, std::chrono::milliseconds(2000)))
        << "the stream stayed on " << ourSink();
}
