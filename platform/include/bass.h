/** @file
 * Audio platform API: devices, channels, streams, DSP and syncs.
 *
 * A C interface implemented in C++ by the platform library (libtavroplatform).
 * Every call sets the calling thread's error code; BASS_ErrorGetCode() reads it.
 * Handles are 32-bit and generation-counted: a freed handle fails with
 * BASS_ERROR_HANDLE and never reaches another object.
 */
#ifndef TAVRO_PLATFORM_BASS_H
#define TAVRO_PLATFORM_BASS_H

#include <stdint.h>

/* The platform library is built with hidden visibility; its C functions are
 * what it exports. */
#if defined(__GNUC__)
#define TAVRO_PLATFORM_API __attribute__((visibility("default")))
#else
#define TAVRO_PLATFORM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uint64_t QWORD;
typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

typedef DWORD HSTREAM;
typedef DWORD HMUSIC;
typedef DWORD HSAMPLE;
typedef DWORD HCHANNEL;
typedef DWORD HSYNC;
typedef DWORD HDSP;
typedef DWORD HFX;
typedef DWORD HPLUGIN;
typedef DWORD HRECORD;

#define BASSVERSION 0x204
/** 2.4.17.0 */
#define BASSVERSION_FULL 0x02041100

/** @name Error codes */
/** @{ */
#define BASS_OK 0
#define BASS_ERROR_MEM 1
#define BASS_ERROR_FILEOPEN 2
#define BASS_ERROR_DRIVER 3
#define BASS_ERROR_BUFLOST 4
#define BASS_ERROR_HANDLE 5
#define BASS_ERROR_FORMAT 6
#define BASS_ERROR_POSITION 7
#define BASS_ERROR_INIT 8
#define BASS_ERROR_START 9
#define BASS_ERROR_SSL 10
#define BASS_ERROR_REINIT 11
#define BASS_ERROR_ALREADY 14
#define BASS_ERROR_NOTAUDIO 17
#define BASS_ERROR_NOCHAN 18
#define BASS_ERROR_ILLTYPE 19
#define BASS_ERROR_ILLPARAM 20
#define BASS_ERROR_NO3D 21
#define BASS_ERROR_NOEAX 22
#define BASS_ERROR_DEVICE 23
#define BASS_ERROR_NOPLAY 24
#define BASS_ERROR_FREQ 25
#define BASS_ERROR_NOTFILE 27
#define BASS_ERROR_NOHW 29
#define BASS_ERROR_EMPTY 31
#define BASS_ERROR_NONET 32
#define BASS_ERROR_CREATE 33
#define BASS_ERROR_NOFX 34
#define BASS_ERROR_NOTAVAIL 37
#define BASS_ERROR_DECODE 38
#define BASS_ERROR_DX 39
#define BASS_ERROR_TIMEOUT 40
#define BASS_ERROR_FILEFORM 41
#define BASS_ERROR_SPEAKER 42
#define BASS_ERROR_VERSION 43
#define BASS_ERROR_CODEC 44
#define BASS_ERROR_ENDED 45
#define BASS_ERROR_BUSY 46
#define BASS_ERROR_UNSTREAMABLE 47
#define BASS_ERROR_PROTOCOL 48
#define BASS_ERROR_DENIED 49
#define BASS_ERROR_UNKNOWN -1
/** @} */

/** @name Configuration options */
/** @{ */
#define BASS_CONFIG_BUFFER 0
#define BASS_CONFIG_UPDATEPERIOD 1
#define BASS_CONFIG_GVOL_SAMPLE 4
#define BASS_CONFIG_GVOL_STREAM 5
#define BASS_CONFIG_GVOL_MUSIC 6
#define BASS_CONFIG_FLOATDSP 9
#define BASS_CONFIG_NET_TIMEOUT 11
#define BASS_CONFIG_NET_BUFFER 12
#define BASS_CONFIG_NET_PREBUF 15
#define BASS_CONFIG_NET_AGENT 16
#define BASS_CONFIG_NET_PROXY 17
#define BASS_CONFIG_NET_PLAYLIST 21
#define BASS_CONFIG_UPDATETHREADS 24
#define BASS_CONFIG_REC_LOOPBACK 28
#define BASS_CONFIG_DEV_NOTIFY 33
#define BASS_CONFIG_IOS_SESSION 34
#define BASS_CONFIG_SRC 43
#define BASS_CONFIG_SRC_SAMPLE 44
#define BASS_CONFIG_IOS_NOTIFY 46
#define BASS_CONFIG_NET_PLAYLIST_DEPTH 59
#define BASS_CONFIG_DOWNMIX 80
/** @} */

