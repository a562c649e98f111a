#include <tavro/analysis/TavroLoudness.hpp>

#include <bass.h>
#include <bassloud.h>
#include <ebur128.h>

#include <cmath>
#include <limits>
#include <memory>
#include <new>

namespace {

constexpr DWORD kReadBytes = 65536;
constexpr double kFloorLufs = -70.0;

uint64_t truncatedCount(double v) {
    if (!(v >= 0.0)) return 0;
    if (v >= 18446744073709551615.0) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(v);
}

uint32_t handleOf(const std::weak_ptr<TavroStream>& stream) {
    const auto s = stream.lock();
    return s ? s->handle() : 0;
}

} // namespace

std::shared_ptr<TavroLoudness> TavroLoudness::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroLoudness> meter(new TavroLoudness());
    meter->stream_ = stream;
    return meter;
}

TavroLoudness::~TavroLoudness() {
    stop();
}

bool TavroLoudness::startMeasuringIntegrated(bool integrated, bool peak, bool truePeak) {
    return startMeasuring(integrated, false, peak, truePeak);
}

bool TavroLoudness::startMeasuring(bool integrated, bool range, bool peak, bool truePeak) {
    if (running_) return true;
    const DWORD flags = (integrated ? BASS_LOUDNESS_INTEGRATED : 0) | (range ? BASS_LOUDNESS_RANGE : 0) |
                        (peak ? BASS_LOUDNESS_PEAK : 0) | (truePeak ? BASS_LOUDNESS_TRUEPEAK : 0);
    handle_ = BASS_Loudness_Start(handleOf(stream_), flags, 0);
    running_ = handle_ != 0;
    return running_;
}

void TavroLoudness::stop() {
    stopMonitoring();
    if (handle_ != 0) {
        BASS_Loudness_Stop(handle_);
        handle_ = 0;
    }
    running_ = false;
}

TavroLoudnessLevels TavroLoudness::readCurrentLevels() const {
    TavroLoudnessLevels levels;
    if (handle_ == 0) return levels;
    float reading = 0;
    if (BASS_Loudness_GetLevel(handle_, BASS_LOUDNESS_CURRENT, &reading)) levels.momentaryLUFS = reading;
    if (BASS_Loudness_GetLevel(handle_, BASS_LOUDNESS_INTEGRATED, &reading)) levels.integratedLUFS = reading;
    if (BASS_Loudness_GetLevel(handle_, BASS_LOUDNESS_RANGE, &reading)) levels.shortTermLUFS = reading;
    if (BASS_Loudness_GetLevel(handle_, BASS_LOUDNESS_PEAK, &reading)) levels.samplePeakLeft = reading;
    if (BASS_Loudness_GetLevel(handle_, BASS_LOUDNESS_TRUEPEAK, &reading)) levels.truePeakDB = reading;
    float rms[8] = {};
    if (BASS_ChannelGetLevelEx(handleOf(stream_), rms, 0.05f, BASS_LEVEL_STEREO | BASS_LEVEL_RMS)) {
        levels.samplePeakLeft = rms[0];
        levels.samplePeakRight = rms[1];
    }
    return levels;
}

void TavroLoudness::startMonitoringWithInterval(double interval,
                                                std::function<void(const TavroLoudnessLevels&)> block) {
    stopMonitoring();
    if (!block) return;
    monitorTimer_ = TavroTimer::createRepeating(
        interval, TavroBindWeak(weak_from_this(), [block = std::move(block)](TavroLoudness& m) {
            if (m.running_) block(m.readCurrentLevels());
        }));
    monitorTimer_->start();
}

void TavroLoudness::stopMonitoring() {
    if (!monitorTimer_) return;
    monitorTimer_->cancel();
    monitorTimer_.reset();
}

double TavroLoudness::scanIntegratedLoudnessForSource(const std::shared_ptr<TavroSource>& source) {
    return scanIntegratedLoudnessForSource(source, 0);
}

double TavroLoudness::scanIntegratedLoudnessForSource(const std::shared_ptr<TavroSource>& source,
                                                      double maxDuration) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    if (!source) return kNaN;
    TavroError ignored;
    const auto stream =
        TavroStream::streamWithSource(source, TavroSourceFlagDecode | TavroSourceFlagFloat, &ignored);
    if (!stream || stream->handle() == 0) return kNaN;
    const uint32_t handle = stream->handle();
    BASS_CHANNELINFO info;
    if (!BASS_ChannelGetInfo(handle, &info) || info.chans == 0 || info.freq == 0) {
        stream->free();
        return kNaN;
    }
    ebur128_state* state = ebur128_init(info.chans, info.freq, EBUR128_MODE_I);
    if (!state) {
        stream->free();
        return kNaN;
    }
    std::unique_ptr<float[]> buffer(new (std::nothrow) float[kReadBytes / sizeof(float)]);
    if (!buffer) {
        ebur128_destroy(&state);
        stream->free();
        return kNaN;
    }

    uint64_t total = 0;
    const uint64_t limit = truncatedCount(static_cast<double>(info.freq) * maxDuration);
    const DWORD frameBytes = info.chans * 4;
    for (DWORD got = BASS_ChannelGetData(handle, buffer.get(), kReadBytes | BASS_DATA_FLOAT);
         got != 0 && got != 0xFFFFFFFF;
         got = BASS_ChannelGetData(handle, buffer.get(), kReadBytes | BASS_DATA_FLOAT)) {
        if (got < frameBytes) continue;
        const DWORD frames = got / frameBytes;
        ebur128_add_frames_float(state, buffer.get(), frames);
        total += frames;
        if (maxDuration > 0 && limit >= 1 && total >= limit) break;
    }

    double result = kNaN;
    if (ebur128_loudness_global(state, &result) != EBUR128_SUCCESS) result = kNaN;
    buffer.reset();
    ebur128_destroy(&state);
    stream->free();
    return std::isfinite(result) && result > kFloorLufs ? result : kNaN;
}
