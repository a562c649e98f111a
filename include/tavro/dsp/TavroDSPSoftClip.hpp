/// @file
/// Hyperbolic-tangent saturation after a drive gain in dB. The output is not
/// rescaled: the curve saturates at +-1.
///
/// Threading: the node contract of TavroDSPNode; driveDB is read once per
/// block.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPSoftClip final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPSoftClip> init() { return std::make_shared<TavroDSPSoftClip>(); }
    TavroDSPSoftClip() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindSoftClip; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float driveDB() const { return driveDB_.get(); }
    void setDriveDB(float db) { driveDB_.set(db); }

  private:
    TavroDSPParam<float> driveDB_{6.0f};
};
