#include "bpm/BeatAnalysis.hpp"

#include "core/RealFft.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tavro::platform::bpm {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr size_t kSpectrumSlack = RealFft::kSlack;

size_t nextPow2(size_t v) {
    size_t p = 1;
    while (p < v) p <<= 1;
    return p;
}

bool usable(double v) { return std::isfinite(v) && v > 0.0; }

// Natural log for finite x >= 1, to ~1e-7 relative. The library log is the
// bulk of the detector's cost (one per bin per hop on the audio thread); this
// one has no branches or table look-ups, so the bin loop vectorises.
inline float logAtLeastOne(float x) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    // Exponent chosen so the mantissa lands in [1/sqrt2, sqrt2), where the
    // atanh series below converges fastest.
    const uint32_t e = (bits - 0x3f3504f3u) >> 23;
    bits -= e << 23;
    float m;
    std::memcpy(&m, &bits, sizeof m);
    const float s = (m - 1.0f) / (m + 1.0f);
    const float s2 = s * s;
    const float series = 2.0f * s * (1.0f + s2 * (1.0f / 3.0f + s2 * (1.0f / 5.0f + s2 * (1.0f / 7.0f))));
    return static_cast<float>(e) * 0.69314718f + series;
}

} // namespace

// ---------------------------------------------------------------------------
// OnsetDetector

struct OnsetDetector::Transform : RealFft {
    using RealFft::RealFft;
};

namespace {
// Large enough that a section 10 dB quieter still sits well above the knee of
// log(1 + C|X|), so flux depends on level ratios rather than absolute level.
constexpr float kCompression = 1000.0f;
// Bins above this add cymbal detail but little beat information.
constexpr double kTopFrequency = 16000.0;
constexpr size_t kBinBlock = 8;
static_assert(kBinBlock <= kSpectrumSlack);
} // namespace

OnsetDetector::OnsetDetector(double sampleRate, unsigned channels)
    : sampleRate_(usable(sampleRate) ? std::clamp(sampleRate, 1000.0, 1536000.0) : 44100.0),
      channels_(channels == 0 ? 1 : channels), channelGain_(1.0f / static_cast<float>(channels_)) {
    // ~23 ms at 44.1 kHz: short enough to separate sixteenths at fast tempos,
    // long enough to resolve a kick's fundamental.
    frameSize_ = nextPow2(static_cast<size_t>(std::ceil(0.02 * sampleRate_)));
    frameSize_ = std::max<size_t>(frameSize_, 64);
    hop_ = frameSize_ / 4;
    frame_.assign(frameSize_, 0.0f);
    fill_ = frameSize_ - hop_;

    window_.resize(frameSize_);
    double windowSum = 0.0;
    for (size_t i = 0; i < frameSize_; ++i) {
        window_[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * kPi * (static_cast<double>(i) + 0.5) /
                                                              static_cast<double>(frameSize_)));
        windowSum += window_[i];
    }
    // A full-scale sine reads as magnitude ~1 whatever the frame size.
    magScale_ = static_cast<float>(2.0 / windowSum);

    const double binHz = sampleRate_ / static_cast<double>(frameSize_);
    firstBin_ = std::max<size_t>(1, static_cast<size_t>(std::floor(30.0 / binHz)));
    lastBin_ = std::min(frameSize_ / 2, static_cast<size_t>(std::ceil(kTopFrequency / binHz)));
    if (lastBin_ < firstBin_) lastBin_ = firstBin_;
    const size_t bandBins = lastBin_ - firstBin_ + 1;
    const size_t paddedEnd = firstBin_ + (bandBins + kBinBlock - 1) / kBinBlock * kBinBlock; // one past
    weight_.assign(paddedEnd, 0.0f);
    double weightSum = 0.0;
    for (size_t k = firstBin_; k <= lastBin_; ++k) {
        // Roughly equal weight per octave above ~150 Hz, so the many bins of
        // a cymbal do not outvote the few bins of a kick.
        const double f = static_cast<double>(k) * binHz;
        const double w = 1.0 / (1.0 + std::pow(f / 150.0, 1.15));
        weight_[k] = static_cast<float>(w);
        weightSum += w;
    }
    // Normalised to the weight a 44.1 kHz frame would carry so the envelope's
    // scale does not depend on the sample rate.
    for (float& w : weight_) w = static_cast<float>(w * 4.0 / weightSum);
    prevLog_.assign(paddedEnd, 0.0f);
    lastBin_ = paddedEnd - 1;
    fft_ = std::make_unique<Transform>(frameSize_, false);
}

