/** @file
 * Audio platform API, effects add-on: tempo and reverse stages.
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
#define BASS_FX_FREESOURCE 0x10000 /**< freeing the stage frees its source */

/** @name Tempo stage: interpolation of the rate transposer */
/** @{ */
#define BASS_FX_TEMPO_ALGO_LINEAR 0x200
#define BASS_FX_TEMPO_ALGO_CUBIC 0x400 /**< the default */
#define BASS_FX_TEMPO_ALGO_SHANNON 0x800
/** @} */

/** @name Tempo stage attributes */
/** @{ */
#define BASS_ATTRIB_TEMPO 0x10000       /**< tempo change in percent, -95..5000, 0 = normal */
#define BASS_ATTRIB_TEMPO_PITCH 0x10001 /**< pitch change in semitones, -60..60 */
#define BASS_ATTRIB_TEMPO_FREQ 0x10002  /**< source rate seen by the transposer, Hz (0 = the source's) */
/** @} */

/** @name Tempo stage processing options */
/** @{ */
#define BASS_ATTRIB_TEMPO_OPTION_USE_AA_FILTER 0x10010    /**< 0 or 1 (default 1) */
#define BASS_ATTRIB_TEMPO_OPTION_AA_FILTER_LENGTH 0x10011 /**< taps, 8..128, multiple of 8 (default 64) */
#define BASS_ATTRIB_TEMPO_OPTION_USE_QUICKALGO 0x10012    /**< 0 or 1 (default 0) */
#define BASS_ATTRIB_TEMPO_OPTION_SEQUENCE_MS 0x10013      /**< 0 = automatic (default), else 1..250 */
#define BASS_ATTRIB_TEMPO_OPTION_SEEKWINDOW_MS 0x10014    /**< 0 = automatic (default), else 1..100 */
#define BASS_ATTRIB_TEMPO_OPTION_OVERLAP_MS 0x10015       /**< 1..50 (default 8) */
#define BASS_ATTRIB_TEMPO_OPTION_PREVENT_CLICK 0x10016    /**< 0 or 1 (default 0) */
/** @} */

/** @name Reverse stage attribute and its values */
/** @{ */
#define BASS_ATTRIB_REVERSE_DIR 0x11000
#define BASS_FX_RVS_REVERSE -1
#define BASS_FX_RVS_FORWARD 1
/** @} */

/** Version, same form as BASS_GetVersion */
TAVRO_PLATFORM_API DWORD BASS_FX_GetVersion(void);

/** @name Tempo stage */
/** @{ */
TAVRO_PLATFORM_API HSTREAM BASS_FX_TempoCreate(DWORD chan, DWORD flags);
TAVRO_PLATFORM_API DWORD BASS_FX_TempoGetSource(HSTREAM chan);
TAVRO_PLATFORM_API float BASS_FX_TempoGetRateRatio(HSTREAM chan);
/** @} */

/** Reverse stage */
TAVRO_PLATFORM_API HSTREAM BASS_FX_ReverseCreate(DWORD chan, float dec_block, DWORD flags);

/** @name Effects of the add-on, installed with BASS_ChannelSetFX */
/** @{ */
#define BASS_FX_BFX_ROTATE 0x10000
#define BASS_FX_BFX_PEAKEQ 0x10004
#define BASS_FX_BFX_DAMP 0x10008
#define BASS_FX_BFX_AUTOWAH 0x10009
#define BASS_FX_BFX_PHASER 0x1000B
#define BASS_FX_BFX_CHORUS 0x1000D
#define BASS_FX_BFX_COMPRESSOR2 0x10011
#define BASS_FX_BFX_VOLUME_ENV 0x10012
#define BASS_FX_BFX_BQF 0x10013
#define BASS_FX_BFX_ECHO4 0x10014
#define BASS_FX_BFX_FREEVERB 0x10016
/** @} */

/** @name Channel masks
 * lChannel: a mask of channels, bit n = channel n + 1. */
/** @{ */
#define BASS_BFX_CHANALL -1
#define BASS_BFX_CHANNONE 0
#define BASS_BFX_CHAN1 1
#define BASS_BFX_CHAN2 2
#define BASS_BFX_CHAN3 4
#define BASS_BFX_CHAN4 8
#define BASS_BFX_CHAN5 16
#define BASS_BFX_CHAN6 32
#define BASS_BFX_CHAN7 64
#define BASS_BFX_CHAN8 128
#define BASS_BFX_CHANNEL_N(n) (1 << ((n) - 1))
/** @} */

typedef struct {
    float fRate;
    int lChannel;
} BASS_BFX_ROTATE;

typedef struct {
    int lBand;
    float fBandwidth; /**< octaves; used when fQ is 0 */
    float fQ;
    float fCenter;
    float fGain; /**< dB */
    int lChannel;
} BASS_BFX_PEAKEQ;

typedef struct {
    float fTarget;
    float fQuiet;
    float fRate;
    float fGain;
    float fDelay;
    int lChannel;
} BASS_BFX_DAMP;

typedef struct {
    float fDryMix;
    float fWetMix;
    float fFeedback;
    float fRate;
    float fRange;
    float fFreq;
    int lChannel;
} BASS_BFX_AUTOWAH;

typedef BASS_BFX_AUTOWAH BASS_BFX_PHASER;

typedef struct {
    float fDryMix;
    float fWetMix;
    float fFeedback;
    float fMinSweep;
    float fMaxSweep;
    float fRate;
    int lChannel;
} BASS_BFX_CHORUS;

