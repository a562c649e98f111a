/** @file
 * The interface between the platform and its format plug-in modules.
 *
 * A module is a shared library that exports tavro_plugin_entry(). The
 * platform loads it with BASS_PluginLoad and asks it which format families it
 * adds; streams of those families open only while the module is loaded.
 */
#ifndef TAVRO_PLATFORM_PLUGIN_H
#define TAVRO_PLATFORM_PLUGIN_H

#include "bass.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TAVRO_PLUGIN_ABI 1

typedef struct {
    DWORD abi;                    /**< TAVRO_PLUGIN_ABI */
    BASS_PLUGININFO info;         /**< what BASS_PluginGetInfo reports */
    const char *const *families;  /**< format families added, NULL-terminated:
                                     "flac", "wavpack", "opus", "dsd", "ape", "webm",
                                     "hls", "midi", "mpc", "tta" */
} TAVRO_PLUGIN;

typedef const TAVRO_PLUGIN *(TAVRO_PLUGIN_ENTRY)(void);

#ifdef __cplusplus
}
#endif

#endif