/** @name Audio-session options (BASS_CONFIG_IOS_SESSION) */
/** @{ */
#define BASS_IOS_SESSION_MIX 1
#define BASS_IOS_SESSION_DUCK 2
#define BASS_IOS_SESSION_AMBIENT 4
#define BASS_IOS_SESSION_SPEAKER 8
#define BASS_IOS_SESSION_DISABLE 16
#define BASS_IOS_SESSION_DEACTIVATE 32
#define BASS_IOS_SESSION_AIRPLAY 64
#define BASS_IOS_SESSION_BTHFP 128
#define BASS_IOS_SESSION_BTA2DP 256
/** @} */

/** @name Audio-session notifications (BASS_CONFIG_IOS_NOTIFY) */
/** @{ */
#define BASS_IOSNOTIFY_INTERRUPT 1
#define BASS_IOSNOTIFY_INTERRUPT_END 2
typedef void(IOSNOTIFYPROC)(DWORD status);
/** @} */

/** @name Device-change notifications (BASS_CONFIG_DEV_NOTIFY) */
/** @{ */
#define BASS_DEVNOTIFY_ADDED 1
#define BASS_DEVNOTIFY_REMOVED 2
#define BASS_DEVNOTIFY_DEFAULT 3
#define BASS_DEVNOTIFY_FAILED 4
typedef void(DEVNOTIFYPROC)(DWORD notify);
/** @} */

/** @name BASS_Init flags */
/** @{ */
#define BASS_DEVICE_8BITS 1
#define BASS_DEVICE_MONO 2
#define BASS_DEVICE_16BITS 8
#define BASS_DEVICE_STEREO 0x8000
#define BASS_DEVICE_VOICEPROC 0x200000
/** @} */

/** Device information */
typedef struct {
    const char *name;   /**< description */
    const char *driver; /**< driver / server-side name */
    DWORD flags;
} BASS_DEVICEINFO;

#define BASS_DEVICE_ENABLED 1
#define BASS_DEVICE_DEFAULT 2
#define BASS_DEVICE_INIT 4
#define BASS_DEVICE_LOOPBACK 8

typedef struct {
    DWORD flags;
    DWORD hwsize, hwfree, freesam, free3d, minrate, maxrate;
    BOOL eax;
    DWORD minbuf; /**< minimum buffer length in ms */
    DWORD dsver;
    DWORD latency; /**< output latency in ms */
    DWORD initflags;
    DWORD speakers;
    DWORD freq; /**< output rate */
} BASS_INFO;

/** @name Sample / stream / music flags */
/** @{ */
#define BASS_SAMPLE_8BITS 1
#define BASS_SAMPLE_MONO 2
#define BASS_SAMPLE_LOOP 4
#define BASS_SAMPLE_3D 8
#define BASS_SAMPLE_SOFTWARE 0x10
#define BASS_SAMPLE_FLOAT 256
#define BASS_SAMPLE_OVER_POS 0x20000
/** @} */

#define BASS_STREAM_PRESCAN 0x20000
#define BASS_STREAM_AUTOFREE 0x40000
#define BASS_STREAM_RESTRATE 0x80000
#define BASS_STREAM_BLOCK 0x100000
#define BASS_STREAM_DECODE 0x200000
#define BASS_STREAM_STATUS 0x800000

#define BASS_MUSIC_RAMPS 0x400
#define BASS_MUSIC_PRESCAN 0x20000
#define BASS_MUSIC_AUTOFREE BASS_STREAM_AUTOFREE

/** Channel information */
typedef struct {
    DWORD freq;
    DWORD chans;
    DWORD flags;
    DWORD ctype;
    DWORD origres; /**< resolution of the original data in bits, 0 = unknown */
    HPLUGIN plugin;
    HSAMPLE sample;
    const char *filename;
} BASS_CHANNELINFO;