OnsetDetector::~OnsetDetector() = default;

double OnsetDetector::latencySeconds() const {
    // Envelope value i is produced once (i + 1) * hop samples have arrived, so
    // its window ends there. A sharp onset gives the largest flux when it is
    // about a third of the way into the window from its newest end.
    return (static_cast<double>(hop_) - 0.32 * static_cast<double>(frameSize_)) / sampleRate_;
}

void OnsetDetector::reset() {
    std::fill(frame_.begin(), frame_.end(), 0.0f);
    std::fill(prevLog_.begin(), prevLog_.end(), 0.0f);
    fill_ = frameSize_ - hop_;
}

float OnsetDetector::analyseFrame() {
    float flux = 0.0f;
    if (fft_->ok()) {
        float* in = fft_->real();
        for (size_t i = 0; i < frameSize_; ++i) in[i] = frame_[i] * window_[i];
        fft_->run();
        const AVComplexFloat* bins = fft_->spectrum();
        // Compressing power rather than magnitude gives the same log slope
        // above the knee and spares a square root per bin.
        const float gain = kCompression * kCompression * magScale_ * magScale_;
        const float* weight = weight_.data();
        float* prev = prevLog_.data();
        // Fixed-size blocks let the compiler vectorise the bin loop even
        // where it will not vectorise loops of unknown length; bins past the
        // band carry zero weight.
        float acc[kBinBlock] = {};
        for (size_t k0 = firstBin_; k0 + kBinBlock <= lastBin_ + 1; k0 += kBinBlock) {
            for (size_t j = 0; j < kBinBlock; ++j) {
                const size_t k = k0 + j;
                const float power = bins[k].re * bins[k].re + bins[k].im * bins[k].im;
                const float l = 0.5f * logAtLeastOne(1.0f + gain * power);
                const float d = l - prev[k];
                prev[k] = l;
                acc[j] += weight[k] * std::max(d, 0.0f);
            }
        }
        for (float a : acc) flux += a;
        if (!std::isfinite(flux)) flux = 0.0f;
    }
    std::memmove(frame_.data(), frame_.data() + hop_, (frameSize_ - hop_) * sizeof(float));
    fill_ = frameSize_ - hop_;
    return flux;
}

// ---------------------------------------------------------------------------
// Envelope analysis

namespace {

// Onset envelope with its slowly varying floor removed and its level evened
// out, so that a quiet section's onsets count as much as a loud one's.
std::vector<float> conditionEnvelope(const float* env, size_t n, double fr) {
    std::vector<float> x(n);
    for (size_t i = 0; i < n; ++i) {
        const float v = env[i];
        x[i] = (std::isfinite(v) && v > 0.0f) ? std::min(v, 1e6f) : 0.0f;
    }
    if (n == 0) return x;

    std::vector<double> prefix(n + 1, 0.0);
    for (size_t i = 0; i < n; ++i) prefix[i + 1] = prefix[i] + x[i];
    const size_t meanHalf = std::max<size_t>(1, static_cast<size_t>(0.25 * fr));
    std::vector<float> y(n);
    for (size_t i = 0; i < n; ++i) {
        const size_t a = i >= meanHalf ? i - meanHalf : 0;
        const size_t b = std::min(n, i + meanHalf + 1);
        const double mean = (prefix[b] - prefix[a]) / static_cast<double>(b - a);
        y[i] = std::max(0.0f, static_cast<float>(x[i] - mean));
    }

    for (size_t i = 0; i < n; ++i) prefix[i + 1] = prefix[i] + static_cast<double>(y[i]) * y[i];
    const double globalRms = std::sqrt(prefix[n] / static_cast<double>(n));
    if (!(globalRms > 1e-12)) {
        std::fill(y.begin(), y.end(), 0.0f);
        return y;
    }
    const size_t rmsHalf = std::max<size_t>(1, static_cast<size_t>(2.0 * fr));
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) {
        const size_t a = i >= rmsHalf ? i - rmsHalf : 0;
        const size_t b = std::min(n, i + rmsHalf + 1);
        const double local = std::sqrt((prefix[b] - prefix[a]) / static_cast<double>(b - a));
        // The floor keeps near-silent passages from being blown up to full
        // strength noise.
        out[i] = static_cast<float>(y[i] / std::max(local, 0.2 * globalRms));
    }
    return out;
}

