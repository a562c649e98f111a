// Second-order sections for the equalisers and filters of the effects.
//
// Threading contract: plain values; a Biquad belongs to the render thread of
// its effect, design() may run anywhere.
#pragma once

#include <cmath>

namespace tavro::platform {

enum class BiquadKind {
    Lowpass,
    Highpass,
    Bandpass,
    BandpassQ,
    Notch,
    Allpass,
    Peaking,
    LowShelf,
    HighShelf
};

struct BiquadCoefs {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0; // a0 normalised to 1
};

// The audio-EQ cookbook designs. The width comes from q when it is positive,
// else (shelves only) from the slope when that is positive, else from the
// bandwidth in octaves. The centre is kept below Nyquist so that a setting
// made for 44.1 kHz still gives a stable filter on an 8 kHz channel.
inline BiquadCoefs designBiquad(BiquadKind kind, double rate, double centre, double gainDb, double octaves,
                                double q, double slope) {
    const double f = std::fmin(std::fmax(centre, 1.0), rate * 0.49);
    const double w0 = 2 * M_PI * f / rate;
    const double cw = std::cos(w0), sw = std::sin(w0);
    const double A = std::pow(10.0, gainDb / 40);
    const bool shelf = kind == BiquadKind::LowShelf || kind == BiquadKind::HighShelf;
    double alpha;
    if (q > 0)
        alpha = sw / (2 * q);
    else if (shelf && slope > 0)
        alpha = sw / 2 * std::sqrt(std::fmax((A + 1 / A) * (1 / slope - 1) + 2, 0.0));
    else
        alpha = sw * std::sinh(std::log(2.0) / 2 * octaves * w0 / sw);
    double b0 = 1, b1 = 0, b2 = 0, a0 = 1, a1 = 0, a2 = 0;
    switch (kind) {
    case BiquadKind::Lowpass:
        b0 = (1 - cw) / 2, b1 = 1 - cw, b2 = (1 - cw) / 2, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::Highpass:
        b0 = (1 + cw) / 2, b1 = -(1 + cw), b2 = (1 + cw) / 2, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::Bandpass:
        b0 = sw / 2, b1 = 0, b2 = -sw / 2, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::BandpassQ:
        b0 = alpha, b1 = 0, b2 = -alpha, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::Notch:
        b0 = 1, b1 = -2 * cw, b2 = 1, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::Allpass:
        b0 = 1 - alpha, b1 = -2 * cw, b2 = 1 + alpha, a0 = 1 + alpha, a1 = -2 * cw, a2 = 1 - alpha;
        break;
    case BiquadKind::Peaking:
        b0 = 1 + alpha * A, b1 = -2 * cw, b2 = 1 - alpha * A, a0 = 1 + alpha / A, a1 = -2 * cw,
        a2 = 1 - alpha / A;
        break;
    case BiquadKind::LowShelf: {
        const double r = 2 * std::sqrt(A) * alpha;
        b0 = A * ((A + 1) - (A - 1) * cw + r), b1 = 2 * A * ((A - 1) - (A + 1) * cw),
        b2 = A * ((A + 1) - (A - 1) * cw - r);
        a0 = (A + 1) + (A - 1) * cw + r, a1 = -2 * ((A - 1) + (A + 1) * cw), a2 = (A + 1) + (A - 1) * cw - r;
        break;
    }
    case BiquadKind::HighShelf: {
        const double r = 2 * std::sqrt(A) * alpha;
        b0 = A * ((A + 1) + (A - 1) * cw + r), b1 = -2 * A * ((A - 1) + (A + 1) * cw),
        b2 = A * ((A + 1) + (A - 1) * cw - r);
        a0 = (A + 1) - (A - 1) * cw + r, a1 = 2 * ((A - 1) - (A + 1) * cw), a2 = (A + 1) - (A - 1) * cw - r;
        break;
    }
    }
    return {b0 / a0, b1 / a0, b2 / a0, a1 / a0, a2 / a0};
}

// Transposed direct form II in double: quiet at low centres where float
// coefficients lose the pole positions.
struct BiquadState {
    double z1 = 0, z2 = 0;
    float step(const BiquadCoefs& c, float xf) {
        const double x = xf;
        const double y = c.b0 * x + z1;
        z1 = c.b1 * x - c.a1 * y + z2;
        z2 = c.b2 * x - c.a2 * y;
        return static_cast<float>(y);
    }
};

} // namespace tavro::platform
