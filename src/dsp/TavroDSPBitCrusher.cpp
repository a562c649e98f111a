#include <tavro/dsp/TavroDSPBitCrusher.hpp>

#include <algorithm>
#include <cmath>

uint64_t TavroDSPBitCrusher::holdFrames() const {
    double r = ratio_.get();
    // A ratio that is not a number keeps the full rate, like any ratio of 2
    // or more, rather than converting NaN to a count.
    if (std::isnan(r)) return 1;
    if (r < 0.01) r = 0.01;
    const double n = std::round(1.0 / r);
    return n < 2 ? 1 : static_cast<uint64_t>(n);
}

float TavroDSPBitCrusher::quantiserStep() const {
    int32_t bits = bitDepth_.get();
    if (bits < 2) bits = 1;
    // From 31 bits on, 2^bits no longer fits the 32-bit power of two the step
    // is made from. 30 bits is already finer than a float's mantissa around
    // full scale, so deeper settings act as 30: more bits never sound worse.
    if (bits > 30) bits = 30;
    return 2.0f / static_cast<float>(int32_t{1} << bits);
}

void TavroDSPBitCrusher::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                                 uint64_t) {
    if (!enabled()) return;
    const uint64_t n = holdFrames();
    if (frames == 0) return;
    const float step = quantiserStep();
    // The step is a power of two, so multiplying by its inverse is exactly
    // the division by it.
    const float inverse = 1.0f / step;
    const uint64_t held = std::min(channels, kHeldChannels);
    uint64_t count = holdCount_;
    for (uint64_t i = 0; i < frames; ++i) {
        float* frame = samples + i * channels;
        if (count == 0) std::copy(frame, frame + held, hold_);
        for (uint64_t ch = 0; ch < held; ++ch)
            frame[ch] = step * std::round(hold_[ch] * inverse);
        // A count left from a longer hold (the ratio changed) wraps at once.
        count = count + 1 >= n ? (count + 1) % n : count + 1;
    }
    holdCount_ = count;
}

std::shared_ptr<TavroDSPNode> TavroDSPBitCrusher::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setBitDepth(bitDepth());
    node->setSampleRateReductionRatio(sampleRateReductionRatio());
    return node;
}
