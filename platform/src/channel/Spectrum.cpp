#include "channel/Spectrum.hpp"

#include "bass.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/tx.h>
}

#include <array>
#include <cmath>
#include <numbers>

namespace tavro::platform {

namespace {

constexpr unsigned kSizes = 7; // 256 .. 16384
constexpr uint32_t kOptionBits = BASS_DATA_FFT_INDIVIDUAL | BASS_DATA_FFT_NOWINDOW | BASS_DATA_FFT_REMOVEDC;

// One size's transform with its window and scratch, owned by one thread.
struct Transform {
    AVTXContext* ctx = nullptr;
    av_tx_fn fn = nullptr;
    float* window = nullptr; // periodic Hann
    float* in = nullptr;
    AVComplexFloat* out = nullptr;
    float windowSum = 0;

    ~Transform() {
        av_tx_uninit(&ctx);
        av_free(window);
        av_free(in);
        av_free(out);
    }

    bool prepare(size_t n) {
        if (ctx) return true;
        window = static_cast<float*>(av_malloc(n * sizeof(float)));
        in = static_cast<float*>(av_malloc(n * sizeof(float)));
        out = static_cast<AVComplexFloat*>(av_malloc((n / 2 + 1) * sizeof(AVComplexFloat)));
        const float scale = 1.0f;
        if (!window || !in || !out ||
            av_tx_init(&ctx, &fn, AV_TX_FLOAT_RDFT, 0, static_cast<int>(n), &scale, 0) < 0) {
            av_tx_uninit(&ctx);
            return false;
        }
        double sum = 0;
        for (size_t i = 0; i < n; ++i) {
            const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n));
            window[i] = static_cast<float>(w);
            sum += w;
        }
        windowSum = static_cast<float>(sum);
        return true;
    }
};

Transform* transformFor(unsigned sizeIndex) {
    thread_local std::array<Transform, kSizes> transforms;
    Transform& t = transforms[sizeIndex];
    return t.prepare(size_t(256) << sizeIndex) ? &t : nullptr;
}

// Transforms t.in (already filled) into `out`, one magnitude every `stride` floats.
void magnitudes(Transform& t, const SpectrumRequest& req, size_t n, float* out, size_t stride) {
    if (req.removeDc) {
        double mean = 0;
        for (size_t i = 0; i < n; ++i) mean += t.in[i];
        mean /= static_cast<double>(n);
        for (size_t i = 0; i < n; ++i) t.in[i] -= static_cast<float>(mean);
    }
    float sum = static_cast<float>(n);
    if (!req.noWindow) {
        for (size_t i = 0; i < n; ++i) t.in[i] *= t.window[i];
        sum = t.windowSum;
    }
    t.fn(t.ctx, t.out, t.in, sizeof(float));
    const float scale = 2.0f / sum;
    out[0] = std::fabs(t.out[0].re) / sum;
    // Plain sqrt rather than hypot: magnitudes here never come near overflow,
    // and hypot's care costs more than the transform.
    for (size_t k = 1; k < n / 2; ++k) {
        const float re = t.out[k].re, im = t.out[k].im;
        out[k * stride] = std::sqrt(re * re + im * im) * scale;
    }
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
    if (req.individual) {
        for (unsigned c = 0; c < chans; ++c) {
            for (size_t i = 0; i < n; ++i) t->in[i] = frames[i * chans + c];
            magnitudes(*t, req, n, out + c, chans);
        }
        return true;
    }
    const float inv = 1.0f / static_cast<float>(chans);
    if (chans == 2) {
        for (size_t i = 0; i < n; ++i) t->in[i] = (frames[2 * i] + frames[2 * i + 1]) * inv;
    } else {
        for (size_t i = 0; i < n; ++i) {
            float s = 0;
            for (unsigned c = 0; c < chans; ++c) s += frames[i * chans + c];
            t->in[i] = s * inv;
        }
    }
    magnitudes(*t, req, n, out, 1);
    return true;
}

} // namespace tavro::platform
