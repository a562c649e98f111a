#include <tavro/dsp/TavroDSPBiquad.hpp>

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>

std::shared_ptr<TavroDSPBiquad> TavroDSPBiquad::init() {
    return std::make_shared<TavroDSPBiquad>();
}

TavroDSPBiquad::~TavroDSPBiquad() {
    delete[] heapZ_;
}

std::shared_ptr<TavroDSPBiquad> TavroDSPBiquad::makeFresh() const {
    return init();
}

std::shared_ptr<TavroDSPNode> TavroDSPBiquad::copy() const {
    auto node = makeFresh();
    node->setEnabled(enabled());
    node->setCutoff(cutoff());
    node->setResonance(resonance());
    node->setGainDB(gainDB());
    return node;
}

bool TavroDSPBiquad::ensureChannels(uint64_t channels) {
    if (zChannels_ == channels) return true;
    delete[] heapZ_;
    heapZ_ = nullptr;
    z1_ = z2_ = nullptr;
    zChannels_ = 0;
    double* z = inlineZ_;
    if (channels > kInlineChannels) {
        // Only layouts wider than 7.1 get here; a failure must not throw on
        // the audio thread, so the block is left alone instead.
        z = heapZ_ = new (std::nothrow) double[2 * channels]();
        if (!z) return false;
    } else {
        std::fill(std::begin(inlineZ_), std::end(inlineZ_), 0.0);
    }
    z1_ = z;
    z2_ = z + channels;
    zChannels_ = channels;
    return true;
}

void TavroDSPBiquad::computeCoefficientsForSampleRate(double fs) {
    // Each parameter is read once, so the comparison and the formulas see the
    // same values even when a setter runs meanwhile.
    const double cutoff = cutoff_.get();
    const double resonance = resonance_.get();
    const double gain = gainDB_.get();
    if (computedSR_ == fs && computedCutoff_ == cutoff && computedQ_ == resonance && computedGain_ == gain)
        return;

    const double w0 = cutoff * 2.0 * std::numbers::pi / fs;
    const double sn = std::sin(w0), c = std::cos(w0);
    // The limit is the 32-bit 0.1, the value a caller setting 0.1 stores, so
    // that anything below it filters exactly as 0.1 does.
    constexpr double kMinQ = 0.1f;
    const double q = resonance < kMinQ ? kMinQ : resonance;
    const double alpha = sn / (2.0 * q);
    const double A = std::pow(10.0, gain / 40.0);
    const double r = 2.0 * std::sqrt(A) * alpha;

    double b0 = 1, b1 = 0, b2 = 0, a0 = 1, a1 = 0, a2 = 0;
    switch (kind()) {
    case TavroDSPNodeKindLowPass:
        b0 = (1 - c) / 2, b1 = 1 - c, b2 = (1 - c) / 2;
        a0 = 1 + alpha, a1 = -2 * c, a2 = 1 - alpha;
        break;
    case TavroDSPNodeKindHighPass:
        b0 = (1 + c) / 2, b1 = -(1 + c), b2 = (1 + c) / 2;
        a0 = 1 + alpha, a1 = -2 * c, a2 = 1 - alpha;
        break;
    case TavroDSPNodeKindBandPass:
        b0 = alpha, b1 = 0, b2 = -alpha;
        a0 = 1 + alpha, a1 = -2 * c, a2 = 1 - alpha;
        break;
    case TavroDSPNodeKindNotch:
        b0 = 1, b1 = -2 * c, b2 = 1;
        a0 = 1 + alpha, a1 = -2 * c, a2 = 1 - alpha;
        break;
    case TavroDSPNodeKindLowShelf:
        b0 = A * ((A + 1) - (A - 1) * c + r);
        b1 = 2 * A * ((A - 1) - (A + 1) * c);
        b2 = A * ((A + 1) - (A - 1) * c - r);
        a0 = (A + 1) + (A - 1) * c + r;
        a1 = -2 * ((A - 1) + (A + 1) * c);
        a2 = (A + 1) + (A - 1) * c - r;
        break;
    case TavroDSPNodeKindHighShelf:
        b0 = A * ((A + 1) + (A - 1) * c + r);
        b1 = -2 * A * ((A - 1) + (A + 1) * c);
        b2 = A * ((A + 1) + (A - 1) * c - r);
        a0 = (A + 1) - (A - 1) * c + r;
        a1 = 2 * ((A - 1) - (A + 1) * c);
        a2 = (A + 1) - (A - 1) * c - r;
        break;
    case TavroDSPNodeKindPeaking:
        b0 = 1 + alpha * A, b1 = -2 * c, b2 = 1 - alpha * A;
        a0 = 1 + alpha / A, a1 = -2 * c, a2 = 1 - alpha / A;
        break;
    default:
        break;
    }
    b0_ = b0 / a0, b1_ = b1 / a0, b2_ = b2 / a0, a1_ = a1 / a0, a2_ = a2 / a0;
    computedSR_ = fs, computedCutoff_ = cutoff, computedQ_ = resonance, computedGain_ = gain;
}

void TavroDSPBiquad::processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                             uint64_t sampleRate) {
    if (!enabled()) return;
    if (!ensureChannels(channels)) return;
    computeCoefficientsForSampleRate(static_cast<double>(sampleRate));
    const double b0 = b0_, b1 = b1_, b2 = b2_, a1 = a1_, a2 = a2_;

    // Transposed direct form II. Mono and stereo keep the memory in registers
    // (the two channels' recursions then overlap in the pipeline); the
    // arithmetic is the same in every path.
    if (channels == 2) {
        double l1 = z1_[0], l2 = z2_[0], r1 = z1_[1], r2 = z2_[1];
        for (uint64_t i = 0; i < frames; ++i) {
            const double xl = samples[2 * i], xr = samples[2 * i + 1];
            const double yl = b0 * xl + l1, yr = b0 * xr + r1;
            l1 = b1 * xl - a1 * yl + l2, r1 = b1 * xr - a1 * yr + r2;
            l2 = b2 * xl - a2 * yl, r2 = b2 * xr - a2 * yr;
            samples[2 * i] = static_cast<float>(yl), samples[2 * i + 1] = static_cast<float>(yr);
        }
        z1_[0] = l1, z2_[0] = l2, z1_[1] = r1, z2_[1] = r2;
    } else if (channels == 1) {
        double s1 = z1_[0], s2 = z2_[0];
        for (uint64_t i = 0; i < frames; ++i) {
            const double x = samples[i];
            const double y = b0 * x + s1;
            s1 = b1 * x - a1 * y + s2;
            s2 = b2 * x - a2 * y;
            samples[i] = static_cast<float>(y);
        }
        z1_[0] = s1, z2_[0] = s2;
    } else {
        for (uint64_t i = 0; i < frames; ++i) {
            float* frame = samples + i * channels;
            for (uint64_t ch = 0; ch < channels; ++ch) {
                const double x = frame[ch];
                const double y = b0 * x + z1_[ch];
                z1_[ch] = b1 * x - a1 * y + z2_[ch];
                z2_[ch] = b2 * x - a2 * y;
                frame[ch] = static_cast<float>(y);
            }
        }
    }
}