#define BASS_CTYPE_SAMPLE 1
#define BASS_CTYPE_RECORD 2
#define BASS_CTYPE_STREAM 0x10000
#define BASS_CTYPE_STREAM_VORBIS 0x10002
#define BASS_CTYPE_STREAM_OGG 0x10002
#define BASS_CTYPE_STREAM_MP1 0x10003
#define BASS_CTYPE_STREAM_MP2 0x10004
#define BASS_CTYPE_STREAM_MP3 0x10005
#define BASS_CTYPE_STREAM_AIFF 0x10006
#define BASS_CTYPE_STREAM_CA 0x10007
#define BASS_CTYPE_STREAM_MF 0x10008
#define BASS_CTYPE_STREAM_AM 0x10009
#define BASS_CTYPE_STREAM_SAMPLE 0x1000a
#define BASS_CTYPE_STREAM_DUMMY 0x18000
#define BASS_CTYPE_STREAM_DEVICE 0x18001
#define BASS_CTYPE_STREAM_WAV 0x40000
#define BASS_CTYPE_STREAM_WAV_PCM 0x50001
#define BASS_CTYPE_STREAM_WAV_FLOAT 0x50003
#define BASS_CTYPE_MUSIC_MOD 0x20000
#define BASS_CTYPE_MUSIC_MTM 0x20001
#define BASS_CTYPE_MUSIC_S3M 0x20002
#define BASS_CTYPE_MUSIC_XM 0x20003
#define BASS_CTYPE_MUSIC_IT 0x20004
#define BASS_CTYPE_MUSIC_MO3 0x00100

/** @name Stream procedures */
/** @{ */
typedef DWORD(STREAMPROC)(HSTREAM handle, void *buffer, DWORD length, void *user);
#define BASS_STREAMPROC_END 0x80000000
#define STREAMPROC_DUMMY ((STREAMPROC *)0)
#define STREAMPROC_PUSH ((STREAMPROC *)-1)
#define STREAMPROC_DEVICE ((STREAMPROC *)-2)
/** @} */

/** @name Positions */
/** @{ */
#define BASS_POS_BYTE 0
#define BASS_POS_MUSIC_ORDER 1
#define BASS_POS_OGG 3
#define BASS_POS_END 0x10
#define BASS_POS_LOOP 0x11
#define BASS_POS_FLUSH 0x1000000
#define BASS_POS_RESET 0x2000000
#define BASS_POS_RELATIVE 0x4000000
#define BASS_POS_INEXACT 0x8000000
#define BASS_POS_DECODE 0x10000000
#define BASS_POS_DECODETO 0x20000000
#define BASS_POS_SCAN 0x40000000
/** @} */

/** @name Channel states (BASS_ChannelIsActive) */
/** @{ */
#define BASS_ACTIVE_STOPPED 0
#define BASS_ACTIVE_PLAYING 1
#define BASS_ACTIVE_STALLED 2
#define BASS_ACTIVE_PAUSED 3
#define BASS_ACTIVE_PAUSED_DEVICE 4
/** @} */

/** @name Attributes */
/** @{ */
#define BASS_ATTRIB_FREQ 1
#define BASS_ATTRIB_VOL 2
#define BASS_ATTRIB_PAN 3
#define BASS_ATTRIB_NOBUFFER 5
#define BASS_ATTRIB_SRC 8
#define BASS_SLIDE_LOG 0x1000000
/** @} */

/** @name Sync types */
/** @{ */
#define BASS_SYNC_POS 0
#define BASS_SYNC_END 2
#define BASS_SYNC_META 4
#define BASS_SYNC_SLIDE 5
#define BASS_SYNC_STALL 6
#define BASS_SYNC_DOWNLOAD 7
#define BASS_SYNC_FREE 8
#define BASS_SYNC_SETPOS 11
#define BASS_SYNC_OGG_CHANGE 12
#define BASS_SYNC_MIXTIME 0x40000000
#define BASS_SYNC_ONETIME 0x80000000
typedef void(SYNCPROC)(HSYNC handle, DWORD channel, DWORD data, void *user);
/** @} */

/** @name DSP */
/** @{ */
typedef void(DSPPROC)(HDSP handle, DWORD channel, void *buffer, DWORD length, void *user);
#define BASS_DSP_READONLY 1
#define BASS_DSP_FLOAT 2
#define BASS_DSP_BYPASS 0x400000
/** Process channel n alone (1 = the first); the block holds that channel only. */
#define BASS_DSP_MONO_N(n) ((DWORD)(n) << 24)
/** @} */