// Normalised autocorrelation (r[0] = 1), unbiased for the shrinking overlap,
// lags 0..maxLag. Computed block by block with transforms of a fixed size
// set by maxLag, so the cost grows linearly with the envelope and the memory
// does not grow at all: each block of B values is correlated with itself and
// the maxLag values after it, and the cross spectra are summed before a
// single inverse transform.
std::vector<double> autocorrelation(const std::vector<float>& x, size_t maxLag) {
    const size_t n = x.size();
    std::vector<double> r(maxLag + 1, 0.0);
    if (n < 2 || maxLag >= n) return r;
    double mean = 0.0;
    for (float v : x) mean += v;
    mean /= static_cast<double>(n);

    // A transform of m points correlates a block of m - maxLag values with
    // the m values from its start without wrapping round.
    const size_t m = std::min(nextPow2(n + maxLag + 1), std::max<size_t>(1024, nextPow2(4 * (maxLag + 1))));
    const size_t block = m - maxLag;
    RealFft head(m, false);
    RealFft span(m, false);
    RealFft inv(m, true);
    if (!head.ok() || !span.ok() || !inv.ok()) return r;
    std::vector<double> re(m / 2 + 1, 0.0), im(m / 2 + 1, 0.0);
    for (size_t start = 0; start < n; start += block) {
        const size_t own = std::min(block, n - start);
        const size_t reach = std::min(m, n - start);
        float* a = head.real();
        float* b = span.real();
        for (size_t i = 0; i < reach; ++i) b[i] = static_cast<float>(x[start + i] - mean);
        std::fill(b + reach, b + m, 0.0f);
        std::copy(b, b + own, a);
        std::fill(a + own, a + m, 0.0f);
        head.run();
        span.run();
        const AVComplexFloat* sa = head.spectrum();
        const AVComplexFloat* sb = span.spectrum();
        // conj(A) * B: the correlation of the block with what follows it.
        for (size_t k = 0; k <= m / 2; ++k) {
            re[k] += static_cast<double>(sa[k].re) * sb[k].re + static_cast<double>(sa[k].im) * sb[k].im;
            im[k] += static_cast<double>(sa[k].re) * sb[k].im - static_cast<double>(sa[k].im) * sb[k].re;
        }
    }
    AVComplexFloat* p = inv.spectrum();
    for (size_t k = 0; k <= m / 2; ++k) {
        p[k].re = static_cast<float>(re[k]);
        p[k].im = static_cast<float>(im[k]);
    }
    inv.run();
    const float* out = inv.real();
    const double zero = out[0] / static_cast<double>(n);
    if (!(zero > 0.0)) return r;
    for (size_t l = 0; l <= maxLag; ++l) r[l] = out[l] / static_cast<double>(n - l) / zero;
    return r;
}

// Whether the envelope holds at least a few distinct onsets: a steady tone
// leaves only a faint ripple (well under 0.1 even at high rates), which the
// level normalisation would otherwise blow up into a pattern, and a lone click
// is one onset, which has no period.
bool hasOnsets(const float* env, size_t n, double fr) {
    constexpr double kOnsetFloor = 0.1;
    constexpr int kNeeded = 4;
    const size_t half = std::max<size_t>(1, static_cast<size_t>(0.25 * fr));
    const size_t gap = std::max<size_t>(1, static_cast<size_t>(0.1 * fr));
    auto value = [env](size_t i) { return std::isfinite(env[i]) ? static_cast<double>(env[i]) : 0.0; };
    double sum = 0.0; // of the values in [a, b), the window around i
    size_t a = 0, b = 0;
    int found = 0;
    size_t next = 0; // onsets closer than `gap` count once
    for (size_t i = 0; i < n; ++i) {
        for (; b < std::min(n, i + half + 1); ++b) sum += value(b);
        for (; a + half < i; ++a) sum -= value(a);
        if (i >= next && value(i) - sum / static_cast<double>(b - a) > kOnsetFloor) {
            next = i + gap;
            if (++found >= kNeeded) return true;
        }
    }
    return false;
}

// Preference for moderate tempos (log-normal, centred on 120 BPM, one octave
// wide): it decides only between metrical levels that the periodicity
// evidence leaves close, as listeners tap the level nearest a comfortable
// rate when several are equally plausible.
double tempoPrior(double bpm) {
    const double o = std::log2(bpm / 120.0);
    return std::exp(-0.5 * o * o);
}

