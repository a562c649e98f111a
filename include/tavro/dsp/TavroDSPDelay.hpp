/// @file
/// A feedback delay (echo) with a dry/wet mix. The echo of a frame arrives
/// L - 1 frames later, L being the ring length in frames (1 frame when L is 1).
///
/// Delay times are limited to kMaxDelaySeconds where they are used. A shorter
/// time that still fits the line takes effect at once; a longer one that does
/// not fit, or a change of channel count, makes a new, silent line. When that
/// memory cannot be had, the node keeps its old line (and time) if the channel
/// layout still matches, else passes blocks dry, and tries again once the time
/// or the channel count changes.
///
/// Threading: the node contract of TavroDSPNode; delaySeconds is read once per
/// block, feedback and mix once per sample. The line is made, used and freed by
/// the audio thread (the destructor frees it on whatever thread drops the last
/// reference, after the node has left every chain).
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>

class TAVRO_API TavroDSPDelay final : public TavroDSPNode {
  public:
    static constexpr double kMaxDelaySeconds = 10.0;

    static std::shared_ptr<TavroDSPDelay> init() { return std::make_shared<TavroDSPDelay>(); }
    TavroDSPDelay() = default;
    ~TavroDSPDelay() override;

    void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                 uint64_t sampleRate) override;
    TavroDSPNodeKind kind() const override { return TavroDSPNodeKindDelay; }
    std::shared_ptr<TavroDSPNode> copy() const override;

    float delaySeconds() const { return delaySeconds_.get(); }
    void setDelaySeconds(float seconds) { delaySeconds_.set(seconds); }
    float feedback() const { return feedback_.get(); }
    void setFeedback(float feedback) { feedback_.set(feedback); }
    float mix() const { return mix_.get(); }
    void setMix(float mix) { mix_.set(mix); }

    uint64_t bufSize() const { return bufSize_; }
    uint64_t bufChannels() const { return bufChannels_; }
    uint64_t writeIdx() const { return writeIdx_; }
    uint64_t delaySamples() const { return delaySamples_; }

  private:
    // False when the block must pass dry.
    bool prepareLine(uint64_t slots, uint64_t channels);

    TavroDSPParam<float> delaySeconds_{0.25f};
    TavroDSPParam<float> feedback_{0.4f};
    TavroDSPParam<float> mix_{0.35f};

    float* buf_ = nullptr;
    uint64_t bufSize_ = 0, bufChannels_ = 0, writeIdx_ = 0, delaySamples_ = 0;
    // The request that last failed to get memory, so it is not retried on
    // every block.
    uint64_t failedSize_ = 0, failedChannels_ = 0;
};
