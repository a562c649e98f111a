// Variable-ratio band-limited resampler for the output mix.
//
// A Kaiser-windowed sinc kept as a finely sampled table is evaluated at any
// ratio, so the FREQ attribute can slide continuously without recomputing
// filters or allocating: the device thread only reads the table. When the
// ratio is exactly 1 and the phase whole, frames are copied unchanged.
//
// Threading: configure() on an application thread before the voice is
// published; process() on the device thread only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tavro::platform {

class SincTable {
  public:
    // zeroCrossings each side; the table holds kResolution points per crossing.
    static const SincTable& forQuality(int quality);
    int zeroCrossings() const { return zc_; }
    // Kernel value at |x| input samples (x scaled to the kernel's bandwidth).
    float at(double x) const {
        const double p = x * kResolution;
        const size_t i = static_cast<size_t>(p);
        if (i >= size_) return 0.0f;
        const float f = static_cast<float>(p - static_cast<double>(i));
        return table_[i] + f * (table_[i + 1] - table_[i]);
    }
    static constexpr int kResolution = 512;

    // Polyphase view for ratios up to maxFastRatio(): row p holds the 2*zc
    // weights for a fractional phase of p / kPhases, so one output needs
    // only a blend of two rows and a dot product.
    static constexpr int kPhases = 256;
    const float* phaseRow(int p) const { return phases_.data() + static_cast<size_t>(p) * 2 * zc_; }
    // Above this ratio the kernel must be widened to keep aliasing out.
    double maxFastRatio() const { return 1.0 / cutoff_; }

  private:
    explicit SincTable(int zc);
    int zc_;
    double cutoff_;
    size_t size_;
    std::vector<float> table_;
    std::vector<float> phases_;
};

class Resampler {
  public:
    // The highest input/output ratio served; faster playback is clamped.
    static constexpr double kMaxRatio = 8.0;
    static constexpr size_t kMaxOutBlock = 512;

    void configure(unsigned chans, int quality);
    void reset();

    // Produces up to outFrames frames. `pull(dst, n)` supplies up to n input
    // frames and returns how many it gave. Returns frames produced (fewer when
    // the input ran dry).
    template <typename Pull> size_t process(float* out, size_t outFrames, double ratio, Pull&& pull) {
        size_t done = 0;
        while (done < outFrames) {
            const size_t n = std::min(outFrames - done, kMaxOutBlock);
            const size_t got = processBlock(out + done * chans_, n, ratio, pull);
            done += got;
            if (got < n) break;
        }
        return done;
    }

    // Frames pulled but not yet fully output (lookahead), for end-of-stream flushing.
    size_t pending() const;

  private:
    template <typename Pull> size_t processBlock(float* out, size_t n, double ratio, Pull& pull);
    void compact(size_t keepFrom);
    size_t convolve(float* out, size_t n, double ratio);
    size_t convolvePolyphase(float* out, size_t n, double ratio);

    unsigned chans_ = 0;
    int quality_ = 0;
    const SincTable* table_ = nullptr;
    std::vector<float> fifo_;
    size_t fifoCap_ = 0;   // frames
    size_t fifoFrames_ = 0;
    double phase_ = 0;     // fifo time of the next output frame
    size_t history_ = 0;   // frames kept before the phase
};

template <typename Pull> size_t Resampler::processBlock(float* out, size_t n, double ratio, Pull& pull) {
    if (ratio > kMaxRatio) ratio = kMaxRatio;
    if (ratio < 1.0 / 256) ratio = 1.0 / 256;
    const bool copy = ratio == 1.0 && phase_ == static_cast<double>(static_cast<size_t>(phase_));
    const double scale = ratio > 1.0 ? 1.0 / ratio : 1.0;
    const size_t reach = copy ? 0 : static_cast<size_t>((table_ ? table_->zeroCrossings() : 1) / scale) + 2;
    // Input needed so that the last output of this block has its lookahead.
    const double lastT = phase_ + static_cast<double>(n - 1) * ratio;
    size_t need = static_cast<size_t>(lastT) + 1 + reach;
    if (need > fifoCap_) need = fifoCap_;
    if (need > fifoFrames_) {
        const size_t got = pull(fifo_.data() + fifoFrames_ * chans_, need - fifoFrames_);
        fifoFrames_ += got;
    }
    // Outputs whose window is complete.
    size_t produced;
    if (copy) {
        const size_t start = static_cast<size_t>(phase_);
        produced = std::min(n, fifoFrames_ > start ? fifoFrames_ - start : 0);
        std::copy(fifo_.begin() + static_cast<std::ptrdiff_t>(start * chans_),
                  fifo_.begin() + static_cast<std::ptrdiff_t>((start + produced) * chans_), out);
        phase_ += static_cast<double>(produced);
    } else {
        produced = convolve(out, n, ratio);
    }
    // Drop input no longer reachable by the kernel.
    const size_t keep = history_;
    const size_t base = static_cast<size_t>(phase_);
    if (base > keep) compact(base - keep);
    return produced;
}

} // namespace tavro::platform
