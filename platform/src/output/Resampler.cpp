#include "output/Resampler.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

namespace tavro::platform {

namespace {
double besselI0(double x) {
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 50; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
        if (term < 1e-12 * sum) break;
    }
    return sum;
}
} // namespace

SincTable::SincTable(int zc)
    : zc_(zc), cutoff_(zc <= 4 ? 0.86 : zc <= 8 ? 0.91 : zc <= 16 ? 0.95 : 0.97),
      size_(static_cast<size_t>(zc) * kResolution) {
    // Cut-off a little below Nyquist leaves room for the transition band;
    // beta trades stop-band depth against width (about 80 dB here).
    const double cutoff = cutoff_;
    const double beta = 8.0;
    const double i0b = besselI0(beta);
    table_.resize(size_ + 2, 0.0f);
    for (size_t i = 0; i <= size_; ++i) {
        const double x = static_cast<double>(i) / kResolution;
        const double r = x / zc;
        const double w = r >= 1.0 ? 0.0 : besselI0(beta * std::sqrt(1.0 - r * r)) / i0b;
        const double a = M_PI * x * cutoff;
        const double s = i == 0 ? cutoff : cutoff * std::sin(a) / a;
        table_[i] = static_cast<float>(s * w);
    }
    // Rows for phases 0..kPhases inclusive, so row p+1 always exists.
    const int taps = 2 * zc;
    phases_.resize(static_cast<size_t>(kPhases + 1) * taps);
    for (int p = 0; p <= kPhases; ++p) {
        const double frac = static_cast<double>(p) / kPhases;
        for (int k = 0; k < taps; ++k) {
            // Input j = floor(t) - zc + 1 + k lies at distance frac + zc - 1 - k from t.
            const double d = std::fabs(frac + zc - 1 - k);
            phases_[static_cast<size_t>(p) * taps + k] = at(d);
        }
    }
}

const SincTable& SincTable::forQuality(int quality) {
    static const SincTable t4(4), t8(8), t16(16), t32(32);
    switch (quality) {
    case 1: return t4;
    case 2: return t8;
    case 3: return t16;
    default: return t32;
    }
}

void Resampler::configure(unsigned chans, int quality) {
    chans_ = chans;
    quality_ = std::clamp(quality, 0, 4);
    table_ = quality_ == 0 ? nullptr : &SincTable::forQuality(quality_);
    const int zc = table_ ? table_->zeroCrossings() : 1;
    history_ = static_cast<size_t>(zc * kMaxRatio) + 2;
    fifoCap_ = static_cast<size_t>(kMaxOutBlock * kMaxRatio) + 2 * history_ + 8;
    fifo_.assign(fifoCap_ * chans_, 0.0f);
    reset();
}

void Resampler::reset() {
    // Start with silent history so the first output lines up with input frame 0.
    std::fill(fifo_.begin(), fifo_.end(), 0.0f);
    fifoFrames_ = history_;
    phase_ = static_cast<double>(history_);
}

size_t Resampler::pending() const {
    const double p = phase_;
    return fifoFrames_ > p ? static_cast<size_t>(static_cast<double>(fifoFrames_) - p) : 0;
}

void Resampler::compact(size_t from) {
    if (from == 0) return;
    from = std::min(from, fifoFrames_);
    std::memmove(fifo_.data(), fifo_.data() + from * chans_, (fifoFrames_ - from) * chans_ * sizeof(float));
    fifoFrames_ -= from;
    phase_ -= static_cast<double>(from);
}

