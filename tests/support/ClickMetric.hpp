// How loud a click is, as a listener hears it on a steady low tone.
//
// A cut in a tone (a gain step, a jump in a filter's state, a gap) spreads
// energy over the whole spectrum, while the tone itself lies far below 8 kHz.
// So what passes a steep 8 kHz high-pass is the click: its peak, in dB
// relative to the tone's peak. A hard gain step from 1 to 0.5 at a crest of a
// 440 Hz tone reads about -16 dB, the same step crossfaded over 10 ms about
// -75 dB; from about -50 dB up a listener hears a click.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavro::test {

// Peak above 8 kHz of channel-interleaved `v` over frames [from, to), in dB
// relative to `peak` (the worst channel). The filter runs from frame 0, so
// `from` should leave it time to settle past the signal's own start.
inline double clickDb(const std::vector<float>& v, unsigned chans, double rate, double peak, size_t from = 0,
                      size_t to = SIZE_MAX) {
    // Eighth-order Butterworth high-pass as four cookbook sections.
    constexpr std::array<double, 4> kQ = {0.50980, 0.60134, 0.89998, 2.56292};
    const double w0 = 2 * M_PI * 8000 / rate, cw = std::cos(w0), sw = std::sin(w0);
    const size_t frames = v.size() / chans;
    to = std::min(to, frames);
    double worst = 0;
    for (unsigned c = 0; c < chans; ++c) {
        struct Section {
            double b0, b1, b2, a1, a2, z1 = 0, z2 = 0;
        };
        std::array<Section, 4> s{};
        for (size_t k = 0; k < kQ.size(); ++k) {
            const double alpha = sw / (2 * kQ[k]), a0 = 1 + alpha;
            s[k] = {(1 + cw) / 2 / a0, -(1 + cw) / a0, (1 + cw) / 2 / a0, -2 * cw / a0, (1 - alpha) / a0};
        }
        for (size_t i = 0; i < to; ++i) {
            double x = v[i * chans + c];
            for (auto& q : s) {
                const double y = q.b0 * x + q.z1;
                q.z1 = q.b1 * x - q.a1 * y + q.z2;
                q.z2 = q.b2 * x - q.a2 * y;
                x = y;
            }
            if (i >= from) worst = std::max(worst, std::fabs(x));
        }
    }
    return 20 * std::log10(worst / peak + 1e-12);
}

} // namespace tavro::test
