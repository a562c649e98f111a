// Reading and measuring what the tempo and reverse stages put out.
#pragma once

#include "PlatformFixture.hpp"

#include <bass_fx.h>

#include <cstdint>
#include <vector>

namespace tavro::test {

// Frequency of a mono tone from its rising zero crossings in frames [from, to).
inline double toneHz(const std::vector<float>& v, size_t from, size_t to, double rate) {
    size_t first = 0, last = 0, count = 0;
    for (size_t i = from + 1; i < std::min(to, v.size()); ++i)
        if (v[i - 1] < 0 && v[i] >= 0) {
            if (count++ == 0) first = i;
            last = i;
        }
    return count < 2 ? 0 : static_cast<double>(count - 1) * rate / static_cast<double>(last - first);
}

inline double rms(const std::vector<float>& v, size_t from, size_t frames) {
    double acc = 0;
    for (size_t i = from; i < from + frames; ++i)
        acc += double(v[i]) * v[i];
    return std::sqrt(acc / static_cast<double>(frames));
}

inline double positionSeconds(DWORD h) {
    return BASS_ChannelBytes2Seconds(h, BASS_ChannelGetPosition(h, BASS_POS_BYTE));
}

} // namespace tavro::test
