// Modulated effects: the DX8 chorus and flanger, the BFX chorus, auto-wah,
// phaser and rotate.
#include "bass_fx.h"
#include "effects/Effect.hpp"

#include <algorithm>
#include <vector>

namespace tavro::platform {
namespace {

inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

constexpr double kTwoPi = 2 * M_PI;

// A delay line read at fractional positions (linear interpolation).
struct FracLines {
    FracLines(size_t frames, unsigned chans) : size(frames + 2), chans(chans), buf(size * chans, 0.0f) {}
    float tap(unsigned c, double delay) const {
        delay = std::clamp(delay, 1.0, static_cast<double>(size - 2));
        const double at = static_cast<double>(pos + size) - delay;
        const size_t i0 = static_cast<size_t>(at);
        const float frac = static_cast<float>(at - static_cast<double>(i0));
        const float a = buf[(i0 % size) * chans + c], b = buf[((i0 + 1) % size) * chans + c];
        return a + (b - a) * frac;
    }
    void put(unsigned c, float v) { buf[pos * chans + c] = v; }
    void advance() { pos = pos + 1 == size ? 0 : pos + 1; }
    void clear() { std::fill(buf.begin(), buf.end(), 0.0f); }
    const size_t size;
    const unsigned chans;
    std::vector<float> buf;
    size_t pos = 0;
};

// -1..1 at phase p (radians): a sine (shape 1), a triangle of the same period
// (shape 0), or a blend of the two while the waveform changes.
inline double lfo(double p, double shape) {
    const double t = std::fmod(p / kTwoPi + 0.25, 1.0); // aligned with the sine's zero crossing
    const double tri = t < 0.5 ? 4 * t - 1 : 3 - 4 * t;
    return shape == 0 ? tri : tri + (std::sin(p) - tri) * shape;
}

// The DX8 chorus and flanger are one design with different delay ranges: a
// delay swept by an LFO around its centre by `depth` percent, mixed with the
// dry signal; odd (right) channels run the LFO `phase` steps of 90 degrees
// apart from even ones. A new waveform or phase moves the LFO there over the
// glide time: a jump of the swept delay would go round the feedback loop.
template <typename Rec, int kMaxDelayMs> struct SweptDelay {
    using Params = Rec;
    using State = Rec;
    SweptDelay(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * 2 * kMaxDelayMs / 1000) + 4, chans),
          d_(chans), morph_(1 / std::max(1.0, rate * kGlideSeconds)) {}
    bool merge(State& s, const Params& p) const {
        if (!within(p.fWetDryMix, 0, 100) || !within(p.fDepth, 0, 100) || !within(p.fFeedback, -99, 99) ||
            !within(p.fFrequency, 0, 10) || p.lWaveform > 1 || !within(p.fDelay, 0, float(kMaxDelayMs)) ||
            p.lPhase > BASS_DX8_PHASE_180)
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    // The swept delay is read between samples, so its centre glides too.
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fWetDryMix}, Lin{&State::fDepth}, Lin{&State::fFeedback},
                           Lin{&State::fFrequency}, Lin{&State::fDelay}, Own{&State::lWaveform},
                           Own{&State::lPhase});
    }
    void configure(const State& s) {
        wet_ = s.fWetDryMix / 100;
        fb_ = s.fFeedback / 100;
        centre_ = s.fDelay * rate_ / 1000;
        swing_ = centre_ * s.fDepth / 100;
        step_ = kTwoPi * s.fFrequency / rate_;
        shapeTo_ = s.lWaveform == 1 ? 1 : 0;
        offsetTo_ = (static_cast<double>(s.lPhase) - 2) * M_PI / 2;
        if (!started_) shape_ = shapeTo_, offset_ = offsetTo_;
    }
    void run(float* f, size_t n) {
        started_ = true;
        for (size_t i = 0; i < n; ++i) {
            if (shape_ != shapeTo_ || offset_ != offsetTo_) {
                shape_ = approach(shape_, shapeTo_, morph_);
                offset_ = approach(offset_, offsetTo_, morph_ * kTwoPi);
            }
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c) {
                const double p = phase_ + ((c & 1) ? offset_ : 0);
                d_[c] = lines_.tap(c, centre_ + swing_ * lfo(p, shape_));
            }
            for (unsigned c = 0; c < chans_; ++c) {
                lines_.put(c, fr[c] + fb_ * d_[c]);
                fr[c] = fr[c] * (1 - wet_) + d_[c] * wet_;
            }
            lines_.advance();
            phase_ += step_;
            if (phase_ >= kTwoPi) phase_ -= kTwoPi;
        }
    }
    void reset() {
        lines_.clear();
        phase_ = 0;
        shape_ = shapeTo_, offset_ = offsetTo_;
    }
    static double approach(double v, double to, double step) {
        return v < to ? std::min(to, v + step) : std::max(to, v - step);
    }

    const double rate_;
    const unsigned chans_;
    FracLines lines_;
    std::vector<float> d_;
    const double morph_; // share of a full change per frame
    float wet_ = 0, fb_ = 0;
    double centre_ = 1, swing_ = 0, step_ = 0, phase_ = 0;
    double shape_ = 1, shapeTo_ = 1, offset_ = 0, offsetTo_ = 0;
    bool started_ = false;
};

