// Loudness against EBU Tech 3341 signals synthesised here: the add-on on a
// stream's DSP chain, the meter's readings and monitoring, and the offline
// scan, which must also agree with ffmpeg's independent ebur128 filter.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <tavro/analysis/TavroLoudness.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <bassloud.h>

#include <cstdlib>
#include <cstdio>

using namespace tavro::test;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kRate = 48000;

// Stereo 1 kHz sine, one (dBFS, seconds) segment after another, phase kept.
std::vector<float> segments(std::initializer_list<std::pair<double, double>> parts) {
    std::vector<float> pcm;
    size_t n = 0;
    for (auto [db, seconds] : parts) {
        const double amp = std::pow(10.0, db / 20.0);
        const auto frames = static_cast<size_t>(std::lround(seconds * kRate));
        for (size_t i = 0; i < frames; ++i, ++n) {
            const auto v =
                static_cast<float>(amp * std::sin(2 * M_PI * 1000.0 * static_cast<double>(n) / kRate));
            pcm.push_back(v), pcm.push_back(v);
        }
    }
    return pcm;
}

class TavroLoudnessTest : public MediaTestOn<FloatDspTest> {
  protected:

    static std::shared_ptr<TavroFileSource> file(const std::string& name, const std::vector<float>& pcm) {
        const std::string path = media_->path(name);
        writeFloatWav(path, pcm, kRate, 2);
        return TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path));
    }
    static std::shared_ptr<TavroStream> decoder(const std::shared_ptr<TavroSource>& source) {
        return TavroStream::streamWithSource(source, TavroSourceFlagDecode | TavroSourceFlagFloat);
    }
};

struct Case3341 {
    const char* name;
    std::vector<float> pcm;
    double integrated;
};

std::vector<Case3341> tech3341Cases() {
    return {
        {"case1", segments({{-23, 20}}), -23.0},
        {"case2", segments({{-33, 20}}), -33.0},
        // Relative gate: the -36 dBFS parts fall below it.
        {"case3", segments({{-36, 10}, {-23, 60}, {-36, 10}}), -23.0},
        // Absolute gate as well: -72 dBFS is under -70 LUFS.
        {"case4", segments({{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}), -23.0},
        {"case5", segments({{-26, 20}, {-20, 20.1}, {-26, 20}}), -23.0},
    };
}

} // namespace

// Each case once through the add-on on a stream's DSP chain, once by the offline scan.
TEST_F(TavroLoudnessTest, AddOnAndScanMeasureTheTech3341Cases) {
    for (const auto& c : tech3341Cases()) {
        const auto source = file(std::string(c.name) + ".wav", c.pcm);
        EXPECT_NEAR(TavroLoudness::scanIntegratedLoudnessForSource(source), c.integrated, 0.1) << c.name;
        auto stream = decoder(source);
        ASSERT_TRUE(stream) << c.name;
        const HLOUDNESS h =
            BASS_Loudness_Start(stream->handle(), BASS_LOUDNESS_INTEGRATED | BASS_LOUDNESS_PEAK, 0);
        ASSERT_NE(h, 0u) << c.name;
        decodeAll(stream->handle(), 2); // through the DSP chain
        float v = 0;
        ASSERT_TRUE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_INTEGRATED, &v));
        EXPECT_NEAR(v, c.integrated, 0.1) << c.name;
        EXPECT_FALSE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_RANGE, &v)) << "not requested";
        EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_NOTAVAIL);
        EXPECT_TRUE(BASS_Loudness_Stop(h));
        EXPECT_FALSE(BASS_Loudness_Stop(h));
    }
}

