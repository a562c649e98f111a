/// @file
/// A fixed gain in dB.
///
/// Threading: the node contract of TavroDSPNode; gainDB is read once per block.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPGain final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPGain> init() { return std::make_shared<TavroDSPGain>(); }
    TavroDSPGain() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindGain; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float gainDB() const { return gainDB_.get(); }
    void setGainDB(float db) { gainDB_.set(db); }

  private:
    TavroDSPParam<float> gainDB_{0.0f};
};
