#include <tavro/dsp/TavroDSPSoftClip.hpp>

#include <tavro/dsp/TavroDSPMath.hpp>

#include <cmath>

void TavroDSPSoftClip::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels, uint64_t) {
    if (!enabled()) return;
    const float d = static_cast<float>(std::pow(10.0, static_cast<double>(driveDB_.get()) / 20.0));
    const uint64_t n = frames * channels;
    for (uint64_t i = 0; i < n; ++i)
        samples[i] = static_cast<float>(TavroDSPMath::hyperbolicTangent(samples[i] * d));
}

std::shared_ptr<TavroDSPNode> TavroDSPSoftClip::copy() const {
    auto node = init();
    node->setEnabled(enabled());
    node->setDriveDB(driveDB());
    return node;
}
