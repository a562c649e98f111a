// One libavutil real FFT of a fixed size with its buffers, for the spectrum
// reads and the onset detector. libavutil is already linked for decoding and
// its transforms are SIMD-optimised; buffers come from av_malloc so the SIMD
// paths get the alignment they want.
//
// Threading: an instance belongs to one thread at a time; run() neither
// allocates nor locks.
#pragma once

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/tx.h>
}

#include <cstddef>

namespace tavro::platform {

class RealFft {
  public:
    // Zeroed bins past the last one, so callers may run fixed-size blocks
    // over the spectrum without a tail loop.
    static constexpr size_t kSlack = 16;

    RealFft(size_t len, bool inverse) : len_(len), inverse_(inverse) {
        const float scale = 1.0f;
        if (len < 4 || len > (size_t{1} << 28)) return;
        if (av_tx_init(&ctx_, &fn_, AV_TX_FLOAT_RDFT, inverse ? 1 : 0, static_cast<int>(len), &scale, 0) < 0) {
            ctx_ = nullptr;
            return;
        }
        real_ = static_cast<float*>(av_mallocz((len + 2) * sizeof(float)));
        spectrum_ = static_cast<AVComplexFloat*>(av_mallocz((len / 2 + 1 + kSlack) * sizeof(AVComplexFloat)));
        if (!real_ || !spectrum_) av_tx_uninit(&ctx_);
    }
    ~RealFft() {
        av_tx_uninit(&ctx_);
        av_free(real_);
        av_free(spectrum_);
    }
    RealFft(const RealFft&) = delete;
    RealFft& operator=(const RealFft&) = delete;

    bool ok() const { return ctx_ != nullptr; }
    size_t size() const { return len_; }
    // Time-domain samples: the input of a forward transform, the output of an inverse one.
    float* real() { return real_; }
    // Bins 0 .. len/2: the output of a forward transform, the input of an inverse one.
    AVComplexFloat* spectrum() { return spectrum_; }
    void run() {
        if (inverse_)
            fn_(ctx_, real_, spectrum_, sizeof(AVComplexFloat));
        else
            fn_(ctx_, spectrum_, real_, sizeof(float));
    }

  private:
    size_t len_;
    bool inverse_;
    AVTXContext* ctx_ = nullptr;
    av_tx_fn fn_ = nullptr;
    float* real_ = nullptr;
    AVComplexFloat* spectrum_ = nullptr;
};

} // namespace tavro::platform
