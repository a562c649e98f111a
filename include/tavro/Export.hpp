/// @file
/// The library is built with hidden visibility: what applications may call is
/// marked with TAVRO_API, and everything else stays inside the library.
#pragma once

#if defined(__GNUC__)
#define TAVRO_API __attribute__((visibility("default")))
#else
#define TAVRO_API
#endif
