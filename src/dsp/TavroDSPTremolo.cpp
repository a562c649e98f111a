#include <tavro/dsp/TavroDSPTremolo.hpp>

#include <tavro/dsp/TavroDSPMath.hpp>

#include <algorithm>

void TavroDSPTremolo::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                              uint64_t sampleRate) {
    if (!enabled() || frames == 0) return;
    const double inc =
        static_cast<double>(rate_.get()) * TavroDSPMath::kTwoPi / static_cast<double>(sampleRate);
    // One oscillator value per frame, shared by every channel, worked out a
    // chunk of frames at a time so that the sines vectorise.
    constexpr uint64_t kChunk = 64;
    double oscillator[kChunk];
    for (uint64_t at = 0; at < frames; at += kChunk) {
        const uint64_t n = std::min(kChunk, frames - at);
        phase_ = TavroDSPMath::oscillate(phase_, inc, oscillator, n);
        for (uint64_t i = 0; i < n; ++i) {
            const double depth = depth_.get();
            const auto g = static_cast<float>((1.0 - depth) + depth * 0.5 * (oscillator[i] + 1.0));
            float* frame = samples + (at + i) * channels;
            for (uint64_t ch = 0; ch < channels; ++ch)
                frame[ch] *= g;
        }
    }
}

std::shared_ptr<TavroDSPNode> TavroDSPTremolo::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setRate(rate());
    node->setDepth(depth());
    return node;
}
