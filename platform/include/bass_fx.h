/* Audio platform API, effects add-on: tempo and reverse stages.
 *
 * Threading contract: every function may be called from any thread. The
 * attributes of a tempo or reverse stream (BASS_ChannelSetAttribute) are
 * published to the thread that renders it without blocking it; they take
 * effect at the start of the next block it renders. A stage is rendered on the
 * thread that pulls it (the update thread when it plays, the caller of
 * BASS_ChannelGetData or the channel above when it decodes), and it reads its
 * source on that same thread.
 */
#ifndef TAVRO_PLATFORM_BASS_FX_H
#define TAVRO_PLATFORM_BASS_FX_H

#include "bass.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creation flags */
#define BASS_FX_FREESOURCE 0x10000 /* freeing the stage frees its source */

/* Tempo stage: interpolation of the rate transposer */
#define BASS_FX_TEMPO_ALGO_LINEAR 0x200
#define BASS_FX_TEMPO_ALGO_CUBIC 0x400 /* the default */
#define BASS_FX_TEMPO_ALGO_SHANNON 0x800

/* Tempo stage attributes */
#define BASS_ATTRIB_TEMPO 0x10000       /* tempo change in percent, -95..5000, 0 = normal */
#define BASS_ATTRIB_TEMPO_PITCH 0x10001 /* pitch change in semitones, -60..60 */
#define BASS_ATTRIB_TEMPO_FREQ 0x10002  /* source rate seen by the transposer, Hz (0 = the source's) */

/* Tempo stage processing options */
#define BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER 0x10010    /* 0 or 1 (default 1) */
#define BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH 0x10011 /* taps, 8..128, multiple of 8 (default 64) */
#define BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO 0x10012    /* 0 or 1 (default 0) */
#define BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS 0x10013      /* 0 = automatic (default), else 1..250 */
#define BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS 0x10014    /* 0 = automatic (default), else 1..100 */
#define BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS 0x10015       /* 1..50 (default 8) */
#define BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK 0x10016    /* 0 or 1 (default 0) */

/* Reverse stage attribute and its values */
#define BASS_ATTRIB_REVERSE_DIR 0x11000
#define BASS_FX_RVS_REVERSE -1
#define BASS_FX_RVS_FORWARD 1

/* Version, same form as BASS_GetVersion */
DWORD BASS_FX_GetVersion(void);

/* Tempo stage */
HSTREAM BASS_FX_TempoCreate(DWORD chan, DWORD flags);
DWORD BASS_FX_TempoGetSource(HSTREAM chan);
float BASS_FX_TempoGetRateRatio(HSTREAM chan);

/* Reverse stage */
HSTREAM BASS_FX_ReverseCreate(DWORD chan, float dec_block, DWORD flags);

/* Effects and tempo analysis are declared below as they are added. */

#ifdef __cplusplus
}
#endif

#endif
