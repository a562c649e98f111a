// Reverbs: the DX8 four-parameter music reverb and the BFX Freeverb.
#include "bass_fx.h"
#include "effects/Effect.hpp"

#include <algorithm>
#include <array>
#include <vector>

namespace tavro::platform {
namespace {

inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

// A ring of samples read `size` samples after they were written.
struct Line {
    void init(size_t n) { buf.assign(std::max<size_t>(n, 1), 0.0f), pos = 0; }
    float out() const { return buf[pos]; }
    void in(float v) {
        buf[pos] = v;
        pos = pos + 1 == buf.size() ? 0 : pos + 1;
    }
    void clear() { std::fill(buf.begin(), buf.end(), 0.0f); }
    std::vector<float> buf;
    size_t pos = 0;
};

// Keeps a decaying state out of the denormal range, where it would cost far
// more than it contributes.
inline float undenormal(float v) {
    return std::fabs(v) < 1e-25f ? 0.0f : v;
}

// ---------------------------------------------------------------- DX8 reverb

// An eight-line feedback delay network per channel, mixed through a
// normalised Hadamard matrix. Each line's loss gives the set reverb time at
// low frequencies, and a first-order shelf in the loop gives the highs (above
// about 4 kHz) `ratio` times that. Lengths differ per channel so that channels
// decorrelate.
constexpr int kLines = 8;
constexpr double kShelfHz = 4000; // where the high-frequency ratio takes over
constexpr std::array<int, kLines> kLineLengths = {1433, 1601, 1867, 2053,
                                                  2251, 2399, 2617, 2797}; // at 44.1 kHz

struct Reverb {
    using Params = BASS_DX8_REVERB;
    using State = BASS_DX8_REVERB;
    Reverb(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(size_t(chans) * kLines), lp_(size_t(chans) * kLines, 0.0f),
          len_(size_t(chans) * kLines), loss_(len_.size(), 0.0f), high_(len_.size(), 0.0f),
          shelf_(static_cast<float>(std::exp(-2 * M_PI * std::min(kShelfHz, 0.45 * rate) / rate))) {
        for (unsigned c = 0; c < chans; ++c)
            for (int l = 0; l < kLines; ++l) {
                const auto n =
                    static_cast<size_t>(std::lround((kLineLengths[size_t(l)] + 37.0 * c) * rate / 44100));
                lines_[c * kLines + size_t(l)].init(n);
                len_[c * kLines + size_t(l)] = static_cast<double>(n);
            }
    }
    static State defaults(double) { return {0, 0, 1000, 0.001f}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fInGain, -96, 0) || !within(p.fReverbMix, -96, 0) ||
            !within(p.fReverbTime, 0.001f, 3000) || !within(p.fHighFreqRTRatio, 0.001f, 0.999f))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fInGain}, Lin{&State::fReverbMix},
                           Geo{&State::fReverbTime}, Lin{&State::fHighFreqRTRatio});
    }
    void configure(const State& s) {
        inGain_ = static_cast<float>(std::pow(10.0, s.fInGain / 20.0));
        mix_ = static_cast<float>(std::pow(10.0, s.fReverbMix / 20.0));
        // The lines' losses only when the times moved (a glide of the mix
        // re-configures at every frame).
        if (s.fReverbTime == time_ && s.fHighFreqRTRatio == ratio_) return;
        time_ = s.fReverbTime, ratio_ = s.fHighFreqRTRatio;
        const double t = s.fReverbTime / 1000.0 * rate_;
        for (size_t i = 0; i < len_.size(); ++i) {
            const double g = std::pow(10.0, -3 * len_[i] / t);
            // The extra loss of the highs, as a ratio to the loss at DC (in
            // the log domain, so that very short times give 0 rather than 0/0).
            const double r =
                std::pow(10.0, -3 * len_[i] / t * (1 / static_cast<double>(s.fHighFreqRTRatio) - 1));
            loss_[i] = static_cast<float>(g);
            high_[i] = static_cast<float>(r);
        }
    }
    void run(float* f, size_t n) {
        std::array<float, kLines> v{};
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c) {
                const size_t base = size_t(c) * kLines;
                for (int l = 0; l < kLines; ++l) {
                    const size_t k = base + size_t(l);
                    // Loss and high-frequency damping of this line's round trip:
                    // a shelf that keeps what lies below its corner and scales
                    // what lies above, so even the lowest ratio leaves the
                    // lows their full reverb time.
                    const float y = lines_[k].out() * loss_[k];
                    lp_[k] = undenormal(y * (1 - shelf_) + lp_[k] * shelf_);
                    v[size_t(l)] = lp_[k] + high_[k] * (y - lp_[k]);
                }
                float wet = 0;
                for (int l = 0; l < kLines; ++l)
                    wet += (l & 1) ? -v[size_t(l)] : v[size_t(l)];
                hadamard(v);
                const float x = fr[c] * inGain_;
                for (int l = 0; l < kLines; ++l)
                    lines_[base + size_t(l)].in(v[size_t(l)] + x);
                fr[c] += mix_ * wet * 0.25f;
            }
        }
    }
    void reset() {
        for (auto& l : lines_)
            l.clear();
        std::fill(lp_.begin(), lp_.end(), 0.0f);
    }
    // In place, scaled to keep energy: lossless before the line gains.
    static void hadamard(std::array<float, kLines>& v) {
        for (int h = 1; h < kLines; h *= 2)
            for (int i = 0; i < kLines; i += 2 * h)
                for (int j = i; j < i + h; ++j) {
                    const float a = v[size_t(j)], b = v[size_t(j + h)];
                    v[size_t(j)] = a + b, v[size_t(j + h)] = a - b;
                }
        for (auto& x : v)
            x *= 0.35355339f; // 1 / sqrt(8)
    }

    const double rate_;
    const unsigned chans_;
    std::vector<Line> lines_;
    std::vector<float> lp_;
    std::vector<double> len_;
    std::vector<float> loss_, high_; // per line: gain at DC, and the highs' share of it
    const float shelf_;              // pole of the shelf's one-pole split
    float inGain_ = 1, mix_ = 1;
    float time_ = -1, ratio_ = -1; // what loss_ and high_ were computed for
};