TEST_F(TavroLoudnessTest, AddOnReadsMomentaryAndPeaks) {
    auto stream = decoder(file("m.wav", segments({{-23, 5}})));
    ASSERT_TRUE(stream);
    const HLOUDNESS h = BASS_Loudness_Start(stream->handle(), BASS_LOUDNESS_PEAK | BASS_LOUDNESS_TRUEPEAK, 0);
    ASSERT_NE(h, 0u);
    float v = 0;
    ASSERT_TRUE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_CURRENT, &v));
    EXPECT_TRUE(std::isinf(v) && v < 0) << "nothing measured yet";
    decodeAll(stream->handle(), 2); // through the DSP chain
    ASSERT_TRUE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_CURRENT, &v));
    EXPECT_NEAR(v, -23.0, 0.1);
    const double amp = std::pow(10.0, -23.0 / 20.0);
    ASSERT_TRUE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_PEAK, &v));
    EXPECT_NEAR(v, amp, 1e-4);
    ASSERT_TRUE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_TRUEPEAK, &v));
    EXPECT_NEAR(v, amp, amp * 0.01);
    EXPECT_FALSE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_INTEGRATED, &v));
    EXPECT_FALSE(BASS_Loudness_GetLevel(h, 3, &v));
    EXPECT_FALSE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_CURRENT, nullptr));
    EXPECT_TRUE(BASS_Loudness_Stop(h));

    EXPECT_EQ(BASS_Loudness_Start(0, 0, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_HANDLE);
    EXPECT_EQ(BASS_Loudness_Start(stream->handle(), 16, 0), 0u);
    EXPECT_EQ(BASS_ErrorGetCode(), BASS_ERROR_ILLPARAM);
    EXPECT_FALSE(BASS_Loudness_GetLevel(h, BASS_LOUDNESS_CURRENT, &v));
}

TEST_F(TavroLoudnessTest, MeterReadsWhatTheAddOnAndTheLevelsGive) {
    auto stream = decoder(file("meter.wav", segments({{-23, 5}})));
    ASSERT_TRUE(stream);
    auto meter = TavroLoudness::initWithStream(stream);
    const auto idle = meter->readCurrentLevels();
    EXPECT_EQ(idle.integratedLUFS, 0.0f);
    EXPECT_EQ(idle.samplePeakLeft, 0.0f);
    EXPECT_EQ(idle.samplePeakRight, 0.0f);

    ASSERT_TRUE(meter->startMeasuringIntegrated(true, true, true));
    const uint32_t first = meter->handle();
    EXPECT_NE(first, 0u);
    EXPECT_TRUE(meter->startMeasuringIntegrated(false, false, false));
    EXPECT_EQ(meter->handle(), first);

    std::vector<float> buf(4 * kRate * 2);
    ASSERT_GT(BASS_ChannelGetData(stream->handle(), buf.data(),
                                  static_cast<DWORD>(buf.size() * 4) | BASS_DATA_FLOAT),
              0u);
    const auto levels = meter->readCurrentLevels();
    EXPECT_NEAR(levels.integratedLUFS, -23.0f, 0.1f);
    EXPECT_NEAR(levels.momentaryLUFS, -23.0f, 0.1f);
    EXPECT_EQ(levels.shortTermLUFS, 0.0f) << "range is never requested";
    const float amp = std::pow(10.0f, -23.0f / 20.0f);
    EXPECT_NEAR(levels.truePeakDB, amp, amp * 0.01f);
    // RMS of the last 50 ms replaces the add-on's peak.
    EXPECT_NEAR(levels.samplePeakLeft, amp / std::sqrt(2.0f), 1e-3f);
    EXPECT_NEAR(levels.samplePeakRight, amp / std::sqrt(2.0f), 1e-3f);

    meter->stop();
    EXPECT_EQ(meter->handle(), 0u);
    EXPECT_FALSE(meter->isRunning());
    meter->stop();

    // Without integrated, the field keeps 0.
    ASSERT_TRUE(meter->startMeasuringIntegrated(false, false, false));
    EXPECT_EQ(meter->readCurrentLevels().integratedLUFS, 0.0f);
}

TEST_F(TavroLoudnessTest, MeterOnAPlayingStreamReadsWhileItRenders) {
    auto stream = TavroStream::streamWithSource(file("play.wav", segments({{-23, 5}})), TavroSourceFlagFloat);
    ASSERT_TRUE(stream);
    auto meter = TavroLoudness::initWithStream(stream);
    ASSERT_TRUE(meter->startMeasuringIntegrated(true, true, true));
    ASSERT_TRUE(stream->play(false));
    EXPECT_TRUE(waitFor([&] { return std::fabs(meter->readCurrentLevels().momentaryLUFS + 23.0f) < 0.2f; },
                        std::chrono::milliseconds(3000)));
    meter.reset(); // stops the measurement while the renderer runs
    stream->stop();
}

