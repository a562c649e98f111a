/// @file
/// Parameter records of the extended effects and the volume envelope's node.
///
/// Threading: plain values with no shared state; copy them freely between
/// threads. TavroEffects reads a record once, when it is handed over.
#pragma once

#include <tavro/Export.hpp>

#include <cstdint>

/// The channel selection every extended effect has: a mask of channels, -1 for
/// all of them. It is handed on unchecked (narrowed to 32 bits).
struct TAVRO_API TavroBFXEffectParams {
    int64_t channels = -1;
};

struct TAVRO_API TavroFreeverbParams : TavroBFXEffectParams {
    float dryMix = 0;
    float wetMix = 0;
    float roomSize = 0;
    float damp = 0;
    float width = 0;
    bool freeze = false;
    static TavroFreeverbParams defaultParams() {
        TavroFreeverbParams p;
        p.wetMix = 1, p.roomSize = 0.5f, p.damp = 0.5f, p.width = 1;
        return p;
    }
};

struct TAVRO_API TavroBiquadParams : TavroBFXEffectParams {
    int64_t filterType = 0;
    float centerFrequency = 0;
    float gain = 0;
    float bandwidth = 0;
    float q = 0;
    float shelfSlope = 0;
    static TavroBiquadParams defaultParams() {
        TavroBiquadParams p;
        p.filterType = 6, p.centerFrequency = 1000, p.bandwidth = 1;
        return p;
    }
};

struct TAVRO_API TavroDampParams : TavroBFXEffectParams {
    float target = 0;
    float quiet = 0;
    float rate = 0;
    float gain = 0;
    float delay = 0;
    static TavroDampParams defaultParams() {
        TavroDampParams p;
        p.target = 0.95f, p.rate = 0.05f, p.gain = 1;
        return p;
    }
};

struct TAVRO_API TavroAutoWahParams : TavroBFXEffectParams {
    float dryMix = 0;
    float wetMix = 0;
    float feedback = 0;
    float rate = 0;
    float range = 0;
    float frequency = 0;
    static TavroAutoWahParams defaultParams() {
        TavroAutoWahParams p;
        p.dryMix = 0.5f, p.wetMix = 1.5f, p.feedback = 0.5f, p.rate = 2, p.range = 4.3f, p.frequency = 50;
        return p;
    }
};

struct TAVRO_API TavroPhaserParams : TavroBFXEffectParams {
    float dryMix = 0;
    float wetMix = 0;
    float feedback = 0;
    float rate = 0;
    float range = 0;
    float frequency = 0;
    static TavroPhaserParams defaultParams() {
        TavroPhaserParams p;
        p.dryMix = 0.999f, p.wetMix = 0.999f, p.rate = 1, p.range = 4, p.frequency = 100;
        return p;
    }
};

struct TAVRO_API TavroCompressor2Params : TavroBFXEffectParams {
    float gain = 0;
    float threshold = 0;
    float ratio = 0;
    float attack = 0;
    float releaseTime = 0;
    static TavroCompressor2Params defaultParams() {
        TavroCompressor2Params p;
        p.gain = 5, p.threshold = -15, p.ratio = 3, p.attack = 20, p.releaseTime = 200;
        return p;
    }
};

struct TAVRO_API TavroEcho4Params : TavroBFXEffectParams {
    float dryMix = 0;
    float wetMix = 0;
    float feedback = 0;
    float delay = 0; ///< seconds
    bool stereo = false;
    static TavroEcho4Params defaultParams() {
        TavroEcho4Params p;
        p.dryMix = 0.999f, p.wetMix = 0.999f, p.feedback = 0.5f, p.delay = 0.4f, p.stereo = true;
        return p;
    }
};

struct TAVRO_API TavroRotateParams : TavroBFXEffectParams {
    float rate = 0;
    static TavroRotateParams defaultParams() {
        TavroRotateParams p;
        p.rate = 1;
        return p;
    }
};

struct TAVRO_API TavroBFXChorusParams : TavroBFXEffectParams {
    float dryMix = 0;
    float wetMix = 0;
    float feedback = 0;
    float minSweep = 0;
    float maxSweep = 0;
    float rate = 0;
    static TavroBFXChorusParams defaultParams() {
        TavroBFXChorusParams p;
        p.dryMix = 0.9f, p.wetMix = 0.35f, p.feedback = 0.5f, p.minSweep = 1, p.maxSweep = 400, p.rate = 200;
        return p;
    }
};

/// One point of a volume envelope; not an effect record of its own.
struct TAVRO_API TavroVolumeEnvelopeNode {
    double seconds = 0;
    float value = 0;
    static TavroVolumeEnvelopeNode nodeAtSeconds(double seconds, float value) { return {seconds, value}; }
};