/** @name Effects of the channel's DSP chain (BASS_ChannelSetFX); ranges in docs/platform-decisions.md */
/** @{ */
#define BASS_FX_DX8_CHORUS 0
#define BASS_FX_DX8_COMPRESSOR 1
#define BASS_FX_DX8_DISTORTION 2
#define BASS_FX_DX8_ECHO 3
#define BASS_FX_DX8_FLANGER 4
#define BASS_FX_DX8_PARAMEQ 7
#define BASS_FX_DX8_REVERB 8
/** @} */

#define BASS_DX8_PHASE_NEG_180 0
#define BASS_DX8_PHASE_NEG_90 1
#define BASS_DX8_PHASE_ZERO 2
#define BASS_DX8_PHASE_90 3
#define BASS_DX8_PHASE_180 4

typedef struct {
    float fWetDryMix;
    float fDepth;
    float fFeedback;
    float fFrequency;
    DWORD lWaveform; /**< 0 = triangle, 1 = sine */
    float fDelay;
    DWORD lPhase;
} BASS_DX8_CHORUS;

typedef struct {
    float fGain;
    float fAttack;
    float fRelease;
    float fThreshold;
    float fRatio;
    float fPredelay;
} BASS_DX8_COMPRESSOR;

typedef struct {
    float fGain;
    float fEdge;
    float fPostEQCenterFrequency;
    float fPostEQBandwidth;
    float fPreLowpassCutoff;
} BASS_DX8_DISTORTION;

typedef struct {
    float fWetDryMix;
    float fFeedback;
    float fLeftDelay;
    float fRightDelay;
    BOOL lPanDelay;
} BASS_DX8_ECHO;

typedef struct {
    float fWetDryMix;
    float fDepth;
    float fFeedback;
    float fFrequency;
    DWORD lWaveform;
    float fDelay;
    DWORD lPhase;
} BASS_DX8_FLANGER;

typedef struct {
    float fCenter;
    float fBandwidth; /**< semitones */
    float fGain;      /**< dB */
} BASS_DX8_PARAMEQ;

typedef struct {
    float fInGain;          /**< dB */
    float fReverbMix;       /**< dB */
    float fReverbTime;      /**< ms */
    float fHighFreqRTRatio;
} BASS_DX8_REVERB;

/** @name Data */
/** @{ */
#define BASS_DATA_AVAILABLE 0
#define BASS_DATA_NOREMOVE 0x10000000
#define BASS_DATA_FIXED 0x20000000
#define BASS_DATA_FLOAT 0x40000000
#define BASS_DATA_FFT256 0x80000000
#define BASS_DATA_FFT512 0x80000001
#define BASS_DATA_FFT1024 0x80000002
#define BASS_DATA_FFT2048 0x80000003
#define BASS_DATA_FFT4096 0x80000004
#define BASS_DATA_FFT8192 0x80000005
#define BASS_DATA_FFT16384 0x80000006
#define BASS_DATA_FFT_INDIVIDUAL 0x10
#define BASS_DATA_FFT_NOWINDOW 0x20
#define BASS_DATA_FFT_REMOVEDC 0x40
#define BASS_DATA_FFT_COMPLEX 0x80
/** @} */

/** @name Levels */
/** @{ */
#define BASS_LEVEL_MONO 1
#define BASS_LEVEL_STEREO 2
#define BASS_LEVEL_RMS 4
#define BASS_LEVEL_VOLPAN 8
#define BASS_LEVEL_NOREMOVE 16
/** @} */

/** Plug-ins */
typedef struct {
    DWORD ctype;      /**< channel type */
    const char *name; /**< format description */
    const char *exts; /**< file extension filter (*.ext1;*.ext2;...) */
} BASS_PLUGINFORM;

typedef struct {
    DWORD version;                 /**< version (same form as BASS_GetVersion) */
    DWORD formatc;                 /**< number of formats */
    const BASS_PLUGINFORM *formats;
} BASS_PLUGININFO;