TEST_F(TavroLoudnessTest, MonitoringDeliversOnTheMainQueueWhileRunning) {
    auto stream = decoder(file("mon.wav", segments({{-23, 5}})));
    ASSERT_TRUE(stream);
    auto meter = TavroLoudness::initWithStream(stream);
    int calls = 0;
    bool onMain = true;
    meter->startMonitoringWithInterval(0.05, [&](const TavroLoudnessLevels&) {
        ++calls;
        onMain = onMain && TavroMainQueue::isMainThread();
    });
    ASSERT_TRUE(meter->monitorTimer());
    EXPECT_EQ(meter->monitorTimer()->periodNs(), 50'000'000u);
    EXPECT_EQ(meter->monitorTimer()->leewayNs(), 5'000'000u);
    TavroMainQueue::runFor(200ms);
    EXPECT_EQ(calls, 0) << "nothing is delivered while idle";

    ASSERT_TRUE(meter->startMeasuringIntegrated(true, false, false));
    ASSERT_TRUE(TavroMainQueue::runUntil([&] { return calls >= 2; }, 2s));
    EXPECT_TRUE(onMain);

    meter->startMonitoringWithInterval(0.05, nullptr);
    EXPECT_FALSE(meter->monitorTimer());
    const int before = calls;
    TavroMainQueue::runFor(150ms);
    EXPECT_EQ(calls, before);
}

TEST_F(TavroLoudnessTest, ScanHasAFloorAndReadsTheSecondsAsked) {
    EXPECT_TRUE(std::isnan(TavroLoudness::scanIntegratedLoudnessForSource(nullptr, 10)));
    EXPECT_TRUE(std::isnan(
        TavroLoudness::scanIntegratedLoudnessForSource(file("silence.wav", segments({{-200, 3}})))));

    // 10 s at -33 dBFS then 20 s at -20: the first ten seconds alone read -33.
    auto two = file("two.wav", segments({{-33, 10}, {-20, 20}}));
    EXPECT_NEAR(TavroLoudness::scanIntegratedLoudnessForSource(two, 10), -33.0, 0.1);
    EXPECT_GT(TavroLoudness::scanIntegratedLoudnessForSource(two, 0), -22.0);
    EXPECT_GT(TavroLoudness::scanIntegratedLoudnessForSource(two, -1), -22.0);
    EXPECT_GT(TavroLoudness::scanIntegratedLoudnessForSource(two, 1e-6), -22.0);
}

TEST_F(TavroLoudnessTest, ScanAgreesWithFfmpegOnAMusicLikeSignal) {
    // Two minutes of chords over noise with level changes every few seconds,
    // at 44.1 kHz: nothing like a steady sine.
    constexpr unsigned rate = 44100;
    std::vector<float> pcm(120 * rate * 2);
    uint32_t seed = 7;
    for (size_t i = 0; i < pcm.size() / 2; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double level = 0.05 + 0.25 * (0.5 + 0.5 * std::sin(2 * M_PI * t / 7.3)) *
                                        ((i / (3 * rate)) % 4 == 3 ? 0.2 : 1.0);
        seed = seed * 1664525u + 1013904223u;
        const double noise = (static_cast<double>(seed >> 9) / 8388608.0 - 0.5) * 0.3;
        const double chord = std::sin(2 * M_PI * 220 * t) + 0.6 * std::sin(2 * M_PI * 277.2 * t) +
                             0.4 * std::sin(2 * M_PI * 3300 * t);
        pcm[2 * i] = static_cast<float>(level * (chord * 0.4 + noise));
        pcm[2 * i + 1] = static_cast<float>(level * (chord * 0.3 - noise));
    }
    const std::string path = media_->path("music.wav");
    writeWav16(path, pcm, rate, 2);
    const double ours = TavroLoudness::scanIntegratedLoudnessForSource(
        TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path)));

    const std::string out =
        runCommand("ffmpeg -nostdin -nostats -hide_banner -i '" + path + "' -af ebur128 -f null - 2>&1");
    // The summary's "I:   -21.5 LUFS" line.
    const std::string summary =
        out.substr(out.rfind("Summary:") == std::string::npos ? 0 : out.rfind("Summary:"));
    const size_t label = summary.find("I:");
    ASSERT_NE(label, std::string::npos) << out.substr(0, 500);
    const double reference = std::strtod(summary.c_str() + label + 2, nullptr);
    ASSERT_NE(summary.find("LUFS", label), std::string::npos);
    std::printf("[ loudness ] integrated: ours %.2f LUFS, ffmpeg ebur128 %.1f LUFS\n", ours, reference);
    EXPECT_NEAR(ours, reference, 0.2);
}
