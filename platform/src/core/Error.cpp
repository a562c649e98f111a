#include "core/Error.hpp"

namespace tavro::platform {

namespace {
thread_local int tlsError = BASS_OK;
}

void setError(int code) { tlsError = code; }
int lastError() { return tlsError; }

} // namespace tavro::platform

extern "C" int BASS_ErrorGetCode(void) { return tavro::platform::lastError(); }