/** @name Tags (BASS_ChannelGetTags) */
/** @{ */
#define BASS_TAG_ID3 0        /**< ID3v1: the raw 128-byte record */
#define BASS_TAG_ID3V2 1      /**< ID3v2: the raw tag block */
#define BASS_TAG_OGG 2        /**< Vorbis comments: "key=value" strings */
#define BASS_TAG_HTTP 3
#define BASS_TAG_ICY 4
#define BASS_TAG_META 5
#define BASS_TAG_APE 6        /**< APE tag: "key=value" strings */
#define BASS_TAG_MP4 7        /**< MP4/iTunes metadata: "key=value" strings */
#define BASS_TAG_RIFF_INFO 0x100 /**< RIFF INFO chunk: "key=value" strings */
#define BASS_TAG_MUSIC_NAME 0x10000    /**< module title */
#define BASS_TAG_MUSIC_MESSAGE 0x10001 /**< module message (song text) */
#define BASS_TAG_MUSIC_AUTH 0x10003    /**< module author */
#define BASS_TAG_MUSIC_INST 0x10100    /**< + n: name of instrument n (0 = first) */
#define BASS_TAG_MUSIC_SAMPLE 0x10300  /**< + n: name of sample n (0 = first) */
/** @} */

/** @name Further channel types of the built-in formats and plug-ins */
/** @{ */
#define BASS_CTYPE_STREAM_MP4 0x10b01
#define BASS_CTYPE_STREAM_AAC 0x10b00
#define BASS_CTYPE_STREAM_ALAC 0x10e00
#define BASS_CTYPE_STREAM_AC3 0x11000
#define BASS_CTYPE_STREAM_FLAC 0x10900
#define BASS_CTYPE_STREAM_FLAC_OGG 0x10901
#define BASS_CTYPE_STREAM_WV 0x10500
#define BASS_CTYPE_STREAM_OPUS 0x11200
#define BASS_CTYPE_STREAM_DSD 0x11700
#define BASS_CTYPE_STREAM_APE 0x10700
#define BASS_CTYPE_STREAM_WEBM 0x11d00
#define BASS_CTYPE_STREAM_HLS 0x10300
#define BASS_CTYPE_STREAM_MIDI 0x10d00
#define BASS_CTYPE_STREAM_MPC 0x10a00
#define BASS_CTYPE_STREAM_TTA 0x10f00
/** @} */

/** @name Initialisation and devices */
/** @{ */
TAVRO_PLATFORM_API BOOL BASS_Init(int device, DWORD freq, DWORD flags, void *win, const void *dsguid);
TAVRO_PLATFORM_API BOOL BASS_Free(void);
TAVRO_PLATFORM_API BOOL BASS_Start(void);
TAVRO_PLATFORM_API BOOL BASS_Stop(void);
TAVRO_PLATFORM_API BOOL BASS_Pause(void);
TAVRO_PLATFORM_API DWORD BASS_GetVersion(void);
TAVRO_PLATFORM_API int BASS_ErrorGetCode(void);
TAVRO_PLATFORM_API BOOL BASS_SetConfig(DWORD option, DWORD value);
TAVRO_PLATFORM_API DWORD BASS_GetConfig(DWORD option);
TAVRO_PLATFORM_API BOOL BASS_SetConfigPtr(DWORD option, const void *value);
TAVRO_PLATFORM_API const void *BASS_GetConfigPtr(DWORD option);
TAVRO_PLATFORM_API BOOL BASS_GetDeviceInfo(DWORD device, BASS_DEVICEINFO *info);
TAVRO_PLATFORM_API BOOL BASS_SetDevice(DWORD device);
TAVRO_PLATFORM_API DWORD BASS_GetDevice(void);
TAVRO_PLATFORM_API BOOL BASS_GetInfo(BASS_INFO *info);
TAVRO_PLATFORM_API float BASS_GetCPU(void);
/** @} */


/** @name Plug-ins */
/** @{ */
TAVRO_PLATFORM_API HPLUGIN BASS_PluginLoad(const char *file, DWORD flags);
TAVRO_PLATFORM_API BOOL BASS_PluginFree(HPLUGIN handle);
TAVRO_PLATFORM_API const BASS_PLUGININFO *BASS_PluginGetInfo(HPLUGIN handle);
/** @} */

/** @name Streams */
/** @{ */
TAVRO_PLATFORM_API HSTREAM BASS_StreamCreateFile(BOOL mem, const void *file, QWORD offset, QWORD length, DWORD flags);
TAVRO_PLATFORM_API HSTREAM BASS_StreamCreate(DWORD freq, DWORD chans, DWORD flags, STREAMPROC *proc, void *user);
TAVRO_PLATFORM_API DWORD BASS_StreamPutData(HSTREAM handle, const void *buffer, DWORD length);
TAVRO_PLATFORM_API BOOL BASS_StreamFree(HSTREAM handle);
/** @} */

