// Loaded format plug-in modules and the format families they unlock.
//
// Threading: any thread; the registry's mutex is held only for lookups.
#pragma once

#include "bass.h"

#include <string>

namespace tavro::platform {

class Plugins {
  public:
    static HPLUGIN load(const char* file);
    static bool free(HPLUGIN handle);
    static const BASS_PLUGININFO* info(HPLUGIN handle);
    // The plug-in that adds a family, or 0 when none loaded does.
    static HPLUGIN providerOf(const std::string& family);
};

} // namespace tavro::platform
