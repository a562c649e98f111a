#include <tavro/effects/TavroEffects.hpp>

#include "effects/EffectRecords.hpp"

#include <array>

using namespace tavro::effects;

namespace {

constexpr uint32_t kParamEQKeyBase = 107;
constexpr int32_t kParamEQPriorityBase = 10;
// Band keys live between the DX8 type codes and the add-on's (0x10000 up).
constexpr uint32_t kParamEQKeyEnd = 0x10000;
constexpr std::array<float, 10> kTenBandCentres = {31.25f, 62.5f, 125,  250,  500,
                                                   1000,   2000,  4000, 8000, 16000};
constexpr float kTenBandOctaves = 0.8f;

} // namespace

std::shared_ptr<TavroEffects> TavroEffects::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    auto fx = std::make_shared<TavroEffects>();
    fx->stream_ = stream;
    return fx;
}

// A stream that has gone reads as handle 0, on which every platform call fails.
uint32_t TavroEffects::handle() const {
    auto s = stream_.lock();
    return s ? s->handle() : 0;
}

bool TavroEffects::hasFXChain() const {
    auto s = stream_.lock();
    return s && s->hasFXChain();
}

bool TavroEffects::hasReverseChain() const {
    auto s = stream_.lock();
    return s && s->hasReverseChain();
}

uint32_t TavroEffects::ensureFX(uint32_t type, int32_t priority) {
    if (auto it = fxHandles_.find(type); it != fxHandles_.end()) return it->second;
    const HFX fx = BASS_ChannelSetFX(handle(), type, priority);
    if (fx) fxHandles_[type] = fx;
    return fx;
}

void TavroEffects::removeFX(uint32_t type) {
    auto it = fxHandles_.find(type);
    if (it == fxHandles_.end()) return;
    BASS_ChannelRemoveFX(handle(), it->second);
    fxHandles_.erase(it);
}

template <typename Record> bool TavroEffects::setSingle(uint32_t type, const Record* params) {
    if (!params) {
        removeFX(type);
        return true;
    }
    const uint32_t fx = ensureFX(type, 0);
    if (!fx) return false;
    const auto s = toBass(*params);
    return BASS_FXSetParameters(fx, &s) != 0;
}

bool TavroEffects::setChorus(const TavroChorusParams* p) {
    return setSingle(BASS_FX_DX8_CHORUS, p);
}
bool TavroEffects::setCompressor(const TavroCompressorParams* p) {
    return setSingle(BASS_FX_DX8_COMPRESSOR, p);
}
bool TavroEffects::setDistortion(const TavroDistortionParams* p) {
    return setSingle(BASS_FX_DX8_DISTORTION, p);
}
bool TavroEffects::setEcho(const TavroEchoParams* p) {
    return setSingle(BASS_FX_DX8_ECHO, p);
}
bool TavroEffects::setFlanger(const TavroFlangerParams* p) {
    return setSingle(BASS_FX_DX8_FLANGER, p);
}
bool TavroEffects::setReverb(const TavroReverbParams* p) {
    return setSingle(BASS_FX_DX8_REVERB, p);
}
bool TavroEffects::setRotate(const TavroRotateParams* p) {
    return setSingle(BASS_FX_BFX_ROTATE, p);
}
bool TavroEffects::setDynamicAmp(const TavroDampParams* p) {
    return setSingle(BASS_FX_BFX_DAMP, p);
}
bool TavroEffects::setAutoWah(const TavroAutoWahParams* p) {
    return setSingle(BASS_FX_BFX_AUTOWAH, p);
}
bool TavroEffects::setPhaser(const TavroPhaserParams* p) {
    return setSingle(BASS_FX_BFX_PHASER, p);
}
bool TavroEffects::setBFXChorus(const TavroBFXChorusParams* p) {
    return setSingle(BASS_FX_BFX_CHORUS, p);
}
bool TavroEffects::setCompressor2(const TavroCompressor2Params* p) {
    return setSingle(BASS_FX_BFX_COMPRESSOR2, p);
}
bool TavroEffects::setBiquad(const TavroBiquadParams* p) {
    return setSingle(BASS_FX_BFX_BQF, p);
}
bool TavroEffects::setEcho4(const TavroEcho4Params* p) {
    return setSingle(BASS_FX_BFX_ECHO4, p);
}
bool TavroEffects::setFreeverb(const TavroFreeverbParams* p) {
    return setSingle(BASS_FX_BFX_FREEVERB, p);
}

bool TavroEffects::setVolumeEnvelope(const std::vector<TavroVolumeEnvelopeNode>& nodes, bool follow) {
    if (nodes.empty()) {
        removeFX(BASS_FX_BFX_VOLUME_ENV);
        return true;
    }
    const uint32_t fx = ensureFX(BASS_FX_BFX_VOLUME_ENV, 0);
    if (!fx) return false;
    // The platform copies the nodes, so the array may go right after the call.
    const auto array = toBass(nodes);
    const BASS_BFX_VOLUME_ENV env{BASS_BFX_CHANALL, static_cast<int>(array.size()), array.data(),
                                  follow ? 1 : 0};
    return BASS_FXSetParameters(fx, &env) != 0;
}

