// The analyser on real streams: spectrum bins, channel-averaged waveforms,
// peak and RMS levels, snapshots, and monitoring on the main queue.
#include "MediaFixtures.hpp"
#include "PlatformFixture.hpp"

#include <tavro/analysis/TavroAnalyzer.hpp>
#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/sources/TavroFileSource.hpp>

#include <algorithm>

using namespace tavro::test;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kRate = 44100;

class TavroAnalyzerTest : public MediaTest {
  protected:

    static std::shared_ptr<TavroStream> stream(const std::string& name, const std::vector<float>& pcm, unsigned chans,
                                               TavroSourceFlags flags) {
        const std::string path = media_->path(name);
        writeFloatWav(path, pcm, kRate, chans);
        auto source = TavroFileSource::initWithFileURL(TavroURL::fileURLWithPath(path));
        return TavroStream::streamWithSource(source, flags | TavroSourceFlagFloat);
    }
    static std::shared_ptr<TavroStream> playing(const std::string& name, const std::vector<float>& pcm) {
        auto s = stream(name, pcm, 2, 0);
        if (s && s->play(false)) waitFor([&] { return s->position() > 0.3; }, 3000ms);
        return s;
    }

};

// One playing -6 dBFS 1 kHz sine: its spectrum, levels and snapshots.
TEST_F(TavroAnalyzerTest, SpectrumLevelsAndSnapshotOfAMinusSixDbSine) {
    const float amp = std::pow(10.0f, -6.0f / 20.0f);
    auto s = playing("minus6.wav", sine(1000, kRate, kRate * 4, 2, amp));
    ASSERT_TRUE(s);
    auto analyzer = TavroAnalyzer::initWithStream(s);
    const auto spectrum = analyzer->spectrumWithSize(1024);
    ASSERT_EQ(spectrum.size(), 512u);
    const auto peak = static_cast<size_t>(std::max_element(spectrum.begin(), spectrum.end()) - spectrum.begin());
    EXPECT_EQ(peak, 23u); // 1000 Hz / (44100 Hz / 1024) = 23.2
    EXPECT_GT(spectrum[23], 0.3f);

    std::vector<float> buffer(4096, -1.0f);
    EXPECT_EQ(analyzer->readSpectrum(buffer.data(), 8192), 4096u);
    EXPECT_EQ(analyzer->readSpectrum(buffer.data(), 1000), 0u);
    EXPECT_EQ(analyzer->readSpectrum(nullptr, 1024), 0u);
    EXPECT_TRUE(analyzer->spectrumWithSize(3000).empty());
    EXPECT_TRUE(analyzer->spectrumWithSize(16384).empty());

    float pl = 0, pr = 0, rl = 0, rr = 0;
    ASSERT_TRUE(analyzer->readPeakLeft(&pl, &pr, &rl, &rr));
    EXPECT_NEAR(pl, 0.501f, 0.01f);
    EXPECT_NEAR(pr, 0.501f, 0.01f);
    EXPECT_NEAR(rl, 0.354f, 0.01f);
    EXPECT_NEAR(rr, 0.354f, 0.01f);
    EXPECT_TRUE(analyzer->readPeakLeft(nullptr, nullptr, &rl, nullptr));

    const auto frame = analyzer->captureWithFFTSize(2048, 0);
    EXPECT_EQ(frame->spectrum().size(), 1024u);
    EXPECT_TRUE(frame->waveform().empty());
    EXPECT_NEAR(frame->peakLeft(), 0.501f, 0.01f);
    EXPECT_NEAR(frame->rmsRight(), 0.354f, 0.01f);
    EXPECT_EQ(analyzer->captureWithFFTSize(256, 64)->waveform().size(), 32u);
}

