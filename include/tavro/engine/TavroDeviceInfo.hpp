/// @file
/// One audio device as the platform lists it (output devices from the engine,
/// input devices from the recorder).
///
/// Threading: a plain value, copied out of the platform; safe anywhere.
#pragma once

#include <tavro/Export.hpp>

#include <cstdint>
#include <optional>
#include <string>

struct TAVRO_API TavroDeviceInfo {
    int32_t deviceID = 0;
    /// Empty when the platform gives no name.
    std::string name;
    /// Absent (not empty) when the platform gives no driver text.
    std::optional<std::string> driver;
    bool isDefault = false;
    bool isEnabled = false;

    bool operator==(const TavroDeviceInfo&) const = default;
};