bool TavroEffects::setParametricEQ(const std::vector<TavroParamEQBand>& bands) {
    const uint32_t h = handle();
    for (auto it = fxHandles_.lower_bound(kParamEQKeyBase);
         it != fxHandles_.end() && it->first < kParamEQKeyEnd;) {
        BASS_ChannelRemoveFX(h, it->second);
        it = fxHandles_.erase(it);
    }
    bool ok = true;
    uint32_t k = 0;
    // A band that fails leaves no gap: the next one takes its key and priority.
    for (const auto& band : bands) {
        const HFX fx =
            BASS_ChannelSetFX(h, BASS_FX_DX8_PARAMEQ, kParamEQPriorityBase + static_cast<int32_t>(k));
        if (!fx) {
            ok = false;
            continue;
        }
        const auto s = toBass(band);
        BASS_FXSetParameters(fx, &s);
        fxHandles_[kParamEQKeyBase + k] = fx;
        ++k;
    }
    return ok;
}

bool TavroEffects::applyTenBandEQ(const std::vector<double>& gains) {
    std::vector<TavroGraphicEQBand> bands;
    const size_t n = std::min(gains.size(), kTenBandCentres.size());
    for (size_t i = 0; i < n; ++i)
        bands.push_back(TavroGraphicEQBand::bandWithCenter(kTenBandCentres[i], static_cast<float>(gains[i]),
                                                           kTenBandOctaves, 0));
    return applyGraphicEQ(bands);
}

bool TavroEffects::applyGraphicEQ(const std::vector<TavroGraphicEQBand>& bands) {
    const uint32_t h = handle();
    for (uint32_t fx : std::vector<uint32_t>(bfxHandles_))
        BASS_ChannelRemoveFX(h, fx);
    bfxHandles_.clear();
    // Band number and priority are the index in the array, so a band that
    // fails leaves a gap in both.
    for (size_t i = 0; i < bands.size(); ++i) {
        const HFX fx = BASS_ChannelSetFX(h, BASS_FX_BFX_PEAKEQ, static_cast<int>(i));
        if (!fx) continue;
        const auto s = toBass(bands[i], static_cast<int>(i));
        BASS_FXSetParameters(fx, &s);
        bfxHandles_.push_back(fx);
    }
    return true;
}

bool TavroEffects::applyPitchSemitones(float semitones) {
    if (!hasFXChain()) return false;
    pitchSemitones_ = semitones;
    return BASS_ChannelSetAttribute(handle(), BASS_ATTRIB_TEMPO_PITCH, semitones) != 0;
}

bool TavroEffects::applySpeedRatio(float ratio) {
    if (!hasFXChain()) return false;
    speedRatio_ = ratio;
    const float percent = (ratio - 1.0f) * 100.0f;
    return BASS_ChannelSetAttribute(handle(), BASS_ATTRIB_TEMPO, percent) != 0;
}

bool TavroEffects::applyReverseEnabled(bool enabled) {
    if (!hasReverseChain()) return false;
    return BASS_ChannelSetAttribute(handle(), BASS_ATTRIB_REVERSE_DIR,
                                    enabled ? float(BASS_FX_RVS_REVERSE) : float(BASS_FX_RVS_FORWARD)) != 0;
}

// The last writer of the channel volume wins: replay gain does not combine
// with a volume set elsewhere.
bool TavroEffects::applyReplayGain(const TavroReplayGainParams* params) {
    return BASS_ChannelSetAttribute(handle(), BASS_ATTRIB_VOL, replayGainVolume(params)) != 0;
}

bool TavroEffects::setTempoOption(uint32_t option, float value) {
    if (!hasFXChain()) return false;
    return BASS_ChannelSetAttribute(handle(), option, value) != 0;
}

bool TavroEffects::setTempoUseAntiAliasFilter(bool use) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER, use ? 1.0f : 0.0f);
}
bool TavroEffects::setTempoAntiAliasFilterLength(uint64_t length) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH, static_cast<float>(length));
}
bool TavroEffects::setTempoUseQuickAlgorithm(bool use) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO, use ? 1.0f : 0.0f);
}
bool TavroEffects::setTempoSequenceMS(uint64_t ms) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS, static_cast<float>(ms));
}
bool TavroEffects::setTempoSeekWindowMS(uint64_t ms) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS, static_cast<float>(ms));
}
bool TavroEffects::setTempoOverlapMS(uint64_t ms) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS, static_cast<float>(ms));
}
bool TavroEffects::setTempoPreventClick(bool prevent) {
    return setTempoOption(BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK, prevent ? 1.0f : 0.0f);
}

void TavroEffects::setBypassAll(bool bypass) {
    bypassed_ = bypass;
    for (const auto& [key, fx] : fxHandles_)
        BASS_FXSetBypass(fx, bypass ? 1 : 0);
    for (uint32_t fx : bfxHandles_)
        BASS_FXSetBypass(fx, bypass ? 1 : 0);
}

// Tempo, pitch, direction and volume are channel attributes, not effects, and
// stay as they are.
void TavroEffects::removeAllEffects() {
    const uint32_t h = handle();
    for (const auto& [key, fx] : fxHandles_)
        BASS_ChannelRemoveFX(h, fx);
    fxHandles_.clear();
    for (uint32_t fx : bfxHandles_)
        BASS_ChannelRemoveFX(h, fx);
    bfxHandles_.clear();
    bypassed_ = false;
}
