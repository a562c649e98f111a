/// @file
/// Mid/side width of a stereo pair: 1 leaves it, 0 folds it to mono, above 1
/// widens, negative values mirror it. Blocks of any other channel count pass.
///
/// Threading: the node contract of TavroDSPNode; width is read once per block.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPStereoWidth final : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPStereoWidth> init() { return std::make_shared<TavroDSPStereoWidth>(); }
    TavroDSPStereoWidth() = default;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindStereoWidth; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float width() const { return width_.get(); }
    void setWidth(float width) { width_.set(width); }

  private:
    TavroDSPParam<float> width_{1.0f};
};