struct Chorus : SweptDelay<BASS_DX8_CHORUS, 20> {
    using SweptDelay::SweptDelay;
    static State defaults(double) { return {50, 10, 25, 1.1f, 1, 16, BASS_DX8_PHASE_90}; }
};

struct Flanger : SweptDelay<BASS_DX8_FLANGER, 4> {
    using SweptDelay::SweptDelay;
    static State defaults(double) { return {50, 100, -50, 0.25f, 1, 2, BASS_DX8_PHASE_ZERO}; }
};

// The BFX chorus sweeps its delay back and forth between two values at a set
// speed (ms of delay per second).
constexpr float kMaxSweepMs = 1000;

struct BfxChorus {
    using Params = BASS_BFX_CHORUS;
    using State = BASS_BFX_CHORUS;
    BfxChorus(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * kMaxSweepMs / 1000) + 4, chans),
          d_(chans) {}
    static State defaults(double) { return {0.9f, 0.35f, 0.5f, 1, 400, 200, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fDryMix, -2, 2) || !within(p.fWetMix, -2, 2) || !within(p.fFeedback, -1, 1) ||
            !within(p.fMinSweep, 0, kMaxSweepMs) || !within(p.fMaxSweep, p.fMinSweep, kMaxSweepMs) ||
            !within(p.fRate, 0, 1000))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fDryMix}, Lin{&State::fWetMix}, Lin{&State::fFeedback},
                           Lin{&State::fMinSweep}, Lin{&State::fMaxSweep}, Lin{&State::fRate});
    }
    void configure(const State& s) {
        dry_ = s.fDryMix, wet_ = s.fWetMix, fb_ = s.fFeedback;
        lo_ = s.fMinSweep * rate_ / 1000, hi_ = s.fMaxSweep * rate_ / 1000;
        step_ = s.fRate / 1000; // samples of delay per sample
        delay_ = std::clamp(delay_, lo_, hi_);
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c)
                d_[c] = lines_.tap(c, delay_);
            for (unsigned c = 0; c < chans_; ++c) {
                lines_.put(c, fr[c] + fb_ * d_[c]);
                if (maskSelects(mask_, c)) fr[c] = fr[c] * dry_ + d_[c] * wet_;
            }
            lines_.advance();
            delay_ += up_ ? step_ : -step_;
            if (delay_ >= hi_) delay_ = hi_, up_ = false;
            if (delay_ <= lo_) delay_ = lo_, up_ = true;
        }
    }
    void reset() {
        lines_.clear();
        delay_ = lo_, up_ = true;
    }

    const double rate_;
    const unsigned chans_;
    FracLines lines_;
    std::vector<float> d_;
    float dry_ = 1, wet_ = 0, fb_ = 0;
    double lo_ = 0, hi_ = 0, step_ = 0, delay_ = 0;
    bool up_ = true;
    int mask_ = -1;
};

