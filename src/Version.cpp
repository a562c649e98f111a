// The library's version, as exported constants.
#include <tavro/Version.hpp>

const double TavroCoreVersionNumber = TAVRO_VERSION_MAJOR + TAVRO_VERSION_MINOR / 10.0;
const char* const TavroCoreVersionString = TAVRO_VERSION_STRING;
static_assert(TAVRO_VERSION_MINOR < 10, "TavroCoreVersionNumber holds one digit of the minor version");