class TempoSearch {
  public:
    TempoSearch(const float* env, size_t n, double fr, double minBpm, double maxBpm)
        : fr_(fr), minBpm_(minBpm), maxBpm_(maxBpm) {
        if (!hasOnsets(env, n, fr)) return;
        // The metrical levels around the range are searched too, so that the
        // answer inside it can be an octave of a beat outside it.
        lowBpm_ = std::min(minBpm_, 40.0);
        highBpm_ = std::min(std::max(maxBpm_, 320.0), 15.0 * fr_);
        cond_ = conditionEnvelope(env, n, fr);
        const double slowest = period(lowBpm_);
        const double longest = std::min(0.67 * static_cast<double>(n), 12.0 * fr_);
        maxLag_ = static_cast<size_t>(std::max(0.0, std::floor(std::max(longest, 1.2 * period(minBpm_)))));
        if (maxLag_ + 2 >= n || period(minBpm_) + 2.0 > static_cast<double>(maxLag_)) {
            maxLag_ = 0;
            return;
        }
        // Levels slower than the data can show are left out of the search.
        if (slowest + 2.0 > static_cast<double>(maxLag_))
            lowBpm_ = 60.0 * fr_ / (static_cast<double>(maxLag_) - 2.0);
        acf_ = autocorrelation(cond_, maxLag_);
        // A light smoothing makes the comb tolerant of a frame of jitter while
        // keeping the peak centred.
        smooth_.assign(acf_.size(), 0.0);
        for (size_t i = 0; i < acf_.size(); ++i) {
            const double a = acf_[i > 0 ? i - 1 : 0];
            const double b = acf_[std::min(i + 1, acf_.size() - 1)];
            smooth_[i] = 0.25 * a + 0.5 * acf_[i] + 0.25 * b;
        }
        const size_t halfWidth = std::max<size_t>(1, static_cast<size_t>(std::lround(0.012 * fr_)));
        dilated_.resize(n);
        for (size_t i = 0; i < n; ++i) {
            const size_t a = i >= halfWidth ? i - halfWidth : 0;
            const size_t b = std::min(n - 1, i + halfWidth);
            dilated_[i] = *std::max_element(cond_.begin() + static_cast<std::ptrdiff_t>(a),
                                            cond_.begin() + static_cast<std::ptrdiff_t>(b) + 1);
        }
    }

