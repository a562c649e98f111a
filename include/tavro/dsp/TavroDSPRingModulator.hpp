/// @file
/// Multiplication by a sine carrier, mixed with the dry signal. All channels
/// share one carrier, whose phase runs on across blocks.
///
/// Threading: the node contract of TavroDSPNode; carrierFrequency is read once
/// per block and mix once per sample.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPRingModulator final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPRingModulator> init() { return std::make_shared<TavroDSPRingModulator>(); }
    TavroDSPRingModulator() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindRingModulator; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float carrierFrequency() const { return carrierFrequency_.get(); }
    void setCarrierFrequency(float hz) { carrierFrequency_.set(hz); }
    float mix() const { return mix_.get(); }
    void setMix(float mix) { mix_.set(mix); }
    double phase() const { return phase_; }

  private:
    TavroDSPParam<float> carrierFrequency_{440.0f};
    TavroDSPParam<float> mix_{0.5f};
    double phase_ = 0;
};
