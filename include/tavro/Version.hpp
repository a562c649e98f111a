#pragma once

// The library's version number and version string.
extern const double TavroCoreVersionNumber;
extern const char* const TavroCoreVersionString;
