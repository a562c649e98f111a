/// @file
/// Loudness normaliser core: rides the gain of an interleaved float signal
/// towards a target short-term loudness, with a soft limiter on every sample.
///
/// Threading: one audio thread calls r128_normalizer_process_interleaved; one
/// control thread calls the setters, seeds, reset and current_gain. Those only
/// publish a value (and for seeds and reset a request flag) that the audio
/// thread takes up at its next call, so neither side ever waits. Creation and
/// destruction must not overlap a processing call on the same state.
#pragma once

#include <tavro/Export.hpp>

#include <cstdint>

/// Opaque to callers; made and released only through the functions below.
struct R128NormalizerState;

TAVRO_API R128NormalizerState* r128_normalizer_create(uint32_t channels, uint64_t maxFrames, double sampleRate);
TAVRO_API void r128_normalizer_destroy(R128NormalizerState* state);
TAVRO_API void r128_normalizer_reset(R128NormalizerState* state);
TAVRO_API void r128_normalizer_set_target_lufs(R128NormalizerState* state, double lufs);
TAVRO_API void r128_normalizer_set_max_boost_db(R128NormalizerState* state, double db);
TAVRO_API double r128_normalizer_current_gain(const R128NormalizerState* state);
TAVRO_API void r128_normalizer_seed_gain(R128NormalizerState* state, double gain);
TAVRO_API void r128_normalizer_seed_integrated_lufs(R128NormalizerState* state, double lufs);
/// Handles at most the state's maxFrames frames of the block; callers split
/// larger blocks.
TAVRO_API void r128_normalizer_process_interleaved(R128NormalizerState* state, float* samples, uint64_t frames);
