// The library's version, as exported constants.
#include <tavro/Version.hpp>

const double TavroCoreVersionNumber = 0.1;
const char* const TavroCoreVersionString = "0.1.0";