    double run() {
        if (maxLag_ == 0) return 0.0;
        // The reference level: the strongest periodicity over a wide band,
        // weighted towards moderate tempos. The comb favours slow levels
        // (each of their lags is also a lag of the faster ones), so on its
        // own it would settle on bars; the weighting brings it back to the
        // level a listener taps.
        // Log-spaced, equal relative precision everywhere: a comb peak is
        // about one frame in 12 s wide, some 5e-4 in relative terms.
        constexpr double kStep = 2.5e-4;
        double ref = 0.0, refScore = 0.0;
        for (double b = lowBpm_; b <= highBpm_ * (1.0 + 1e-12); b *= 1.0 + kStep) {
            const double s = score(b);
            if (s > refScore) {
                refScore = s;
                ref = b;
            }
        }
        // Nothing repeats at all: no candidate to offer. Otherwise the best
        // candidate is returned however weak the evidence is.
        if (!(refScore > 0.0)) return 0.0;
        ref = refine(ref, 0.0015, lowBpm_, highBpm_);

        // Dense music makes the levels at 2:3, 4:3, 3:4 and 3:2 of the beat
        // score nearly as well on the comb (their lags fall on the beat's
        // subdivisions), and which family of levels wins is then down to
        // noise. The comb looks only at slower levels (multiples of the
        // period); the envelope's spectrum at the first harmonics looks at
        // the faster ones (the subdivisions). A level that is truly the beat
        // is strong on both, so their product settles the family.
        double family = ref, familyScore = score(ref) * harmonics(ref);
        for (double f : {2.0 / 3, 4.0 / 3, 3.0 / 4, 3.0 / 2}) {
            const double t = ref * f;
            if (t < lowBpm_ || t > highBpm_) continue;
            const double c = refine(t, 0.006, lowBpm_, highBpm_);
            if (const double s = score(c) * harmonics(c); s > familyScore) {
                familyScore = s;
                family = c;
            }
        }
        if (family != ref) {
            // The new family's best octave is the reference.
            ref = family;
            for (double f : {0.25, 0.5, 2.0, 4.0}) {
                const double t = family * f;
                if (t < lowBpm_ || t > highBpm_) continue;
                if (const double c = refine(t, 0.006, lowBpm_, highBpm_); score(c) > score(ref)) ref = c;
            }
        }

        // The beat inside the range: the reference's octaves first, as music
        // groups its pulses in twos far more often than in threes. Threefold
        // relations are offered only when no octave fits the range.
        double chosen = 0.0, chosenScore = -1.0;
        auto consider = [&](double t) {
            if (t < minBpm_ * 0.985 || t > maxBpm_ * 1.015) return;
            const double c = refine(std::clamp(t, minBpm_, maxBpm_), 0.015, minBpm_, maxBpm_);
            const double s = score(c);
            if (s > chosenScore) {
                chosenScore = s;
                chosen = c;
            }
        };
        for (double f : {1.0 / 8, 1.0 / 4, 1.0 / 2, 1.0, 2.0, 4.0, 8.0}) consider(ref * f);
        if (chosen <= 0.0)
            for (double f : {1.0 / 12, 1.0 / 6, 1.0 / 3, 3.0 / 4, 3.0 / 2, 3.0, 6.0, 12.0, 2.0 / 3, 4.0 / 3})
                consider(ref * f);
        if (chosen <= 0.0) {
            // A range narrower than any simple ratio: its best point.
            double best = minBpm_, bestScore = -1.0;
            for (double b = minBpm_; b <= maxBpm_ * (1.0 + 1e-12); b *= 1.0 + kStep)
                if (const double s = score(b); s > bestScore) {
                    bestScore = s;
                    best = b;
                }
            consider(best);
        }
        if (chosen <= 0.0) return 0.0;

        // Octaves apart, the two levels can score alike; then the faster one
        // is the beat when the slower one's in-between points carry real
        // weight (a kick and snare alternation is two beats, a kick followed
        // by a quiet hat is a beat and its off-beat). Off-beat cymbals
        // measure below ~0.2 of the beats here; a second drum on the
        // in-between points, even on only half of them, measures ~0.5. Dense
        // music fills the in-between points too, so the faster level is not
        // taken beyond the rates people tap at: a 95 BPM song with busy
        // eighths is not a 190 BPM one.
        constexpr double kFastestTap = 180.0;
        const double faster = chosen * 2.0;
        if (faster <= std::min(maxBpm_, kFastestTap) * 1.015) {
            const double f = refine(std::min(faster, maxBpm_), 0.015, minBpm_, maxBpm_);
            const Strength s = grid(chosen, 2);
            if (s.on > 0.0 && s.mid >= 0.33 * s.on && score(f) >= 0.7 * chosenScore) chosen = f;
        }
        return std::clamp(refine(chosen, 0.004, minBpm_, maxBpm_), minBpm_, maxBpm_);
    }

  private:
    struct Strength {
        double on = 0.0;
        double mid = 0.0;
    };

    double period(double bpm) const { return 60.0 * fr_ / bpm; }

    double acfAt(double lag) const {
        const size_t i = static_cast<size_t>(lag);
        if (i + 1 >= smooth_.size()) return 0.0;
        const double f = lag - static_cast<double>(i);
        return smooth_[i] + f * (smooth_[i + 1] - smooth_[i]);
    }

    // Mean autocorrelation at every multiple of the period that fits: the long
    // multiples pin the period down to a small fraction of a frame.
    double comb(double bpm) const {
        const double p = period(bpm);
        double sum = 0.0;
        int k = 0;
        for (int m = 1;; ++m) {
            const double lag = p * m;
            if (lag > static_cast<double>(maxLag_) - 1.0) break;
            sum += acfAt(lag);
            ++k;
        }
        return k > 0 ? sum / k : -1.0;
    }

    double score(double bpm) const { return comb(bpm) * tempoPrior(bpm); }

    // Mean power of the envelope's spectrum at the first four harmonics of
    // the tempo, read off the autocorrelation (tapered to the lags it has).
    double harmonics(double bpm) const {
        const double last = static_cast<double>(smooth_.size() - 1);
        double sum = 0.0;
        for (int h = 1; h <= 4; ++h) {
            const double w = 2.0 * kPi * h * bpm / 60.0 / fr_;
            double s = 0.0;
            for (size_t l = 1; l < smooth_.size(); ++l) {
                const double lag = static_cast<double>(l);
                s += smooth_[l] * (0.5 + 0.5 * std::cos(kPi * lag / last)) * std::cos(w * lag);
            }
            sum += std::max(0.0, smooth_[0] + 2.0 * s);
        }
        return sum / 4.0;
    }

