/// @file
/// Amplitude modulation by a sine oscillator: the gain swings between
/// 1 - depth and 1, all channels sharing the oscillator.
///
/// Threading: the node contract of TavroDSPNode; rate is read once per block,
/// depth once per frame. The phase belongs to the audio thread.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPTremolo final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPTremolo> init() { return std::make_shared<TavroDSPTremolo>(); }
    TavroDSPTremolo() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindTremolo; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float rate() const { return rate_.get(); }
    void setRate(float hz) { rate_.set(hz); }
    float depth() const { return depth_.get(); }
    void setDepth(float depth) { depth_.set(depth); }
    double phase() const { return phase_; }

  private:
    TavroDSPParam<float> rate_{5.0f};
    TavroDSPParam<float> depth_{0.5f};
    double phase_ = 0;
};
