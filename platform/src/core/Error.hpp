// Per-thread error code of the platform API.
#pragma once

#include "bass.h"

namespace tavro::platform {

void setError(int code);
int lastError();

// Helpers for the API edge: set the code and return the failure value.
inline BOOL fail(int code) {
    setError(code);
    return FALSE;
}
template <typename T> inline T failWith(int code, T value) {
    setError(code);
    return value;
}
inline BOOL succeed() {
    setError(BASS_OK);
    return TRUE;
}
template <typename T> inline T succeedWith(T value) {
    setError(BASS_OK);
    return value;
}

} // namespace tavro::platform
