// Process-wide configuration values.
//
// Threading: any thread may read or write; values are atomics, strings and
// pointers are guarded by a small mutex and copied out.
#pragma once

#include "bass.h"

#include <atomic>
#include <optional>
#include <string>

namespace tavro::platform {

struct Config {
    static bool set(DWORD option, DWORD value);  // false + error on unknown/invalid
    static std::optional<DWORD> get(DWORD option);
    static bool setPtr(DWORD option, const void* value);
    static const void* getPtr(DWORD option);

    // Typed readers for the engine's own use.
    static DWORD value(DWORD option);
    static std::string agent();
    static std::string proxy();
    static DEVNOTIFYPROC* deviceNotify();
    static IOSNOTIFYPROC* sessionNotify();
};

} // namespace tavro::platform
