// How the effect records become the platform's parameter structures.
//
// Threading: pure functions of their arguments; any thread.
#pragma once

#include <tavro/effects/TavroBFXEffectParams.hpp>
#include <tavro/effects/TavroEffectParams.hpp>

#include <bass.h>
#include <bass_fx.h>

#include <vector>

namespace tavro::effects {

// Degrees to the platform's five phase steps; integer division truncates
// toward zero, and nothing is clamped (out-of-range phases are for the
// platform to refuse).
inline int32_t phaseToBass(int32_t degrees) {
    return degrees / 90 + 2;
}

BASS_DX8_CHORUS toBass(const TavroChorusParams& p);
BASS_DX8_FLANGER toBass(const TavroFlangerParams& p);
BASS_DX8_COMPRESSOR toBass(const TavroCompressorParams& p);
BASS_DX8_DISTORTION toBass(const TavroDistortionParams& p);
BASS_DX8_ECHO toBass(const TavroEchoParams& p);
BASS_DX8_REVERB toBass(const TavroReverbParams& p);
BASS_DX8_PARAMEQ toBass(const TavroParamEQBand& b);
// A graphic EQ band is one peaking effect whose band number is its index.
BASS_BFX_PEAKEQ toBass(const TavroGraphicEQBand& b, int band);

BASS_BFX_FREEVERB toBass(const TavroFreeverbParams& p);
BASS_BFX_BQF toBass(const TavroBiquadParams& p);
BASS_BFX_DAMP toBass(const TavroDampParams& p);
BASS_BFX_AUTOWAH toBass(const TavroAutoWahParams& p);
BASS_BFX_PHASER toBass(const TavroPhaserParams& p);
BASS_BFX_COMPRESSOR2 toBass(const TavroCompressor2Params& p);
BASS_BFX_ECHO4 toBass(const TavroEcho4Params& p);
BASS_BFX_ROTATE toBass(const TavroRotateParams& p);
BASS_BFX_CHORUS toBass(const TavroBFXChorusParams& p);

// The nodes in the order given (the platform sorts nothing for us either).
std::vector<BASS_BFX_ENV_NODE> toBass(const std::vector<TavroVolumeEnvelopeNode>& nodes);

// The channel volume that replay gain asks for: 1.0 when off or absent; clip
// protection lets cuts through and never amplifies.
float replayGainVolume(const TavroReplayGainParams* p);

} // namespace tavro::effects
