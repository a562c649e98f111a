#include <tavro/analysis/TavroAnalyzer.hpp>

#include <bass.h>

#include <algorithm>
#include <memory>
#include <new>

namespace {

// The platform's FFT request for a size, or 0 for a size it has no flag for.
DWORD fftFlagFor(uint64_t fftSize) {
    switch (fftSize) {
    case 256: return BASS_DATA_FFT256;
    case 512: return BASS_DATA_FFT512;
    case 1024: return BASS_DATA_FFT1024;
    case 2048: return BASS_DATA_FFT2048;
    case 4096: return BASS_DATA_FFT4096;
    case 8192: return BASS_DATA_FFT8192;
    default: return 0;
    }
}

// Sample requests carry their byte count below the flag bits; larger ones
// cannot be expressed.
constexpr uint64_t kMaxRequestBytes = uint64_t(1) << 30;
constexpr DWORD kFailed = 0xFFFFFFFF;

} // namespace

std::shared_ptr<TavroAnalyzer> TavroAnalyzer::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroAnalyzer> analyzer(new TavroAnalyzer());
    analyzer->stream_ = stream;
    return analyzer;
}

TavroAnalyzer::~TavroAnalyzer() {
    stopMonitoring();
}

uint32_t TavroAnalyzer::handle() const {
    const auto s = stream_.lock();
    return s ? s->handle() : 0;
}

uint64_t TavroAnalyzer::readSpectrum(float* buffer, uint64_t fftSize) {
    const uint32_t h = handle();
    if (!buffer || h == 0) return 0;
    const DWORD flag = fftFlagFor(fftSize);
    if (flag == 0) return 0;
    if (BASS_ChannelGetData(h, buffer, flag) == kFailed) return 0;
    return fftSize / 2;
}

uint64_t TavroAnalyzer::readWaveformFloats(float* buffer, uint64_t maxFrames, uint64_t* channels) {
    const auto s = stream_.lock();
    const uint64_t count = s ? s->channelCount() : 0;
    const uint64_t chans = count < 2 ? 1 : count;
    if (channels) *channels = chans;
    const uint32_t h = s ? s->handle() : 0;
    if (!buffer || maxFrames == 0 || h == 0) return 0;
    if (maxFrames >= kMaxRequestBytes / (chans * 4)) return 0;
    const auto bytes = static_cast<DWORD>(chans * maxFrames * 4);
    const DWORD got = BASS_ChannelGetData(h, buffer, bytes | BASS_DATA_FLOAT);
    if (got == kFailed) return 0;
    return (got / 4) / chans;
}

std::vector<float> TavroAnalyzer::spectrumWithSize(uint64_t fftSize) {
    if (fftFlagFor(fftSize) == 0) return {};
    std::vector<float> values;
    try {
        values.assign(fftSize / 2, 0.0f);
    } catch (const std::bad_alloc&) {
        return {};
    }
    values.resize(readSpectrum(values.data(), fftSize));
    return values;
}

std::vector<float> TavroAnalyzer::waveformWithSampleCount(uint64_t sampleCount) {
    const auto s = stream_.lock();
    const uint32_t h = s ? s->handle() : 0;
    if (sampleCount == 0 || h == 0 || sampleCount >= kMaxRequestBytes / 4) return {};
    std::unique_ptr<float[]> samples(new (std::nothrow) float[sampleCount]);
    if (!samples) return {};
    const DWORD got = BASS_ChannelGetData(h, samples.get(), static_cast<DWORD>(sampleCount * 4) | BASS_DATA_FLOAT);
    if (got == kFailed) return {};
    const uint64_t n = got / 4;
    const uint64_t c = std::max<uint64_t>(1, s->channelCount());
    std::vector<float> frames;
    frames.reserve(n / c);
    for (uint64_t f = 0; f + c <= n; f += c) {
        float sum = 0;
        for (uint64_t i = 0; i < c; ++i) sum += samples[f + i];
        frames.push_back(sum / static_cast<float>(c));
    }
    return frames;
}

bool TavroAnalyzer::readPeakLeft(float* peakLeft, float* peakRight, float* rmsLeft, float* rmsRight) {
    const uint32_t h = handle();
    if (h == 0) return false;
    float peaks[2] = {0, 0};
    float rms[2] = {0, 0};
    const bool peakOk = BASS_ChannelGetLevelEx(h, peaks, 0.05f, BASS_LEVEL_STEREO);
    const bool rmsOk = BASS_ChannelGetLevelEx(h, rms, 0.05f, BASS_LEVEL_STEREO | BASS_LEVEL_RMS);
    if (!peakOk) peaks[0] = peaks[1] = 0;
    if (!rmsOk) rms[0] = rms[1] = 0;
    if (peakLeft) *peakLeft = peaks[0];
    if (peakRight) *peakRight = peaks[1];
    if (rmsLeft) *rmsLeft = rms[0];
    if (rmsRight) *rmsRight = rms[1];
    return peakOk || rmsOk;
}

std::shared_ptr<TavroAnalysisFrame> TavroAnalyzer::captureWithFFTSize(uint64_t fftSize, uint64_t waveformSamples) {
    auto frame = std::make_shared<TavroAnalysisFrame>();
    frame->setSpectrum(spectrumWithSize(fftSize));
    if (waveformSamples != 0) frame->setWaveform(waveformWithSampleCount(waveformSamples));
    float pl = 0, pr = 0, rl = 0, rr = 0;
    readPeakLeft(&pl, &pr, &rl, &rr);
    frame->setPeakLeft(pl);
    frame->setPeakRight(pr);
    frame->setRmsLeft(rl);
    frame->setRmsRight(rr);
    return frame;
}

void TavroAnalyzer::startMonitoringWithInterval(
    double interval, uint64_t fftSize, uint64_t waveformSamples,
    std::function<void(const std::shared_ptr<TavroAnalysisFrame>&)> block) {
    stopMonitoring();
    if (!(interval > 0) || !block) return;
    monitorTimer_ = TavroTimer::createRepeating(
        interval,
        TavroBindWeak(weak_from_this(), [fftSize, waveformSamples, block = std::move(block)](TavroAnalyzer& a) {
            block(a.captureWithFFTSize(fftSize, waveformSamples));
        }));
    monitorTimer_->start();
}

void TavroAnalyzer::stopMonitoring() {
    if (!monitorTimer_) return;
    monitorTimer_->cancel();
    monitorTimer_.reset();
}
