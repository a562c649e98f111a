/// @file
/// The effects of one stream: installs, updates and removes the platform's
/// effects on the stream's top channel and sets its tempo, pitch, reverse and
/// replay-gain attributes.
///
/// Threading: not locked; use it from the thread that owns the stream
/// (normally the main thread). The platform hands parameter changes to the
/// mixing thread itself, so no call here waits on audio work.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/effects/TavroBFXEffectParams.hpp>
#include <tavro/effects/TavroEffectParams.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

class TAVRO_API TavroEffects : public std::enable_shared_from_this<TavroEffects> {
  public:
    static std::shared_ptr<TavroEffects> initWithStream(const std::shared_ptr<TavroStream>& stream);

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    void setStream(std::weak_ptr<TavroStream> stream) { stream_ = std::move(stream); }
    /// Key: effect type of a single-instance effect, or 107 + k for band k of
    /// the parametric EQ. Value: the effect's handle.
    const std::map<uint32_t, uint32_t>& fxHandles() const { return fxHandles_; }
    /// The graphic EQ's bands, in band order.
    const std::vector<uint32_t>& bfxHandles() const { return bfxHandles_; }
    float pitchSemitones() const { return pitchSemitones_; }
    void setPitchSemitones(float v) { pitchSemitones_ = v; }
    float speedRatio() const { return speedRatio_; }
    void setSpeedRatio(float v) { speedRatio_ = v; }
    bool reverseEnabled() const { return reverseEnabled_; }
    void setReverseEnabled(bool v) { reverseEnabled_ = v; }
    bool bypassed() const { return bypassed_; }
    void setBypassed(bool v) { bypassed_ = v; }

    /// @name Single-instance effects
    /// A record installs or updates, null removes.
    /// @{
    bool setChorus(const TavroChorusParams* params);
    bool setCompressor(const TavroCompressorParams* params);
    bool setDistortion(const TavroDistortionParams* params);
    bool setEcho(const TavroEchoParams* params);
    bool setFlanger(const TavroFlangerParams* params);
    bool setReverb(const TavroReverbParams* params);
    bool setRotate(const TavroRotateParams* params);
    bool setDynamicAmp(const TavroDampParams* params);
    bool setAutoWah(const TavroAutoWahParams* params);
    bool setPhaser(const TavroPhaserParams* params);
    bool setBFXChorus(const TavroBFXChorusParams* params);
    bool setCompressor2(const TavroCompressor2Params* params);
    bool setVolumeEnvelope(const std::vector<TavroVolumeEnvelopeNode>& nodes, bool follow);
    bool setBiquad(const TavroBiquadParams* params);
    bool setEcho4(const TavroEcho4Params* params);
    bool setFreeverb(const TavroFreeverbParams* params);
    /// @}

    bool setParametricEQ(const std::vector<TavroParamEQBand>& bands);
    bool applyTenBandEQ(const std::vector<double>& gains);
    bool applyGraphicEQ(const std::vector<TavroGraphicEQBand>& bands);

    bool applyPitchSemitones(float semitones);
    bool applySpeedRatio(float ratio);
    bool applyReverseEnabled(bool enabled);
    bool applyReplayGain(const TavroReplayGainParams* params);

    bool setTempoOption(uint32_t option, float value);
    bool setTempoUseAntiAliasFilter(bool use);
    bool setTempoAntiAliasFilterLength(uint64_t length);
    bool setTempoUseQuickAlgorithm(bool use);
    bool setTempoSequenceMS(uint64_t ms);
    bool setTempoSeekWindowMS(uint64_t ms);
    bool setTempoOverlapMS(uint64_t ms);
    bool setTempoPreventClick(bool prevent);

    void setBypassAll(bool bypass);
    void removeAllEffects();

  private:
    // The recorded effect of `type`, installed at `priority` if there is none
    // yet; 0 on failure.
    uint32_t ensureFX(uint32_t type, int32_t priority);
    void removeFX(uint32_t type);
    uint32_t handle() const;
    bool hasFXChain() const;
    bool hasReverseChain() const;
    template <typename Record> bool setSingle(uint32_t type, const Record* params);

    std::weak_ptr<TavroStream> stream_;
    std::map<uint32_t, uint32_t> fxHandles_;
    std::vector<uint32_t> bfxHandles_;
    float pitchSemitones_ = 0;
    float speedRatio_ = 1.0f;
    bool reverseEnabled_ = false;
    bool bypassed_ = false;
};
