#include <tavro/dsp/TavroDSPGain.hpp>

#include <cmath>

void TavroDSPGain::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels, uint64_t) {
    if (!enabled()) return;
    const float g = static_cast<float>(std::pow(10.0, static_cast<double>(gainDB_.get()) / 20.0));
    const uint64_t n = frames * channels;
    for (uint64_t i = 0; i < n; ++i)
        samples[i] *= g;
}

std::shared_ptr<TavroDSPNode> TavroDSPGain::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setGainDB(gainDB());
    return node;
}
