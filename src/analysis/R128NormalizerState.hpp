// The normaliser core's state. Private to the library (and its tests).
//
// Threading: the fields written by the control thread (target, boost, seed,
// request flags) and the gain it reads are atomics, so neither side tears a
// 64-bit value; everything else belongs to the audio thread alone.
#pragma once

#include <tavro/analysis/R128Normalizer.hpp>

#include <ebur128.h>

#include <atomic>
#include <cstdint>

struct R128NormalizerState {
    ebur128_state* ebur128State = nullptr;
    uint64_t maxFrames = 0;
    uint32_t channels = 0;
    double sampleRate = 0;
    std::atomic<double> targetLufs{-16.0};
    std::atomic<double> maxBoostDb{12.0};
    std::atomic<double> gain{1.0};
    double targetGain = 1.0;
    double attackCoeff = 0;
    double releaseCoeff = 0;
    uint64_t framesSinceUpdate = 0;
    uint64_t updateIntervalFrames = 1;
    std::atomic<int32_t> resetPending{0};
    uint64_t holdRemainingFrames = 0;
    uint64_t holdFrames = 0;
    std::atomic<int32_t> seedPending{0};
    std::atomic<double> seedGain{0.0};
};
