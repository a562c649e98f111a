/// @file
/// Amplitude quantisation to bitDepth bits over -1..+1, with sample-and-hold
/// rate reduction: one captured frame is held for round(1 / ratio) frames, the
/// hold running on across blocks. Channels from the ninth on pass unchanged.
///
/// Threading: the node contract of TavroDSPNode; both parameters are read once
/// per block. The hold state belongs to the audio thread.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPBitCrusher final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPBitCrusher> init() { return std::make_shared<TavroDSPBitCrusher>(); }
    TavroDSPBitCrusher() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindBitCrusher; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    int32_t bitDepth() const { return bitDepth_.get(); }
    void setBitDepth(int32_t bits) { bitDepth_.set(bits); }
    float sampleRateReductionRatio() const { return ratio_.get(); }
    void setSampleRateReductionRatio(float ratio) { ratio_.set(ratio); }

    /// @name Hold and quantiser step
    /// Frames each captured sample is held for, and the quantiser step, for the current parameters.
    /// @{
    uint64_t holdFrames() const;
    float quantiserStep() const;
    /// @}
    uint64_t holdCount() const { return holdCount_; }

  private:
    static constexpr uint64_t kHeldChannels = 8;

    TavroDSPParam<int32_t> bitDepth_{8};
    TavroDSPParam<float> ratio_{0.5f};
    float hold_[kHeldChannels] = {};
    uint64_t holdCount_ = 0;
};