    // Best comb score within +-span (relative) of bpm, kept inside [lo, hi]:
    // a coarse pass, then a fine one around its best point.
    double refine(double bpm, double span, double lo, double hi) const {
        double best = std::clamp(bpm, lo, hi), bestScore = comb(best);
        for (const double step : {1.0e-4, 1.0e-5}) {
            const double centre = best;
            const double from = std::max(lo, centre * (1.0 - span));
            const double to = std::min(hi, centre * (1.0 + span));
            for (double b = from; b <= to; b *= 1.0 + step) {
                const double s = comb(b);
                if (s > bestScore) {
                    bestScore = s;
                    best = b;
                }
            }
            span = std::min(span, 1.5e-4);
        }
        return best;
    }

    // Mean onset strength on the beats of a grid at `bpm` (phase fitted per
    // segment so that a slightly wrong tempo does not drift off the beats),
    // and at the points dividing each beat into `sub` parts.
    Strength grid(double bpm, int sub) const {
        const double p = period(bpm);
        const size_t n = dilated_.size();
        const double segLen = std::max(4.0 * p, 6.0 * fr_);
        Strength total;
        double weightSum = 0.0;
        for (double s0 = 0.0; s0 + 2.0 * p <= static_cast<double>(n); s0 += segLen) {
            const double end = std::min(static_cast<double>(n), s0 + segLen);
            double bestOn = -1.0, bestPhase = 0.0;
            for (double ph = 0.0; ph < p; ph += 1.0) {
                double sum = 0.0;
                int count = 0;
                for (double x = s0 + ph; x < end; x += p) {
                    sum += dilated_[static_cast<size_t>(x)];
                    ++count;
                }
                if (count > 0 && sum / count > bestOn) {
                    bestOn = sum / count;
                    bestPhase = ph;
                }
            }
            double midSum = 0.0;
            int midCount = 0;
            for (double x = s0 + bestPhase; x < end; x += p) {
                for (int j = 1; j < sub; ++j) {
                    const double y = x + p * j / sub;
                    if (y >= end) break;
                    midSum += dilated_[static_cast<size_t>(y)];
                    ++midCount;
                }
            }
            const double w = end - s0;
            total.on += std::max(0.0, bestOn) * w;
            total.mid += (midCount > 0 ? midSum / midCount : 0.0) * w;
            weightSum += w;
        }
        if (weightSum > 0.0) {
            total.on /= weightSum;
            total.mid /= weightSum;
        }
        return total;
    }

    double fr_;
    double minBpm_;
    double maxBpm_;
    double lowBpm_ = 0.0;  // the band searched for the reference level
    double highBpm_ = 0.0;
    size_t maxLag_ = 0;
    std::vector<float> cond_;
    std::vector<float> dilated_;
    std::vector<double> acf_;
    std::vector<double> smooth_;
};

} // namespace

double estimateTempo(const float* envelope, size_t count, double frameRate, double minBpm, double maxBpm) {
    if (envelope == nullptr || count < 4 || !usable(frameRate) || !usable(minBpm) || !usable(maxBpm) ||
        maxBpm < minBpm)
        return 0.0;
    // A tempo whose period is under two envelope frames cannot be resolved.
    maxBpm = std::min(maxBpm, 30.0 * frameRate);
    if (maxBpm < minBpm) return 0.0;
    TempoSearch search(envelope, count, frameRate, minBpm, maxBpm);
    const double t = search.run();
    return std::isfinite(t) ? t : 0.0;
}

