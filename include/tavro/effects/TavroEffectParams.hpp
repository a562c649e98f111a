/// @file
/// Parameter records of the standard effects, the two kinds of equaliser band
/// and replay gain.
///
/// Threading: plain values with no shared state; copy them freely between
/// threads. TavroEffects reads a record once, when it is handed over, so
/// changing it afterwards changes nothing until it is handed over again.
#pragma once

#include <tavro/Export.hpp>

#include <cstdint>

/// A plainly constructed record holds 0 and false everywhere; defaultParams()
/// gives the values an effect is normally started with. Nothing is validated
/// here: the platform refuses what it cannot take when the record is applied.
struct TAVRO_API TavroChorusParams {
    float wetDryMix = 0;
    float depth = 0;
    float feedback = 0;
    float frequency = 0;
    int32_t waveform = 0;
    float delay = 0;
    int32_t phase = 0; ///< degrees
    static TavroChorusParams defaultParams() { return {50, 10, 25, 1.1f, 1, 16, 90}; }
};

struct TAVRO_API TavroFlangerParams {
    float wetDryMix = 0;
    float depth = 0;
    float feedback = 0;
    float frequency = 0;
    int32_t waveform = 0;
    float delay = 0;
    int32_t phase = 0; ///< degrees
    static TavroFlangerParams defaultParams() { return {50, 25, -50, 0.25f, 1, 2, 0}; }
};

struct TAVRO_API TavroCompressorParams {
    float gain = 0;
    float attack = 0;
    float releaseTime = 0;
    float threshold = 0;
    float ratio = 0;
    float predelay = 0;
    static TavroCompressorParams defaultParams() { return {0, 10, 200, -20, 3, 4}; }
};

struct TAVRO_API TavroDistortionParams {
    float gain = 0;
    float edge = 0;
    float postEQCenterFrequency = 0;
    float postEQBandwidth = 0;
    float preLowpassCutoff = 0;
    static TavroDistortionParams defaultParams() { return {-18, 15, 2400, 2400, 8000}; }
};

struct TAVRO_API TavroEchoParams {
    float wetDryMix = 0;
    float feedback = 0;
    float leftDelay = 0;
    float rightDelay = 0;
    bool panDelay = false;
    static TavroEchoParams defaultParams() { return {50, 50, 500, 500, false}; }
};

struct TAVRO_API TavroReverbParams {
    float inGain = 0;
    float reverbMix = 0;
    float reverbTime = 0;
    float hfRTRatio = 0;
    static TavroReverbParams defaultParams() { return {0, -10, 1000, 0.5f}; }
};

struct TAVRO_API TavroParamEQBand {
    float centerFrequency = 0;
    float bandwidth = 0; ///< semitones
    float gain = 0;      ///< dB
    static TavroParamEQBand bandWithCenter(float center, float bandwidth, float gain) {
        return {center, bandwidth, gain};
    }
};

/// Note the argument order: gain before bandwidth, unlike the parametric band.
struct TAVRO_API TavroGraphicEQBand {
    float centerFrequency = 0;
    float gain = 0;      ///< dB
    float bandwidth = 0; ///< octaves
    float q = 0;
    static TavroGraphicEQBand bandWithCenter(float center, float gain, float bandwidth, float q) {
        return {center, gain, bandwidth, q};
    }
};

struct TAVRO_API TavroReplayGainParams {
    bool enabled = false;
    float trackGain = 0; ///< dB
    float albumGain = 0; ///< dB
    bool useAlbumGain = false;
    float preAmp = 0; ///< dB
    bool clipProtection = false;
    static TavroReplayGainParams defaultParams() {
        TavroReplayGainParams p;
        p.clipProtection = true;
        return p;
    }
};
