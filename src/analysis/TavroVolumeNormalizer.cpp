#include <tavro/analysis/TavroVolumeNormalizer.hpp>

#include <bass.h>

#include <algorithm>
#include <cmath>

std::shared_ptr<TavroVolumeNormalizer>
TavroVolumeNormalizer::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroVolumeNormalizer> normalizer(new TavroVolumeNormalizer());
    normalizer->stream_ = stream;
    normalizer->ensureState();
    normalizer->attach();
    return normalizer;
}

TavroVolumeNormalizer::~TavroVolumeNormalizer() {
    detach();
    r128_normalizer_destroy(state_.exchange(nullptr, std::memory_order_acq_rel));
}

void TavroVolumeNormalizer::ensureState() {
    const auto stream = stream_.lock();
    const uint64_t channels = stream ? stream->channelCount() : 0;
    const auto rate = static_cast<double>(stream ? stream->sampleRate() : 0);
    if (channels == 0 || rate == 0) return;
    if (hasState() && stateSampleRate() == rate && stateChannels() == channels) return;

    R128NormalizerState* fresh =
        channels <= UINT32_MAX ? r128_normalizer_create(static_cast<uint32_t>(channels), kChunkFrames, rate)
                               : nullptr;
    if (fresh) {
        r128_normalizer_set_target_lufs(fresh, targetLufs_);
        r128_normalizer_set_max_boost_db(fresh, maxBoostDB_);
    }
    // Swapping under a running DSP call would free the state it is using, and
    // a new format must not meet a block of the old one half-way: with no
    // state yet the audio thread reads nothing, so only a replacement needs
    // the DSP taken off.
    const bool wasAttached = dspHandle_ != 0 && hasState();
    if (wasAttached) detach();
    stateSampleRate_.store(rate, std::memory_order_relaxed);
    stateChannels_.store(channels, std::memory_order_relaxed);
    replaceState(fresh);
    if (wasAttached) attach();
}

void TavroVolumeNormalizer::replaceState(R128NormalizerState* state) {
    r128_normalizer_destroy(state_.exchange(state, std::memory_order_acq_rel));
}

void TavroVolumeNormalizer::attach() {
    if (dspHandle_ != 0) return;
    const auto stream = stream_.lock();
    dspHandle_ = BASS_ChannelSetDSP(stream ? stream->handle() : 0, &TavroNormalizerDSP, this, 1000);
}

void TavroVolumeNormalizer::detach() {
    if (dspHandle_ == 0) return;
    const auto stream = stream_.lock();
    // Returns only once the procedure can no longer run.
    BASS_ChannelRemoveDSP(stream ? stream->handle() : 0, dspHandle_);
    dspHandle_ = 0;
}

void TavroVolumeNormalizer::setEnabled(bool enabled) {
    enabled_.store(enabled, std::memory_order_relaxed);
    if (enabled && !hasState()) ensureState();
}

void TavroVolumeNormalizer::setTargetLufs(float lufs) {
    if (!std::isfinite(lufs)) return;
    targetLufs_ = lufs;
    r128_normalizer_set_target_lufs(state_.load(std::memory_order_acquire), lufs);
}

void TavroVolumeNormalizer::setMaxBoostDB(float db) {
    if (!std::isfinite(db)) return;
    maxBoostDB_ = db;
    r128_normalizer_set_max_boost_db(state_.load(std::memory_order_acquire), db);
}

void TavroVolumeNormalizer::reset() {
    r128_normalizer_reset(state_.load(std::memory_order_acquire));
}

float TavroVolumeNormalizer::currentGain() const {
    return static_cast<float>(r128_normalizer_current_gain(state_.load(std::memory_order_acquire)));
}

void TavroVolumeNormalizer::seedGain(float gain) {
    if (!hasState()) ensureState();
    r128_normalizer_seed_gain(state_.load(std::memory_order_acquire), gain);
}

void TavroVolumeNormalizer::seedIntegratedLufs(float lufs) {
    if (!hasState()) ensureState();
    r128_normalizer_seed_integrated_lufs(state_.load(std::memory_order_acquire), lufs);
}

void TavroVolumeNormalizer::processInterleaved(float* samples, uint64_t frames, uint64_t channels) {
    if (!isEnabled() || frames == 0) return;
    R128NormalizerState* state = state_.load(std::memory_order_acquire);
    if (!state || stateChannels() != channels) return;
    for (uint64_t offset = 0; offset < frames; offset += kChunkFrames) {
        const uint64_t n = std::min(kChunkFrames, frames - offset);
        r128_normalizer_process_interleaved(state, samples + offset * channels, n);
    }
}

void TavroVolumeNormalizer::TavroNormalizerDSP(uint32_t, uint32_t channel, void* buffer, uint32_t length,
                                               void* user) {
    // The normaliser outlives every call: its destructor removes this DSP
    // first, and removal waits for a call in progress.
    auto* normalizer = static_cast<TavroVolumeNormalizer*>(user);
    BASS_CHANNELINFO info;
    if (!BASS_ChannelGetInfo(channel, &info) || info.chans == 0) return;
    normalizer->processInterleaved(static_cast<float*>(buffer), length / (info.chans * 4), info.chans);
}
