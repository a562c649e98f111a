#pragma once

#include <tavro/Export.hpp>
#include <tavro/VersionNumbers.hpp>

/// @name The version of the library loaded at run time
/// @{
extern TAVRO_API const double TavroCoreVersionNumber;
extern TAVRO_API const char* const TavroCoreVersionString;
/// @}