size_t Resampler::convolve(float* out, size_t n, double ratio) {
    const unsigned ch = chans_;
    size_t produced = 0;
    if (!table_) {
        // Linear interpolation (quality 0).
        for (; produced < n; ++produced) {
            const size_t i = static_cast<size_t>(phase_);
            if (i + 1 >= fifoFrames_) break;
            const float f = static_cast<float>(phase_ - static_cast<double>(i));
            const float* a = fifo_.data() + i * ch;
            const float* b = a + ch;
            for (unsigned c = 0; c < ch; ++c) out[produced * ch + c] = a[c] + f * (b[c] - a[c]);
            phase_ += ratio;
        }
        return produced;
    }
    if (ratio <= table_->maxFastRatio()) return convolvePolyphase(out, n, ratio);
    const double scale = ratio > 1.0 ? 1.0 / ratio : 1.0;
    const double reach = table_->zeroCrossings() / scale;
    constexpr size_t kMaxTaps = 2 * 32 * 8 + 4;
    float weights[kMaxTaps];
    for (; produced < n; ++produced) {
        const double t = phase_;
        const long first = static_cast<long>(std::floor(t - reach)) + 1;
        const long last = static_cast<long>(std::floor(t + reach));
        if (first < 0 || last >= static_cast<long>(fifoFrames_)) break;
        const size_t taps = static_cast<size_t>(last - first + 1);
        const float gain = static_cast<float>(scale);
        for (size_t k = 0; k < taps; ++k) {
            const double d = std::fabs(t - static_cast<double>(first + static_cast<long>(k)));
            weights[k] = gain * table_->at(d * scale);
        }
        float* o = out + produced * ch;
        const float* x = fifo_.data() + static_cast<size_t>(first) * ch;
        if (ch == 2) {
            float l = 0, r = 0;
            for (size_t k = 0; k < taps; ++k) {
                l += weights[k] * x[2 * k];
                r += weights[k] * x[2 * k + 1];
            }
            o[0] = l;
            o[1] = r;
        } else {
            for (unsigned c = 0; c < ch; ++c) {
                float acc = 0;
                for (size_t k = 0; k < taps; ++k) acc += weights[k] * x[k * ch + c];
                o[c] = acc;
            }
        }
        phase_ += ratio;
    }
    return produced;
}

} // namespace tavro::platform

namespace tavro::platform {

size_t Resampler::convolvePolyphase(float* out, size_t n, double ratio) {
    const unsigned ch = chans_;
    const int zc = table_->zeroCrossings();
    const size_t taps = static_cast<size_t>(2 * zc);
    constexpr size_t kMaxTaps = 64;
    alignas(32) float w[kMaxTaps];
    size_t produced = 0;
    for (; produced < n; ++produced) {
        const double t = phase_;
        const size_t base = static_cast<size_t>(t);
        if (base + 1 < static_cast<size_t>(zc) || base + static_cast<size_t>(zc) >= fifoFrames_) break;
        const double pf = (t - static_cast<double>(base)) * SincTable::kPhases;
        const int p = static_cast<int>(pf);
        const float f = static_cast<float>(pf - p);
        const float* __restrict r0 = table_->phaseRow(p);
        const float* __restrict r1 = table_->phaseRow(p + 1);
        for (size_t k = 0; k < taps; ++k) w[k] = r0[k] + f * (r1[k] - r0[k]);
        const float* __restrict x = fifo_.data() + (base + 1 - static_cast<size_t>(zc)) * ch;
        float* o = out + produced * ch;
        if (ch == 2) {
            // Independent partial sums (taps are a multiple of 8) let the
            // compiler keep several multiply-adds in flight.
            float l[4] = {0, 0, 0, 0}, r[4] = {0, 0, 0, 0};
            for (size_t k = 0; k < taps; k += 4)
                for (size_t j = 0; j < 4; ++j) {
                    l[j] += w[k + j] * x[2 * (k + j)];
                    r[j] += w[k + j] * x[2 * (k + j) + 1];
                }
            o[0] = (l[0] + l[1]) + (l[2] + l[3]);
            o[1] = (r[0] + r[1]) + (r[2] + r[3]);
        } else if (ch == 1) {
            float a[4] = {0, 0, 0, 0};
            for (size_t k = 0; k < taps; k += 4)
                for (size_t j = 0; j < 4; ++j) a[j] += w[k + j] * x[k + j];
            o[0] = (a[0] + a[1]) + (a[2] + a[3]);
        } else {
            for (unsigned c = 0; c < ch; ++c) {
                float a = 0;
                for (size_t k = 0; k < taps; ++k) a += w[k] * x[k * ch + c];
                o[c] = a;
            }
        }
        phase_ += ratio;
    }
    return produced;
}

} // namespace tavro::platform
