#include <tavro/dsp/TavroDSPRingModulator.hpp>

#include <tavro/dsp/TavroDSPMath.hpp>

#include <algorithm>

void TavroDSPRingModulator::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                                    uint64_t sampleRate) {
    if (!enabled()) return;
    const double f = carrierFrequency_.get();
    if (frames == 0) return;
    const double inc = f * TavroDSPMath::kTwoPi / static_cast<double>(sampleRate);
    // The carrier is worked out a chunk of frames at a time, so that its sines
    // vectorise; the first frame of a new node uses sin 0.
    constexpr uint64_t kChunk = 64;
    double carrier[kChunk];
    for (uint64_t at = 0; at < frames; at += kChunk) {
        const uint64_t n = std::min(kChunk, frames - at);
        phase_ = TavroDSPMath::oscillate(phase_, inc, carrier, n);
        for (uint64_t i = 0; i < n; ++i) {
            const auto m = static_cast<float>(carrier[i]);
            float* frame = samples + (at + i) * channels;
            for (uint64_t ch = 0; ch < channels; ++ch) {
                const float mix = mix_.get();
                const float x = frame[ch];
                frame[ch] = x * (1.0f - mix) + (x * m) * mix;
            }
        }
    }
}

std::shared_ptr<TavroDSPNode> TavroDSPRingModulator::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setCarrierFrequency(carrierFrequency());
    node->setMix(mix());
    return node;
}