// Auto-wah and phaser share their record: an LFO sweeps a frequency between
// `freq` and `range` octaves above it.
bool sweepValid(const BASS_BFX_AUTOWAH& p) {
    return within(p.fDryMix, -2, 2) && within(p.fWetMix, -2, 2) && within(p.fFeedback, -1, 1) &&
           within(p.fRate, 0, 10) && within(p.fRange, 0, 10) && within(p.fFreq, 0, 1000);
}

bool sweepBlend(const BASS_BFX_AUTOWAH& a, const BASS_BFX_AUTOWAH& b, double t, BASS_BFX_AUTOWAH& out) {
    using S = BASS_BFX_AUTOWAH;
    return blendFields(a, b, t, out, Lin{&S::fDryMix}, Lin{&S::fWetMix}, Lin{&S::fFeedback}, Lin{&S::fRate},
                       Lin{&S::fRange}, Geo{&S::fFreq});
}

// A state-variable band-pass swept by the LFO; its output is fed back into
// its input.
struct AutoWah {
    using Params = BASS_BFX_AUTOWAH;
    using State = BASS_BFX_AUTOWAH;
    struct Svf {
        float low = 0, band = 0, last = 0;
    };
    AutoWah(double rate, unsigned chans) : rate_(rate), chans_(chans), z_(chans) {}
    static State defaults(double) { return {0.5f, 1.5f, 0.5f, 2, 4.3f, 50, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!sweepValid(p)) return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return sweepBlend(a, b, t, out);
    }
    void configure(const State& s) {
        p_ = s;
        step_ = kTwoPi * s.fRate / rate_;
    }
    void run(float* f, size_t n) {
        const double top = rate_ / 6; // the SVF's tuning holds up to about here
        for (size_t i = 0; i < n; ++i) {
            const double sweep = (1 - std::cos(phase_)) / 2;
            const double fc =
                std::clamp(std::max<double>(p_.fFreq, 20) * std::exp2(p_.fRange * sweep), 20.0, top);
            const float k = static_cast<float>(2 * std::sin(M_PI * fc / rate_));
            const float damping = 0.5f; // fixed resonance
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c) {
                if (!maskSelects(p_.lChannel, c)) continue;
                Svf& z = z_[c];
                const float in = fr[c] + p_.fFeedback * z.last;
                const float high = in - z.low - damping * z.band;
                z.band = undenormal(z.band + k * high);
                z.low = undenormal(z.low + k * z.band);
                // Fed back at unit gain at the centre (the band output peaks
                // at 1 / damping), so any feedback below 1 stays stable
                // instead of ringing into the clamp and distorting.
                z.last = std::clamp(z.band * damping, -4.0f, 4.0f);
                fr[c] = fr[c] * p_.fDryMix + z.band * p_.fWetMix;
            }
            phase_ += step_;
            if (phase_ >= kTwoPi) phase_ -= kTwoPi;
        }
    }
    void reset() {
        std::fill(z_.begin(), z_.end(), Svf{});
        phase_ = 0;
    }
    static float undenormal(float v) { return std::fabs(v) < 1e-25f ? 0.0f : v; }

    const double rate_;
    const unsigned chans_;
    std::vector<Svf> z_;
    State p_{};
    double step_ = 0, phase_ = 0;
};

// Four first-order all-passes whose corner the LFO sweeps; the notches come
// from mixing their output with the dry signal.
constexpr int kPhaserStages = 4;

