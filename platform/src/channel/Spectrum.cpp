#include "channel/Spectrum.hpp"

#include "bass.h"
#include "core/RealFft.hpp"

#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

namespace tavro::platform {

namespace {

constexpr unsigned kSizes = 7; // 256 .. 16384
constexpr uint32_t kOptionBits = BASS_DATA_FFT_INDIVIDUAL | BASS_DATA_FFT_NOWINDOW | BASS_DATA_FFT_REMOVEDC;

// One size's transform with its window, owned by one thread.
struct Transform {
    std::unique_ptr<RealFft> fft;
    std::vector<float> window; // periodic Hann
    float windowSum = 0;

    bool prepare(size_t n) {
        if (fft) return fft->ok();
        fft = std::make_unique<RealFft>(n, false);
        window.resize(n);
        double sum = 0;
        for (size_t i = 0; i < n; ++i) {
            const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n));
            window[i] = static_cast<float>(w);
            sum += w;
        }
        windowSum = static_cast<float>(sum);
        return fft->ok();
    }
};

Transform* transformFor(unsigned sizeIndex) {
    thread_local std::array<Transform, kSizes> transforms;
    Transform& t = transforms[sizeIndex];
    return t.prepare(size_t(256) << sizeIndex) ? &t : nullptr;
}

// Transforms the samples already in the transform's input into `out`, one
// magnitude every `stride` floats.
void magnitudes(Transform& t, const SpectrumRequest& req, size_t n, float* out, size_t stride) {
    float* in = t.fft->real();
    if (req.removeDc) {
        double mean = 0;
        for (size_t i = 0; i < n; ++i) mean += in[i];
        mean /= static_cast<double>(n);
        for (size_t i = 0; i < n; ++i) in[i] -= static_cast<float>(mean);
    }
    float sum = static_cast<float>(n);
    if (!req.noWindow) {
        for (size_t i = 0; i < n; ++i) in[i] *= t.window[i];
        sum = t.windowSum;
    }
    t.fft->run();
    const AVComplexFloat* bins = t.fft->spectrum();
    const float scale = 2.0f / sum;
    out[0] = std::fabs(bins[0].re) / sum;
    // Plain sqrt rather than hypot: magnitudes here never come near overflow,
    // and hypot's care costs more than the transform.
    for (size_t k = 1; k < n / 2; ++k) out[k * stride] = std::sqrt(bins[k].re * bins[k].re + bins[k].im * bins[k].im) * scale;
}

} // namespace

bool parseSpectrumRequest(uint32_t length, SpectrumRequest& req) {
    if (!(length & 0x80000000u)) return false;
    const uint32_t rest = length & 0x7FFFFFFFu;
    if (rest & ~(kOptionBits | 0xFu)) return false;
    req.sizeIndex = rest & 0xFu;
    if (req.sizeIndex >= kSizes) return false;
    req.individual = rest & BASS_DATA_FFT_INDIVIDUAL;
    req.noWindow = rest & BASS_DATA_FFT_NOWINDOW;
    req.removeDc = rest & BASS_DATA_FFT_REMOVEDC;
    return true;
}

bool computeSpectrum(const SpectrumRequest& req, const float* frames, unsigned chans, float* out) {
    Transform* t = transformFor(req.sizeIndex);
    if (!t || chans == 0) return false;
    const size_t n = spectrumSize(req);
    float* in = t->fft->real();
    if (req.individual) {
        for (unsigned c = 0; c < chans; ++c) {
            for (size_t i = 0; i < n; ++i) in[i] = frames[i * chans + c];
            magnitudes(*t, req, n, out + c, chans);
        }
        return true;
    }
    const float inv = 1.0f / static_cast<float>(chans);
    if (chans == 2) {
        for (size_t i = 0; i < n; ++i) in[i] = (frames[2 * i] + frames[2 * i + 1]) * inv;
    } else {
        for (size_t i = 0; i < n; ++i) {
            float s = 0;
            for (unsigned c = 0; c < chans; ++c) s += frames[i * chans + c];
            in[i] = s * inv;
        }
    }
    magnitudes(*t, req, n, out, 1);
    return true;
}

} // namespace tavro::platform
