// A format plug-in module. One source, built once per plug-in name with
// TAVRO_PLUGIN_ID selecting which formats the module adds.
#include "tavro_plugin.h"

namespace {



#if TAVRO_PLUGIN_ID == 1
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_FLAC, "FLAC", "*.flac;*.fla"},
                                  {BASS_CTYPE_STREAM_FLAC_OGG, "FLAC (Ogg)", "*.oga"}};
const char* const kFamilies[] = {"flac", nullptr};
#elif TAVRO_PLUGIN_ID == 2
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_WV, "WavPack", "*.wv"}};
const char* const kFamilies[] = {"wavpack", nullptr};
#elif TAVRO_PLUGIN_ID == 3
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_OPUS, "Opus", "*.opus"}};
const char* const kFamilies[] = {"opus", nullptr};
#elif TAVRO_PLUGIN_ID == 4
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_DSD, "DSD Stream File", "*.dsf"},
                                  {BASS_CTYPE_STREAM_DSD, "DSD Interchange File", "*.dff"}};
const char* const kFamilies[] = {"dsd", nullptr};
#elif TAVRO_PLUGIN_ID == 5
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_APE, "Monkey's Audio", "*.ape;*.apl"}};
const char* const kFamilies[] = {"ape", nullptr};
#elif TAVRO_PLUGIN_ID == 6
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_WEBM, "WebM", "*.webm;*.weba"},
                                  {BASS_CTYPE_STREAM_WEBM, "Matroska", "*.mka;*.mkv"}};
const char* const kFamilies[] = {"webm", nullptr};
#elif TAVRO_PLUGIN_ID == 7
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_HLS, "HTTP Live Streaming", "*.m3u8"}};
const char* const kFamilies[] = {"hls", nullptr};
#elif TAVRO_PLUGIN_ID == 8
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_MIDI, "MIDI", "*.mid;*.midi;*.rmi;*.kar"}};
const char* const kFamilies[] = {"midi", nullptr};
#elif TAVRO_PLUGIN_ID == 9
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_MPC, "Musepack", "*.mpc;*.mpp;*.mp+"}};
const char* const kFamilies[] = {"mpc", nullptr};
#elif TAVRO_PLUGIN_ID == 10
const BASS_PLUGINFORM kForms[] = {{BASS_CTYPE_STREAM_TTA, "TTA", "*.tta"}};
const char* const kFamilies[] = {"tta", nullptr};
#else
#error "unknown plug-in"
#endif

const TAVRO_PLUGIN kPlugin = {TAVRO_PLUGIN_ABI,
                              {0x02041100, static_cast<DWORD>(sizeof kForms / sizeof kForms[0]), kForms},
                              kFamilies};

} // namespace

extern "C" __attribute__((visibility("default"))) const TAVRO_PLUGIN* tavro_plugin_entry(void) { return &kPlugin; }
