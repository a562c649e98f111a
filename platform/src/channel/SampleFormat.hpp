// Conversions between the float frames channels render and the sample
// formats at the API edge (16-bit, 8-bit).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace tavro::platform {

inline int16_t floatToS16(float v) {
    const float s = std::clamp(v, -1.0f, 1.0f) * 32768.0f;
    return static_cast<int16_t>(std::clamp(std::lrintf(s), -32768L, 32767L));
}
inline uint8_t floatToU8(float v) {
    const float s = std::clamp(v, -1.0f, 1.0f) * 128.0f + 128.0f;
    return static_cast<uint8_t>(std::clamp(std::lrintf(s), 0L, 255L));
}

// Writes `samples` float values as `bytesPerSample` (4, 2 or 1) samples.
inline void encodeSamples(const float* in, void* out, size_t samples, unsigned bytesPerSample) {
    switch (bytesPerSample) {
    case 4:
        std::copy(in, in + samples, static_cast<float*>(out));
        break;
    case 2: {
        auto* o = static_cast<int16_t*>(out);
        for (size_t i = 0; i < samples; ++i) o[i] = floatToS16(in[i]);
        break;
    }
    default: {
        auto* o = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < samples; ++i) o[i] = floatToU8(in[i]);
    }
    }
}

inline void decodeSamples(const void* in, float* out, size_t samples, unsigned bytesPerSample) {
    switch (bytesPerSample) {
    case 4:
        std::copy(static_cast<const float*>(in), static_cast<const float*>(in) + samples, out);
        break;
    case 2: {
        const auto* s = static_cast<const int16_t*>(in);
        for (size_t i = 0; i < samples; ++i) out[i] = static_cast<float>(s[i]) / 32768.0f;
        break;
    }
    default: {
        const auto* s = static_cast<const uint8_t*>(in);
        for (size_t i = 0; i < samples; ++i) out[i] = (static_cast<float>(s[i]) - 128.0f) / 128.0f;
    }
    }
}

} // namespace tavro::platform
