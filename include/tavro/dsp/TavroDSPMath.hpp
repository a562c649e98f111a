/// @file
/// The 64-bit sine and hyperbolic tangent the nodes use. They agree with the
/// C library's to within an ulp of a double (so the 32-bit values the nodes
/// keep are the same), but are free of branches and table look-ups, so that
/// loops over a block vectorise; the C library's versions would cost most of a
/// node's time budget. Custom nodes may use them too.
///
/// Threading: pure functions; any thread.
#pragma once

#include <tavro/Export.hpp>

#include <bit>
#include <cmath>
#include <cstdint>
#include <numbers>

class TAVRO_API TavroDSPMath {
  public:
    TavroDSPMath() = delete;

    static constexpr double kTwoPi = 2.0 * std::numbers::pi;
    /// sine() reduces its argument exactly only below this; oscillate() hands
    /// larger phases to the C library.
    static constexpr double kSineRange = 1.0e5;

    /// Reduction by multiples of pi/2 split in three parts, then the classic
    /// minimax kernels for sine and cosine on [-pi/4, pi/4]; the quadrant picks
    /// one of them and the sign by bit masks, not by branches.
    static double sine(double x) {
        constexpr double kShifter = 6755399441055744.0; // 1.5 * 2^52: rounds to a whole number
        const double shifted = x * 6.36619772367581382433e-01 + kShifter;
        const double n = shifted - kShifter;
        const uint64_t quadrant = std::bit_cast<uint64_t>(shifted);
        const double r = ((x - n * 1.57079632673412561417e+00) - n * 6.07710050630396597660e-11) -
                         n * 2.02226624879595063154e-21;
        const double z = r * r;
        const double sr = 8.33333333332248946124e-03 +
                          z * (-1.98412698298579493134e-04 +
                               z * (2.75573137070700676789e-06 +
                                    z * (-2.50507602534068634195e-08 + z * 1.58969099521155010221e-10)));
        const double s = r + (z * r) * (-1.66666666666666324348e-01 + z * sr);
        const double cr =
            z * (4.16666666666666019037e-02 +
                 z * (-1.38888888888741095749e-03 +
                      z * (2.48015872894767294178e-05 +
                           z * (-2.75573143513906633035e-07 +
                                z * (2.08757232129817482790e-09 + z * -1.13596475577881948265e-11)))));
        const double half = 0.5 * z;
        const double w = 1.0 - half;
        const double c = w + (((1.0 - w) - half) + z * cr);
        const uint64_t odd = 0 - (quadrant & 1);
        const uint64_t bits = (std::bit_cast<uint64_t>(s) & ~odd) | (std::bit_cast<uint64_t>(c) & odd);
        return std::bit_cast<double>(bits ^ ((quadrant & 2) << 62));
    }

    /// tanh of a float, in 64 bits: expm1(2|v|) / (expm1(2|v|) + 2) with the
    /// sign of v. Arguments beyond 20 act as 20 (tanh is 1 in a double there);
    /// the limit is applied to the bits, which keeps NaN a NaN and, unlike a
    /// comparison, lets the loop vectorise.
    static double hyperbolicTangent(float v) {
        const uint32_t magnitude = std::bit_cast<uint32_t>(v) & 0x7FFFFFFFu;
        constexpr uint32_t kLimit = std::bit_cast<uint32_t>(20.0f);
        const uint32_t over = 0 - static_cast<uint32_t>((magnitude > kLimit) & (magnitude <= 0x7F800000u));
        const double a = std::bit_cast<float>(magnitude - ((magnitude - kLimit) & over));
        const double y = a + a;
        constexpr double kShifter = 6755399441055744.0;
        const double shifted = y * 1.4426950408889634 + kShifter;
        const double k = shifted - kShifter;
        const double r = (y - k * 6.93147180369123816490e-01) - k * 1.90821492927058770002e-10;
        // expm1(r) for |r| <= ln2 / 2, Taylor to the 13th power.
        double p = 1.0 / 6227020800.0;
        p = p * r + 1.0 / 479001600.0;
        p = p * r + 1.0 / 39916800.0;
        p = p * r + 1.0 / 3628800.0;
        p = p * r + 1.0 / 362880.0;
        p = p * r + 1.0 / 40320.0;
        p = p * r + 1.0 / 5040.0;
        p = p * r + 1.0 / 720.0;
        p = p * r + 1.0 / 120.0;
        p = p * r + 1.0 / 24.0;
        p = p * r + 1.0 / 6.0;
        p = p * r + 0.5;
        const double expm1r = r + r * r * p;
        const double twoK = std::bit_cast<double>((std::bit_cast<uint64_t>(shifted) + 1023) << 52);
        const double expm1y = (twoK - 1.0) + twoK * expm1r;
        return std::copysign(expm1y / (expm1y + 2.0), static_cast<double>(v));
    }

    /// Fills out[0..n) with the sine of an oscillator's phase, frame by frame,
    /// and returns the phase after them. Each frame uses the phase before its
    /// advance; an advance past 2 pi takes 2 pi off once.
    static double oscillate(double phase, double increment, double* out, uint64_t n) {
        bool far = false;
        for (uint64_t i = 0; i < n; ++i) {
            out[i] = phase;
            far |= !(std::fabs(phase) < kSineRange);
            phase += increment;
            if (phase > kTwoPi) phase -= kTwoPi;
        }
        if (far) {
            for (uint64_t i = 0; i < n; ++i)
                out[i] = std::sin(out[i]);
        } else {
            for (uint64_t i = 0; i < n; ++i)
                out[i] = sine(out[i]);
        }
        return phase;
    }
};
