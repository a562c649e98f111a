/** @file
 * Loudness measurement add-on: EBU R 128 readings of a channel's audio, taken
 * by an entry in the channel's DSP chain.
 *
 * Threading: any thread may start, read and stop a measurement. The readings
 * are computed on the thread that renders the channel, once per block, and
 * published as single atomic values: a query never waits for the renderer
 * and never sees a half-written reading. BASS_Loudness_Stop returns only once
 * the measurement can no longer run.
 *
 * Units: loudness (current, integrated) in LUFS, loudness range in LU, sample
 * and true peaks as linear amplitudes (1.0 = full scale), the highest of all
 * channels since the start. Until enough audio has been measured a loudness
 * reads -HUGE_VAL (minus infinity), as silence does. On a playing channel the
 * readings follow what has been rendered, which runs ahead of what is heard by
 * the playback buffer.
 */
#ifndef BASSLOUD_H
#define BASSLOUD_H

#include "bass.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef DWORD HLOUDNESS;

/** @name Measurements
 * Flags of BASS_Loudness_Start, modes of BASS_Loudness_GetLevel.
 * The current loudness is always measured; its window is the momentary 400 ms
 * unless the upper 16 bits of the flags give another length in milliseconds. */
/** @{ */
#define BASS_LOUDNESS_CURRENT 0
#define BASS_LOUDNESS_INTEGRATED 1
#define BASS_LOUDNESS_RANGE 2
#define BASS_LOUDNESS_PEAK 4
#define BASS_LOUDNESS_TRUEPEAK 8
/** @} */

/** Starts measuring `handle` from its next block, at `priority` in its DSP
 * chain. Returns the measurement's handle, or 0 (BASS_ERROR_HANDLE for an
 * unknown channel, BASS_ERROR_ILLPARAM for unknown flags, BASS_ERROR_FORMAT
 * when the channel's format cannot be measured). */
TAVRO_PLATFORM_API HLOUDNESS BASS_Loudness_Start(DWORD handle, DWORD flags, int priority);
/** One reading; BASS_ERROR_NOTAVAIL for a measurement not requested at start. */
TAVRO_PLATFORM_API BOOL BASS_Loudness_GetLevel(HLOUDNESS handle, DWORD mode, float* level);
TAVRO_PLATFORM_API BOOL BASS_Loudness_Stop(HLOUDNESS handle);

#ifdef __cplusplus
}
#endif

#endif