// ---------------------------------------------------------------- Freeverb

constexpr int kCombs = 8, kAllpasses = 4, kSpread = 23;
constexpr std::array<int, kCombs> kCombTuning = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
constexpr std::array<int, kAllpasses> kAllpassTuning = {556, 441, 341, 225};
constexpr float kFixedGain = 0.015f, kScaleDamp = 0.4f, kScaleRoom = 0.28f, kOffsetRoom = 0.7f;

// The classic Schroeder-Moorer design: channels are taken in pairs, each pair
// feeds one mono sum into two banks of combs and all-passes (the right one
// spread a few samples), and width mixes the two banks back. An odd channel
// left over gets a bank of its own.
struct Freeverb {
    using Params = BASS_BFX_FREEVERB;
    using State = BASS_BFX_FREEVERB;
    struct Bank {
        std::array<Line, kCombs> comb;
        std::array<float, kCombs> store{};
        std::array<Line, kAllpasses> allpass;
        float process(float in, float fb, float damp) {
            float out = 0;
            for (int i = 0; i < kCombs; ++i) {
                Line& l = comb[size_t(i)];
                const float y = l.out();
                store[size_t(i)] = undenormal(y * (1 - damp) + store[size_t(i)] * damp);
                l.in(in + store[size_t(i)] * fb);
                out += y;
            }
            for (int i = 0; i < kAllpasses; ++i) {
                Line& l = allpass[size_t(i)];
                const float b = l.out();
                l.in(undenormal(out + b * 0.5f));
                out = b - out;
            }
            return out;
        }
        void clear() {
            for (auto& l : comb)
                l.clear();
            for (auto& l : allpass)
                l.clear();
            store.fill(0);
        }
    };