namespace {
// Beats in envelope frames (fractional, latency not applied).
std::vector<double> trackBeatFrames(const float* envelope, size_t count, double frameRate, double bpm) {
    std::vector<double> beats;
    if (envelope == nullptr || !usable(frameRate) || !usable(bpm)) return beats;
    const double p = 60.0 * frameRate / bpm;
    if (!(p >= 2.0) || p * 1.5 > static_cast<double>(count)) return beats;
    const std::vector<float> c = conditionEnvelope(envelope, count, frameRate);
    const size_t n = c.size();

    // Dynamic programming over beat sequences: each beat adds its onset
    // strength, each gap is charged by how far its log-ratio to the period
    // strays, so the path follows onsets without wandering off tempo.
    constexpr double kTightness = 100.0;
    const size_t lo = std::max<size_t>(1, static_cast<size_t>(std::floor(0.5 * p)));
    const size_t hi = static_cast<size_t>(std::ceil(2.0 * p));
    std::vector<double> penalty(hi + 1, 0.0);
    for (size_t d = lo; d <= hi; ++d) {
        const double l = std::log(static_cast<double>(d) / p);
        penalty[d] = -kTightness * l * l;
    }
    std::vector<double> score(n);
    std::vector<std::ptrdiff_t> prev(n, -1);
    for (size_t i = 0; i < n; ++i) {
        double best = 0.0;
        std::ptrdiff_t from = -1;
        if (i >= lo) {
            const size_t dMax = std::min(hi, i);
            for (size_t d = lo; d <= dMax; ++d) {
                const double v = score[i - d] + penalty[d];
                if (v > best) {
                    best = v;
                    from = static_cast<std::ptrdiff_t>(i - d);
                }
            }
        }
        score[i] = c[i] + best;
        prev[i] = from;
    }
    // End on the best-scoring frame of the last period: later frames have no
    // successors to vouch for them.
    const size_t tailStart = n - std::min(n, static_cast<size_t>(std::ceil(p)));
    size_t end = tailStart;
    for (size_t i = tailStart; i < n; ++i)
        if (score[i] > score[end]) end = i;
    std::vector<size_t> idx;
    for (std::ptrdiff_t i = static_cast<std::ptrdiff_t>(end); i >= 0; i = prev[static_cast<size_t>(i)])
        idx.push_back(static_cast<size_t>(i));
    std::reverse(idx.begin(), idx.end());

    // Beats padded through silence before the first and after the last onset
    // are the path's filler, not beats.
    std::vector<float> strength(idx.size());
    for (size_t k = 0; k < idx.size(); ++k) strength[k] = c[idx[k]];
    std::vector<float> sorted = strength;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2),
                     sorted.end());
    const float floor = sorted.empty() ? 0.0f : 0.3f * sorted[sorted.size() / 2];
    size_t first = 0, last = idx.size();
    while (first < last && !(strength[first] > floor)) ++first;
    while (last > first && !(strength[last - 1] > floor)) --last;

    const size_t reach = std::max<size_t>(1, static_cast<size_t>(std::lround(0.02 * frameRate)));
    for (size_t k = first; k < last; ++k) {
        // Snap to the nearest local maximum and interpolate its sub-frame
        // position; the transition penalty cannot tell neighbouring frames apart.
        size_t b = idx[k];
        const size_t a = b >= reach ? b - reach : 0;
        const size_t e = std::min(n - 1, b + reach);
        for (size_t i = a; i <= e; ++i)
            if (c[i] > c[b]) b = i;
        double pos = static_cast<double>(b);
        if (b > 0 && b + 1 < n) {
            const double y0 = c[b - 1], y1 = c[b], y2 = c[b + 1];
            const double den = y0 - 2.0 * y1 + y2;
            if (den < 0.0) pos += std::clamp(0.5 * (y0 - y2) / den, -0.5, 0.5);
        }
        if (beats.empty() || pos > beats.back() + 0.25 * p) beats.push_back(pos);
    }
    return beats;
}
} // namespace

std::vector<double> trackBeats(const float* envelope, size_t count, double frameRate, double latencySeconds,
                               double bpm) {
    std::vector<double> frames = trackBeatFrames(envelope, count, frameRate, bpm);
    const double latency = std::isfinite(latencySeconds) ? latencySeconds : 0.0;
    std::vector<double> out;
    out.reserve(frames.size());
    for (double f : frames) {
        const double t = f / frameRate + latency;
        if (t >= 0.0) out.push_back(t);
    }
    return out;
}

// ---------------------------------------------------------------------------
// LiveTracker

LiveTracker::LiveTracker(double frameRate, double latencySeconds, double windowSeconds)
    : frameRate_(usable(frameRate) ? frameRate : 1.0), latency_(std::isfinite(latencySeconds) ? latencySeconds : 0.0) {
    const double seconds = usable(windowSeconds) ? std::clamp(windowSeconds, 4.0, 120.0) : 10.0;
    capacity_ = std::max<size_t>(16, static_cast<size_t>(std::ceil(seconds * frameRate_)));
    ring_.assign(capacity_, 0.0f);
    linear_.reserve(capacity_);
}

