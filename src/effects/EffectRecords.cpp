#include "effects/EffectRecords.hpp"

#include <cmath>

namespace tavro::effects {
namespace {

// The mask keeps its low 32 bits, as the platform's field is 32 bits wide.
int narrow(int64_t v) {
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}
BOOL flag(bool b) {
    return b ? 1 : 0;
}

} // namespace

BASS_DX8_CHORUS toBass(const TavroChorusParams& p) {
    return {p.wetDryMix,
            p.depth,
            p.feedback,
            p.frequency,
            static_cast<DWORD>(p.waveform),
            p.delay,
            static_cast<DWORD>(phaseToBass(p.phase))};
}

BASS_DX8_FLANGER toBass(const TavroFlangerParams& p) {
    return {p.wetDryMix,
            p.depth,
            p.feedback,
            p.frequency,
            static_cast<DWORD>(p.waveform),
            p.delay,
            static_cast<DWORD>(phaseToBass(p.phase))};
}

BASS_DX8_COMPRESSOR toBass(const TavroCompressorParams& p) {
    return {p.gain, p.attack, p.releaseTime, p.threshold, p.ratio, p.predelay};
}

BASS_DX8_DISTORTION toBass(const TavroDistortionParams& p) {
    return {p.gain, p.edge, p.postEQCenterFrequency, p.postEQBandwidth, p.preLowpassCutoff};
}

BASS_DX8_ECHO toBass(const TavroEchoParams& p) {
    return {p.wetDryMix, p.feedback, p.leftDelay, p.rightDelay, flag(p.panDelay)};
}

BASS_DX8_REVERB toBass(const TavroReverbParams& p) {
    return {p.inGain, p.reverbMix, p.reverbTime, p.hfRTRatio};
}

BASS_DX8_PARAMEQ toBass(const TavroParamEQBand& b) {
    return {b.centerFrequency, b.bandwidth, b.gain};
}

BASS_BFX_PEAKEQ toBass(const TavroGraphicEQBand& b, int band) {
    return {band, b.bandwidth, b.q, b.centerFrequency, b.gain, BASS_BFX_CHANALL};
}

BASS_BFX_FREEVERB toBass(const TavroFreeverbParams& p) {
    return {p.dryMix,          p.wetMix,
            p.roomSize,        p.damp,
            p.width,           p.freeze ? static_cast<DWORD>(BASS_BFX_FREEVERB_MODE_FREEZE) : 0u,
            narrow(p.channels)};
}

BASS_BFX_BQF toBass(const TavroBiquadParams& p) {
    return {narrow(p.filterType), p.centerFrequency, p.gain, p.bandwidth, p.q,
            p.shelfSlope,         narrow(p.channels)};
}

BASS_BFX_DAMP toBass(const TavroDampParams& p) {
    return {p.target, p.quiet, p.rate, p.gain, p.delay, narrow(p.channels)};
}

BASS_BFX_AUTOWAH toBass(const TavroAutoWahParams& p) {
    return {p.dryMix, p.wetMix, p.feedback, p.rate, p.range, p.frequency, narrow(p.channels)};
}

BASS_BFX_PHASER toBass(const TavroPhaserParams& p) {
    return {p.dryMix, p.wetMix, p.feedback, p.rate, p.range, p.frequency, narrow(p.channels)};
}

BASS_BFX_COMPRESSOR2 toBass(const TavroCompressor2Params& p) {
    return {p.gain, p.threshold, p.ratio, p.attack, p.releaseTime, narrow(p.channels)};
}

BASS_BFX_ECHO4 toBass(const TavroEcho4Params& p) {
    return {p.dryMix, p.wetMix, p.feedback, p.delay, flag(p.stereo), narrow(p.channels)};
}

BASS_BFX_ROTATE toBass(const TavroRotateParams& p) {
    return {p.rate, narrow(p.channels)};
}

BASS_BFX_CHORUS toBass(const TavroBFXChorusParams& p) {
    return {p.dryMix, p.wetMix, p.feedback, p.minSweep, p.maxSweep, p.rate, narrow(p.channels)};
}

std::vector<BASS_BFX_ENV_NODE> toBass(const std::vector<TavroVolumeEnvelopeNode>& nodes) {
    std::vector<BASS_BFX_ENV_NODE> out;
    out.reserve(nodes.size());
    for (const auto& n : nodes)
        out.push_back({n.seconds, n.value});
    return out;
}

float replayGainVolume(const TavroReplayGainParams* p) {
    float gainDb = 0;
    if (p && p->enabled) {
        const float g = (p->useAlbumGain ? p->albumGain : p->trackGain) + p->preAmp;
        gainDb = (p->clipProtection && g > 0) ? 0.0f : g;
    }
    return static_cast<float>(std::pow(10.0, static_cast<double>(gainDb) / 20.0));
}

} // namespace tavro::effects
