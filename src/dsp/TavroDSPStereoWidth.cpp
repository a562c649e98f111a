#include <tavro/dsp/TavroDSPStereoWidth.hpp>

void TavroDSPStereoWidth::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                                  uint64_t) {
    // Mid and side only mean something for a pair; surround layouts pass.
    if (!enabled() || channels != 2) return;
    const float w = width_.get();
    for (uint64_t i = 0; i < frames; ++i) {
        const float l = samples[2 * i], r = samples[2 * i + 1];
        const float mid = (l + r) * 0.5f;
        const float side = w * ((l - r) * 0.5f);
        samples[2 * i] = mid + side;
        samples[2 * i + 1] = mid - side;
    }
}

std::shared_ptr<TavroDSPNode> TavroDSPStereoWidth::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setWidth(width());
    return node;
}