void LiveTracker::push(const float* env, size_t n) {
    if (env == nullptr) return;
    for (size_t i = 0; i < n; ++i) {
        const float v = env[i];
        ring_[head_] = std::isfinite(v) ? v : 0.0f;
        head_ = head_ + 1 == capacity_ ? 0 : head_ + 1;
    }
    total_ += n;
}

void LiveTracker::reset() {
    std::fill(ring_.begin(), ring_.end(), 0.0f);
    head_ = 0;
    total_ = 0;
    tempo_ = 0.0;
    tempoAt_ = 0;
    pendingTempo_ = 0.0;
    pendingEvidence_ = 0.0;
    lastReported_ = -1e300;
}

const std::vector<float>& LiveTracker::window() {
    const size_t avail = static_cast<size_t>(std::min<uint64_t>(total_, capacity_));
    linear_.resize(avail);
    const size_t start = (head_ + capacity_ - avail) % capacity_;
    for (size_t i = 0; i < avail; ++i) linear_[i] = ring_[(start + i) % capacity_];
    return linear_;
}

double LiveTracker::tempo(double minBpm, double maxBpm) {
    if (usable(minBpm) && usable(maxBpm) && maxBpm >= minBpm &&
        (minBpm != minBpm_ || maxBpm != maxBpm_)) {
        minBpm_ = minBpm;
        maxBpm_ = maxBpm;
        tempo_ = 0.0; // a new range invalidates the octave held so far
        pendingTempo_ = 0.0;
        tempoAt_ = 0;
    }
    return currentTempo();
}

double LiveTracker::currentTempo() {
    if (static_cast<double>(total_) < 3.0 * frameRate_) return 0.0;
    if (tempoAt_ == total_ && tempo_ > 0.0) return tempo_;
    const std::vector<float>& w = window();
    const double est = estimateTempo(w.data(), w.size(), frameRate_, minBpm_, maxBpm_);
    // Evidence is weighed in envelope time, not in calls, so how often the
    // caller polls does not change how sticky the reading is.
    const double elapsed = std::min(static_cast<double>(total_ - tempoAt_), frameRate_);
    tempoAt_ = total_;
    if (est <= 0.0) return tempo_ = 0.0;
    auto near = [](double a, double b) { return std::abs(a / b - 1.0) < 0.04; };
    if (tempo_ <= 0.0 || near(est, tempo_)) {
        tempo_ = est;
        pendingEvidence_ = std::max(0.0, pendingEvidence_ - elapsed);
        return tempo_;
    }
    bool related = false;
    for (double r : {0.5, 2.0, 1.0 / 3, 3.0, 2.0 / 3, 1.5})
        if (near(est, tempo_ * r)) related = true;
    if (!related) {
        // Not a metrical reinterpretation: the music itself changed.
        tempo_ = est;
        pendingEvidence_ = 0.0;
        return tempo_;
    }
    if (pendingTempo_ <= 0.0 || !near(est, pendingTempo_)) pendingEvidence_ = 0.0;
    pendingTempo_ = est;
    pendingEvidence_ += elapsed;
    if (pendingEvidence_ >= kSwitchSeconds * frameRate_) {
        tempo_ = est;
        pendingTempo_ = 0.0;
        pendingEvidence_ = 0.0;
    }
    return tempo_;
}

void LiveTracker::takeNewBeats(std::vector<double>& out) {
    const double bpm = currentTempo();
    if (bpm <= 0.0) return;
    const std::vector<float>& w = window();
    const std::vector<double> frames = trackBeatFrames(w.data(), w.size(), frameRate_, bpm);
    const double p = 60.0 * frameRate_ / bpm;
    const double start = static_cast<double>(total_ - w.size());
    // The path's last beats still depend on onsets yet to come; half a period
    // of look-ahead settles them.
    const double settled = static_cast<double>(total_) - 1.0 - 0.5 * p;
    const double minGap = 0.5 * p / frameRate_;
    for (double f : frames) {
        const double abs = start + f;
        if (abs > settled) break;
        const double t = abs / frameRate_ + latency_;
        if (t < 0.0 || t <= lastReported_ + minGap) continue;
        out.push_back(t);
        lastReported_ = t;
    }
}

} // namespace tavro::platform::bpm