    Freeverb(double rate, unsigned chans)
        : chans_(chans), banks_(chans), morph_(static_cast<float>(1 / std::max(1.0, rate * kGlideSeconds))) {
        const double k = rate / 44100;
        for (unsigned c = 0; c < chans; ++c) {
            const int spread = (c & 1) ? kSpread : 0;
            for (int i = 0; i < kCombs; ++i)
                banks_[c].comb[size_t(i)].init(
                    static_cast<size_t>(std::lround((kCombTuning[size_t(i)] + spread) * k)));
            for (int i = 0; i < kAllpasses; ++i)
                banks_[c].allpass[size_t(i)].init(
                    static_cast<size_t>(std::lround((kAllpassTuning[size_t(i)] + spread) * k)));
        }
    }
    static State defaults(double) { return {0, 1, 0.5f, 0.5f, 1, 0, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fDryMix, 0, 1) || !within(p.fWetMix, 0, 3) || !within(p.fRoomSize, 0, 1) ||
            !within(p.fDamp, 0, 1) || !within(p.fWidth, 0, 1) || p.lMode > BASS_BFX_FREEVERB_MODE_FREEZE)
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fDryMix}, Lin{&State::fWetMix}, Lin{&State::fRoomSize},
                           Lin{&State::fDamp}, Lin{&State::fWidth}, Own{&State::lMode});
    }
    void configure(const State& s) {
        fbOpen_ = s.fRoomSize * kScaleRoom + kOffsetRoom;
        dampOpen_ = s.fDamp * kScaleDamp;
        freezeTo_ = s.lMode == BASS_BFX_FREEVERB_MODE_FREEZE ? 1.0f : 0.0f;
        if (!started_) freeze_ = freezeTo_;
        applyFreeze();
        dry_ = s.fDryMix;
        wet1_ = s.fWetMix * (s.fWidth / 2 + 0.5f);
        wet2_ = s.fWetMix * ((1 - s.fWidth) / 2);
        mask_ = s.lChannel;
    }
    // Freezing makes the combs lossless and shuts their input, so the tail
    // rings on as it was; it comes and goes over the glide time, since a cut
    // inside the combs would ring on with them.
    void applyFreeze() {
        fb_ = fbOpen_ + (1 - fbOpen_) * freeze_;
        damp_ = dampOpen_ * (1 - freeze_);
        inGain_ = kFixedGain * (1 - freeze_);
    }
    void run(float* f, size_t n) {
        started_ = true;
        for (size_t i = 0; i < n; ++i) {
            if (freeze_ != freezeTo_) {
                freeze_ = freezeTo_ > freeze_ ? std::min(freezeTo_, freeze_ + morph_)
                                              : std::max(freezeTo_, freeze_ - morph_);
                applyFreeze();
            }
            float* fr = f + i * chans_;
            unsigned c = 0;
            for (; c + 1 < chans_; c += 2) {
                const float in = (fr[c] + fr[c + 1]) * inGain_;
                const float l = banks_[c].process(in, fb_, damp_);
                const float r = banks_[c + 1].process(in, fb_, damp_);
                if (maskSelects(mask_, c)) fr[c] = fr[c] * dry_ + l * wet1_ + r * wet2_;
                if (maskSelects(mask_, c + 1)) fr[c + 1] = fr[c + 1] * dry_ + r * wet1_ + l * wet2_;
            }
            if (c < chans_) {
                const float m = banks_[c].process(fr[c] * 2 * inGain_, fb_, damp_);
                if (maskSelects(mask_, c)) fr[c] = fr[c] * dry_ + m * (wet1_ + wet2_);
            }
        }
    }
    void reset() {
        for (auto& b : banks_)
            b.clear();
        freeze_ = freezeTo_;
        applyFreeze();
    }

    const unsigned chans_;
    std::vector<Bank> banks_;
    const float morph_; // share of a full freeze per frame
    float fbOpen_ = 0, dampOpen_ = 0, freeze_ = 0, freezeTo_ = 0;
    bool started_ = false;
    float fb_ = 0, damp_ = 0, inGain_ = 0, dry_ = 0, wet1_ = 0, wet2_ = 0;
    int mask_ = -1;
};

} // namespace

std::shared_ptr<EffectEntry> makeReverbEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_REVERB:
        return std::make_shared<EffectOf<Reverb>>(type, rate, chans);
    case BASS_FX_BFX_FREEVERB:
        return std::make_shared<EffectOf<Freeverb>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