TEST_F(TavroAnalyzerTest, WaveformAveragesTheChannelsOfEachFrame) {
    std::vector<float> pcm(2 * 4096);
    for (size_t i = 0; i < 4096; ++i) {
        pcm[2 * i] = static_cast<float>(i % 100) / 100.0f;
        pcm[2 * i + 1] = -0.25f;
    }
    auto s = stream("ramp.wav", pcm, 2, TavroSourceFlagDecode);
    ASSERT_TRUE(s);
    auto analyzer = TavroAnalyzer::initWithStream(s);
    const auto wave = analyzer->waveformWithSampleCount(1024);
    ASSERT_EQ(wave.size(), 512u);
    for (size_t i = 0; i < wave.size(); ++i) ASSERT_FLOAT_EQ(wave[i], (pcm[2 * i] + pcm[2 * i + 1]) / 2) << i;
    // An odd count drops the trailing half frame.
    EXPECT_EQ(analyzer->waveformWithSampleCount(7).size(), 3u);

    std::vector<float> frames(2 * 100);
    uint64_t channels = 0;
    EXPECT_EQ(analyzer->readWaveformFloats(frames.data(), 100, &channels), 100u);
    EXPECT_EQ(channels, 2u);
    EXPECT_FLOAT_EQ(frames[0], pcm[2 * 515]); // 512 + 3 frames were read before
    EXPECT_EQ(analyzer->readWaveformFloats(frames.data(), 0, &channels), 0u);

    auto mono = stream("mono.wav", std::vector<float>(4096, 0.5f), 1, TavroSourceFlagDecode);
    auto monoAnalyzer = TavroAnalyzer::initWithStream(mono);
    const auto monoWave = monoAnalyzer->waveformWithSampleCount(1024);
    EXPECT_EQ(monoWave.size(), 1024u);
    EXPECT_FLOAT_EQ(monoWave.front(), 0.5f);
    EXPECT_EQ(monoAnalyzer->readWaveformFloats(frames.data(), 10, &channels), 10u);
    EXPECT_EQ(channels, 1u);
}

TEST_F(TavroAnalyzerTest, GoneStreamReadsEmptyAndZero) {
    auto s = stream("gone.wav", std::vector<float>(8192, 0.5f), 2, TavroSourceFlagDecode);
    auto analyzer = TavroAnalyzer::initWithStream(s);
    s->free();
    EXPECT_TRUE(analyzer->spectrumWithSize(1024).empty());
    EXPECT_TRUE(analyzer->waveformWithSampleCount(1024).empty());
    float pl = 7;
    EXPECT_FALSE(analyzer->readPeakLeft(&pl, nullptr, nullptr, nullptr));
    EXPECT_EQ(pl, 7.0f); // nothing written
    s.reset();
    uint64_t channels = 0;
    float buf[4];
    EXPECT_EQ(analyzer->readWaveformFloats(buf, 2, &channels), 0u);
    EXPECT_EQ(channels, 1u);
    const auto frame = analyzer->captureWithFFTSize(2048, 512);
    EXPECT_TRUE(frame->spectrum().empty());
    EXPECT_TRUE(frame->waveform().empty());
    EXPECT_EQ(frame->peakLeft(), 0.0f);
}

TEST_F(TavroAnalyzerTest, MonitoringDeliversOnTheMainQueueAtItsInterval) {
    auto s = playing("monitor.wav", sine(440, kRate, kRate * 6, 2, 0.5f));
    ASSERT_TRUE(s);
    auto analyzer = TavroAnalyzer::initWithStream(s);
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    bool onMain = true;
    size_t bins = 0;
    const auto start = std::chrono::steady_clock::now();
    analyzer->startMonitoringWithInterval(0.05, 512, 0, [&](const std::shared_ptr<TavroAnalysisFrame>& f) {
        arrivals.push_back(std::chrono::steady_clock::now());
        onMain = onMain && TavroMainQueue::isMainThread();
        bins = f->spectrum().size();
    });
    EXPECT_TRUE(analyzer->monitoring());
    TavroMainQueue::runFor(530ms);
    ASSERT_GE(arrivals.size(), 8u);
    EXPECT_LE(arrivals.size(), 11u);
    EXPECT_GE(arrivals.front() - start, 50ms);
    EXPECT_TRUE(onMain);
    EXPECT_EQ(bins, 256u);

    // An interval of 0 stops the running monitor; destruction stops it too.
    analyzer->startMonitoringWithInterval(0, 512, 0, [&](const auto&) { arrivals.push_back({}); });
    EXPECT_FALSE(analyzer->monitoring());
    const size_t before = arrivals.size();
    TavroMainQueue::runFor(150ms);
    EXPECT_EQ(arrivals.size(), before);
    analyzer->startMonitoringWithInterval(0.02, 256, 0, [&](const auto&) { arrivals.push_back({}); });
    analyzer.reset();
    TavroMainQueue::runFor(100ms);
    EXPECT_EQ(arrivals.size(), before);
}

} // namespace
