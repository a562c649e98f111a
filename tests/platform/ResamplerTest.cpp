// The output resampler against the analytic signal it should reproduce.
#include "output/Resampler.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using tavro::platform::Resampler;

namespace {
// Resamples a sine of `freq` from inRate to outRate and returns the largest
// error against the ideal sine, skipping the filter's start-up.
double worstError(int quality, double freq, double inRate, double outRate) {
    Resampler r;
    r.configure(2, quality);
    size_t next = 0;
    auto pull = [&](float* dst, size_t n) {
        for (size_t i = 0; i < n; ++i, ++next) {
            const float v = static_cast<float>(std::sin(2 * M_PI * freq * static_cast<double>(next) / inRate));
            dst[2 * i] = v;
            dst[2 * i + 1] = -v;
        }
        return n;
    };
    std::vector<float> out(2 * 4800);
    const size_t got = r.process(out.data(), 4800, inRate / outRate, pull);
    EXPECT_EQ(got, 4800u);
    double worst = 0;
    for (size_t i = 200; i < got; ++i) {
        const double ideal = std::sin(2 * M_PI * freq * static_cast<double>(i) / outRate);
        worst = std::max(worst, std::fabs(out[2 * i] - ideal));
        worst = std::max(worst, std::fabs(out[2 * i + 1] + ideal));
    }
    return worst;
}
} // namespace

TEST(ResamplerTest, CopiesAtUnitRatioAndConvertsCommonRatesCleanly) {
    EXPECT_LT(worstError(2, 1000, 48000, 48000), 1e-7);
    EXPECT_LT(worstError(2, 1000, 44100, 48000), 2e-3);
    EXPECT_LT(worstError(3, 1000, 48000, 44100), 1e-3);
    EXPECT_LT(worstError(4, 5000, 22050, 48000), 1e-3);
    EXPECT_LT(worstError(1, 1000, 44100, 48000), 1e-2);
    EXPECT_LT(worstError(0, 100, 44100, 48000), 1e-3);
}

TEST(ResamplerTest, DownsamplingSuppressesContentAboveTheNewNyquist) {
    // 30 kHz in a 96 kHz stream cannot survive at 44.1 kHz; it must not alias in.
    Resampler r;
    r.configure(1, 3);
    size_t next = 0;
    auto pull = [&](float* dst, size_t n) {
        for (size_t i = 0; i < n; ++i, ++next) dst[i] = static_cast<float>(std::sin(2 * M_PI * 30000.0 * next / 96000.0));
        return n;
    };
    std::vector<float> out(4410);
    r.process(out.data(), out.size(), 96000.0 / 44100.0, pull);
    double peak = 0;
    for (size_t i = 200; i < out.size(); ++i) peak = std::max(peak, std::fabs(static_cast<double>(out[i])));
    EXPECT_LT(peak, 0.01);
}

TEST(ResamplerTest, StopsWhenTheInputRunsDryAndResumesSeamlessly) {
    Resampler r;
    r.configure(1, 2);
    size_t next = 0, allowed = 1000;
    auto pull = [&](float* dst, size_t n) {
        size_t k = 0;
        for (; k < n && next < allowed; ++k, ++next) dst[k] = static_cast<float>(std::sin(2 * M_PI * 440.0 * next / 44100.0));
        return k;
    };
    std::vector<float> out(3000);
    const size_t first = r.process(out.data(), 3000, 44100.0 / 48000.0, pull);
    EXPECT_LT(first, 3000u);
    allowed = 100000;
    const size_t second = r.process(out.data() + first, 3000 - first, 44100.0 / 48000.0, pull);
    EXPECT_EQ(first + second, 3000u);
    for (size_t i = 100; i < 3000; ++i)
        ASSERT_NEAR(out[i], std::sin(2 * M_PI * 440.0 * i / 48000.0), 2e-3) << i;
}