struct Phaser {
    using Params = BASS_BFX_PHASER;
    using State = BASS_BFX_PHASER;
    struct Chan {
        float x1[kPhaserStages]{}, y1[kPhaserStages]{};
        float last = 0;
    };
    Phaser(double rate, unsigned chans) : rate_(rate), chans_(chans), z_(chans) {}
    static State defaults(double) { return {0.999f, 0.999f, 0, 1, 4, 100, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!sweepValid(p)) return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return sweepBlend(a, b, t, out);
    }
    void configure(const State& s) {
        p_ = s;
        step_ = kTwoPi * s.fRate / rate_;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            const double sweep = (1 - std::cos(phase_)) / 2;
            const double fc =
                std::clamp(std::max<double>(p_.fFreq, 20) * std::exp2(p_.fRange * sweep), 20.0, rate_ * 0.45);
            const double t = std::tan(M_PI * fc / rate_);
            const float a = static_cast<float>((t - 1) / (t + 1));
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c) {
                if (!maskSelects(p_.lChannel, c)) continue;
                Chan& z = z_[c];
                float x = fr[c] + p_.fFeedback * z.last;
                for (int s = 0; s < kPhaserStages; ++s) {
                    const float y = a * x + z.x1[s] - a * z.y1[s];
                    z.x1[s] = x, z.y1[s] = std::fabs(y) < 1e-25f ? 0.0f : y;
                    x = z.y1[s];
                }
                z.last = std::clamp(x, -4.0f, 4.0f);
                fr[c] = fr[c] * p_.fDryMix + x * p_.fWetMix;
            }
            phase_ += step_;
            if (phase_ >= kTwoPi) phase_ -= kTwoPi;
        }
    }
    void reset() {
        std::fill(z_.begin(), z_.end(), Chan{});
        phase_ = 0;
    }

    const double rate_;
    const unsigned chans_;
    std::vector<Chan> z_;
    State p_{};
    double step_ = 0, phase_ = 0;
};

// Moves the sound around each pair of channels: equal-power gains that swap
// sides `rate` times per second (negative turns the other way).
struct Rotate {
    using Params = BASS_BFX_ROTATE;
    using State = BASS_BFX_ROTATE;
    Rotate(double rate, unsigned chans) : rate_(rate), chans_(chans) {}
    static State defaults(double) { return {1, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fRate, -100, 100)) return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fRate});
    }
    void configure(const State& s) {
        step_ = kTwoPi * s.fRate / rate_;
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            const float gl = static_cast<float>(std::cos(phase_ / 2)),
                        gr = static_cast<float>(std::sin(phase_ / 2));
            float* fr = f + i * chans_;
            for (unsigned c = 0; c + 1 < chans_; c += 2) {
                const float l = fr[c], r = fr[c + 1];
                // Rotating the pair's image: at quarter turns the sides swap.
                if (maskSelects(mask_, c)) fr[c] = l * gl * gl + r * gr * gr;
                if (maskSelects(mask_, c + 1)) fr[c + 1] = r * gl * gl + l * gr * gr;
            }
            phase_ += step_;
            if (phase_ >= 2 * kTwoPi) phase_ -= 2 * kTwoPi;
            if (phase_ < 0) phase_ += 2 * kTwoPi;
        }
    }
    void reset() { phase_ = 0; }

    const double rate_;
    const unsigned chans_;
    double step_ = 0, phase_ = 0;
    int mask_ = -1;
};

} // namespace

std::shared_ptr<EffectEntry> makeModulationEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_CHORUS:
        return std::make_shared<EffectOf<Chorus>>(type, rate, chans);
    case BASS_FX_DX8_FLANGER:
        return std::make_shared<EffectOf<Flanger>>(type, rate, chans);
    case BASS_FX_BFX_CHORUS:
        return std::make_shared<EffectOf<BfxChorus>>(type, rate, chans);
    case BASS_FX_BFX_AUTOWAH:
        return std::make_shared<EffectOf<AutoWah>>(type, rate, chans);
    case BASS_FX_BFX_PHASER:
        return std::make_shared<EffectOf<Phaser>>(type, rate, chans);
    case BASS_FX_BFX_ROTATE:
        return std::make_shared<EffectOf<Rotate>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