/** @name Tracker modules */
/** @{ */
TAVRO_PLATFORM_API HMUSIC BASS_MusicLoad(BOOL mem, const void *file, QWORD offset, DWORD length, DWORD flags, DWORD freq);
TAVRO_PLATFORM_API BOOL BASS_MusicFree(HMUSIC handle);
/** @} */

/** @name Channels */
/** @{ */
TAVRO_PLATFORM_API BOOL BASS_ChannelPlay(DWORD handle, BOOL restart);
TAVRO_PLATFORM_API BOOL BASS_ChannelStart(DWORD handle);
TAVRO_PLATFORM_API BOOL BASS_ChannelPause(DWORD handle);
TAVRO_PLATFORM_API BOOL BASS_ChannelStop(DWORD handle);
TAVRO_PLATFORM_API DWORD BASS_ChannelIsActive(DWORD handle);
TAVRO_PLATFORM_API BOOL BASS_ChannelFree(DWORD handle);
TAVRO_PLATFORM_API BOOL BASS_ChannelGetInfo(DWORD handle, BASS_CHANNELINFO *info);
TAVRO_PLATFORM_API DWORD BASS_ChannelFlags(DWORD handle, DWORD flags, DWORD mask);
TAVRO_PLATFORM_API QWORD BASS_ChannelGetLength(DWORD handle, DWORD mode);
TAVRO_PLATFORM_API QWORD BASS_ChannelGetPosition(DWORD handle, DWORD mode);
TAVRO_PLATFORM_API BOOL BASS_ChannelSetPosition(DWORD handle, QWORD pos, DWORD mode);
TAVRO_PLATFORM_API double BASS_ChannelBytes2Seconds(DWORD handle, QWORD pos);
TAVRO_PLATFORM_API QWORD BASS_ChannelSeconds2Bytes(DWORD handle, double pos);
TAVRO_PLATFORM_API BOOL BASS_ChannelSetAttribute(DWORD handle, DWORD attrib, float value);
TAVRO_PLATFORM_API BOOL BASS_ChannelGetAttribute(DWORD handle, DWORD attrib, float *value);
TAVRO_PLATFORM_API BOOL BASS_ChannelSlideAttribute(DWORD handle, DWORD attrib, float value, DWORD time);
TAVRO_PLATFORM_API BOOL BASS_ChannelIsSliding(DWORD handle, DWORD attrib);
TAVRO_PLATFORM_API HDSP BASS_ChannelSetDSP(DWORD handle, DSPPROC *proc, void *user, int priority);
TAVRO_PLATFORM_API HDSP BASS_ChannelSetDSPEx(DWORD handle, DSPPROC *proc, void *user, int priority, DWORD flags);
TAVRO_PLATFORM_API BOOL BASS_ChannelRemoveDSP(DWORD handle, HDSP dsp);
TAVRO_PLATFORM_API HFX BASS_ChannelSetFX(DWORD handle, DWORD type, int priority);
TAVRO_PLATFORM_API BOOL BASS_ChannelRemoveFX(DWORD handle, HFX fx);
TAVRO_PLATFORM_API BOOL BASS_FXSetParameters(HFX handle, const void *params);
TAVRO_PLATFORM_API BOOL BASS_FXGetParameters(HFX handle, void *params);
TAVRO_PLATFORM_API BOOL BASS_FXSetPriority(HFX handle, int priority);
TAVRO_PLATFORM_API BOOL BASS_FXSetBypass(HFX handle, BOOL bypass);
TAVRO_PLATFORM_API BOOL BASS_FXReset(DWORD handle);
TAVRO_PLATFORM_API HSYNC BASS_ChannelSetSync(DWORD handle, DWORD type, QWORD param, SYNCPROC *proc, void *user);
TAVRO_PLATFORM_API BOOL BASS_ChannelRemoveSync(DWORD handle, HSYNC sync);
TAVRO_PLATFORM_API DWORD BASS_ChannelGetData(DWORD handle, void *buffer, DWORD length);
TAVRO_PLATFORM_API DWORD BASS_ChannelGetLevel(DWORD handle);
TAVRO_PLATFORM_API BOOL BASS_ChannelGetLevelEx(DWORD handle, float *levels, float length, DWORD flags);
TAVRO_PLATFORM_API const char *BASS_ChannelGetTags(DWORD handle, DWORD tags);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
