/// @file
/// Second-order IIR filter nodes on cookbook coefficients, one filter memory
/// per channel. The subclasses fix the filter type and differ in kind() alone.
///
/// Threading: the node contract of TavroDSPNode. cutoff, resonance and gainDB
/// are read once per block. ensureChannels, computeCoefficientsForSampleRate
/// and the state read-outs (coefficients, computed values, zChannels) belong to
/// the audio thread; read them elsewhere only while no block runs.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

#include <cstdint>
#include <memory>

class TAVRO_API TavroDSPBiquad : public TavroDSPNode {
  public:
    static std::shared_ptr<TavroDSPBiquad> init();
    TavroDSPBiquad() = default;
    ~TavroDSPBiquad() override;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindLowPass; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float cutoff() const { return cutoff_.get(); }
    void setCutoff(float hz) { cutoff_.set(hz); }
    float resonance() const { return resonance_.get(); }
    void setResonance(float q) { resonance_.set(q); }
    float gainDB() const { return gainDB_.get(); }
    void setGainDB(float db) { gainDB_.set(db); }

    /// False only when the memory for an unusually wide block could not be
    /// had; the node then leaves blocks unchanged.
    bool ensureChannels(uint64_t channels);
    void computeCoefficientsForSampleRate(double sampleRate);

    double b0() const { return b0_; }
    double b1() const { return b1_; }
    double b2() const { return b2_; }
    double a1() const { return a1_; }
    double a2() const { return a2_; }
    uint64_t zChannels() const { return zChannels_; }
    double computedSR() const { return computedSR_; }
    double computedCutoff() const { return computedCutoff_; }
    double computedQ() const { return computedQ_; }
    double computedGain() const { return computedGain_; }

  protected:
    // A node of the concrete class with its defaults, for copy().
    virtual std::shared_ptr<TavroDSPBiquad> makeFresh() const;

  private:
    // Memory for up to this many channels lives inside the node, so that the
    // usual layouts (mono to 7.1) never allocate on the audio thread.
    static constexpr uint64_t kInlineChannels = 8;

    TavroDSPParam<float> cutoff_{1000.0f};
    TavroDSPParam<float> resonance_{0.707f};
    TavroDSPParam<float> gainDB_{0.0f};

    double b0_ = 0, b1_ = 0, b2_ = 0, a1_ = 0, a2_ = 0;
    double computedSR_ = 0, computedCutoff_ = 0, computedQ_ = 0, computedGain_ = 0;
    double inlineZ_[2 * kInlineChannels] = {};
    double* heapZ_ = nullptr;
    double* z1_ = nullptr;
    double* z2_ = nullptr;
    uint64_t zChannels_ = 0;
};

class TAVRO_API TavroDSPLowPass final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPLowPass> init() { return std::make_shared<TavroDSPLowPass>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindLowPass; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

class TAVRO_API TavroDSPHighPass final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPHighPass> init() { return std::make_shared<TavroDSPHighPass>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindHighPass; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

// Constant 0 dB peak gain.
class TAVRO_API TavroDSPBandPass final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPBandPass> init() { return std::make_shared<TavroDSPBandPass>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindBandPass; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

class TAVRO_API TavroDSPNotch final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPNotch> init() { return std::make_shared<TavroDSPNotch>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindNotch; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

class TAVRO_API TavroDSPLowShelf final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPLowShelf> init() { return std::make_shared<TavroDSPLowShelf>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindLowShelf; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

class TAVRO_API TavroDSPHighShelf final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPHighShelf> init() { return std::make_shared<TavroDSPHighShelf>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindHighShelf; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};

class TAVRO_API TavroDSPPeaking final : public TavroDSPBiquad {
  public:
    static std::shared_ptr<TavroDSPPeaking> init() { return std::make_shared<TavroDSPPeaking>(); }
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindPeaking; }

  protected:
    std::shared_ptr<TavroDSPBiquad> makeFresh() const override { return init(); }
};