typedef struct {
    float fGain;
    float fThreshold;
    float fRatio;
    float fAttack;
    float fRelease;
    int lChannel;
} BASS_BFX_COMPRESSOR2;

typedef struct {
    double pos; /**< seconds */
    float val;
} BASS_BFX_ENV_NODE;

typedef struct {
    int lChannel;
    int lNodeCount;
    const BASS_BFX_ENV_NODE *pNodes;
    BOOL bFollow;
} BASS_BFX_VOLUME_ENV;

#define BASS_BFX_BQF_LOWPASS 0
#define BASS_BFX_BQF_HIGHPASS 1
#define BASS_BFX_BQF_BANDPASS 2   /**< constant skirt gain */
#define BASS_BFX_BQF_BANDPASS_Q 3 /**< constant 0 dB peak gain */
#define BASS_BFX_BQF_NOTCH 4
#define BASS_BFX_BQF_ALLPASS 5
#define BASS_BFX_BQF_PEAKINGEQ 6
#define BASS_BFX_BQF_LOWSHELF 7
#define BASS_BFX_BQF_HIGHSHELF 8

typedef struct {
    int lFilter;
    float fCenter;
    float fGain;
    float fBandwidth; /**< octaves; used when fQ is 0 */
    float fQ;
    float fS; /**< shelf slope */
    int lChannel;
} BASS_BFX_BQF;

typedef struct {
    float fDryMix;
    float fWetMix;
    float fFeedback;
    float fDelay; /**< seconds */
    BOOL bStereo;
    int lChannel;
} BASS_BFX_ECHO4;

#define BASS_BFX_FREEVERB_MODE_FREEZE 1

typedef struct {
    float fDryMix;
    float fWetMix;
    float fRoomSize;
    float fDamp;
    float fWidth;
    DWORD lMode;
    int lChannel;
} BASS_BFX_FREEVERB;

/** @name Tempo and beat analysis
 *
 * The search range of a tempo analysis is one word: low 16 bits the lowest
 * BPM, high 16 bits the highest; both must lie in 20..400 with low <= high.
 *
 * Offline (the channel must be decoding, else BASS_ERROR_DECODE): the
 * channel is moved to startSec and decoded up to endSec (or its end), on the
 * calling thread. The decoded frames
 * are consumed: afterwards the channel's position is where the analysis
 * stopped. startSec must be at least 0 and endSec above it, else the call
 * fails with BASS_ERROR_ILLPARAM. BASS_FX_BPM_DecodeGet returns the tempo, 0
 * when nothing periodic was found, or -1 on failure. BASS_FX_BPM_BeatDecodeGet
 * returns FALSE on failure; else it calls `proc` once per beat, in order,
 * during the call, with the beat's position in seconds on the channel's
 * timeline (searching 60..180 BPM).
 *
 * Live (playing or decoding channel): from the next block the channel
 * renders, its output is analysed (after all its effects and DSP). Every
 * `period` seconds of analysed audio, BASS_FX_BPM_CallbackSet's proc receives
 * the tempo of the last 10 seconds, once enough audio has been heard to tell
 * one (silence reports nothing). BASS_FX_BPM_BeatCallbackSet's proc receives
 * each beat once, when it is heard (on a decoding channel, once decoded), with
 * its position in seconds on the channel's timeline (a beat is settled half a
 * period after it, so with a playback buffer shorter than that, or at the
 * first lock onto a tempo, it may come up to 0.1 s + 0.6 periods late; beats
 * found later than that are not reported). A seek starts the analysis
 * afresh; a change of tempo or direction does not. Live callbacks run on the platform's analysis thread,
 * never on the thread that renders the channel; one of each kind per channel
 * (setting again replaces). They are called with no lock of the platform
 * held: they may seek, edit or free channels and set or end reports.
 * BASS_FX_BPM_Free / BASS_FX_BPM_BeatFree end them: once they return (from any
 * thread but that of the callback itself), the callback is not called again.
 * Freeing the channel ends them too, without waiting for a callback already
 * running; a Free call on the freed handle (failing with BASS_ERROR_HANDLE)
 * still waits for it. The Free calls must not be made from the channel's own
 * DSP or mixtime syncs, which may hold up a running callback.
 */
/** @{ */

typedef void(BPMPROC)(DWORD chan, float bpm, void* user);
typedef void(BPMPROGRESSPROC)(DWORD chan, float percent, void* user);
typedef void(BPMBEATPROC)(DWORD chan, double beatpos, void* user);

TAVRO_PLATFORM_API float BASS_FX_BPM_DecodeGet(DWORD chan, double startSec, double endSec, DWORD minMaxBPM, DWORD flags,
                            BPMPROGRESSPROC* proc, void* user);
TAVRO_PLATFORM_API BOOL BASS_FX_BPM_CallbackSet(DWORD handle, BPMPROC* proc, double period, DWORD minMaxBPM, DWORD flags, void* user);
TAVRO_PLATFORM_API BOOL BASS_FX_BPM_Free(DWORD handle);

TAVRO_PLATFORM_API BOOL BASS_FX_BPM_BeatDecodeGet(DWORD chan, double startSec, double endSec, DWORD flags, BPMBEATPROC* proc,
                               void* user);
TAVRO_PLATFORM_API BOOL BASS_FX_BPM_BeatCallbackSet(DWORD handle, BPMBEATPROC* proc, void* user);
TAVRO_PLATFORM_API BOOL BASS_FX_BPM_BeatFree(DWORD handle);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
