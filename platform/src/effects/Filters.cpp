// The equalisers and the biquad filter: DX8 parametric band, BFX peaking
// bands and BFX biquad.
#include "bass_fx.h"
#include "effects/Biquad.hpp"
#include "effects/Effect.hpp"

#include <array>
#include <cstring>
#include <vector>

namespace tavro::platform {
namespace {

// A range check that refuses NaN as well.
inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

// Centres beyond any channel's Nyquist are accepted and pulled below it while
// running, so that one setting serves every rate.
constexpr float kMaxCentre = 96000;

struct ParamEq {
    using Params = BASS_DX8_PARAMEQ;
    using State = BASS_DX8_PARAMEQ;
    ParamEq(double rate, unsigned chans) : rate_(rate), z_(chans) {}
    static State defaults(double) { return {8000, 12, 0}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fCenter, 80, 16000) || !within(p.fBandwidth, 1, 36) || !within(p.fGain, -15, 15))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Geo{&State::fCenter}, Lin{&State::fBandwidth}, Lin{&State::fGain});
    }
    void configure(const State& s) {
        c_ = designBiquad(BiquadKind::Peaking, rate_, s.fCenter, s.fGain, s.fBandwidth / 12.0, 0, 0);
        flat_ = s.fGain == 0;
    }
    void run(float* f, size_t n) {
        if (flat_) return;
        const size_t chans = z_.size();
        for (size_t i = 0; i < n; ++i)
            for (size_t c = 0; c < chans; ++c)
                f[i * chans + c] = z_[c].step(c_, f[i * chans + c]);
    }
    void reset() { std::fill(z_.begin(), z_.end(), BiquadState{}); }

    const double rate_;
    BiquadCoefs c_;
    bool flat_ = true;
    std::vector<BiquadState> z_;
};

// One effect holds a table of bands addressed by lBand, so that bands may be
// set one at a time; each band has its own channel mask.
constexpr int kMaxPeakBands = 32;

struct PeakEq {
    using Params = BASS_BFX_PEAKEQ;
    struct State {
        std::array<BASS_BFX_PEAKEQ, kMaxPeakBands> bands;
        uint32_t used; // bit per band that was set
    };
    PeakEq(double rate, unsigned chans) : rate_(rate), chans_(chans), z_(size_t(kMaxPeakBands) * chans) {}
    static State defaults(double) {
        State s{};
        for (auto& b : s.bands)
            b = {0, 1, 0, 1000, 0, BASS_BFX_CHANALL};
        return s;
    }
    bool merge(State& s, const Params& p) const {
        if (p.lBand < 0 || p.lBand >= kMaxPeakBands) return false;
        if (!within(p.fCenter, 1, kMaxCentre) || !within(p.fGain, -15, 15) || !within(p.fQ, 0, 100))
            return false;
        if (p.fQ == 0 && !within(p.fBandwidth, 0.1f, 10)) return false;
        s.bands[size_t(p.lBand)] = p;
        s.used |= 1u << p.lBand;
        return true;
    }
    static void read(const State& s, Params& p) {
        if (p.lBand >= 0 && p.lBand < kMaxPeakBands) p = s.bands[size_t(p.lBand)];
    }
    // A band set for the first time rises from 0 dB at its new centre.
    static bool blend(const State& a, const State& b, double t, State& out) {
        out = b;
        for (int k = 0; k < kMaxPeakBands; ++k) {
            if (!(b.used & (1u << k))) continue;
            Params from = a.bands[size_t(k)];
            if (!(a.used & (1u << k))) from = b.bands[size_t(k)], from.fGain = 0;
            if (!blendBand(from, b.bands[size_t(k)], t, out.bands[size_t(k)])) return false;
        }
        return true;
    }
    static bool blendBand(const Params& a, const Params& b, double t, Params& out) {
        return (a.fQ > 0) == (b.fQ > 0) &&
               blendFields(a, b, t, out, Geo{&Params::fCenter}, Lin{&Params::fGain}, Geo{&Params::fBandwidth},
                           Geo{&Params::fQ});
    }
    // A glide re-configures at every frame; only the bands that moved are
    // designed again.
    void configure(const State& s) {
        active_ = 0;
        for (int b = 0; b < kMaxPeakBands; ++b) {
            const auto& p = s.bands[size_t(b)];
            if (!(s.used & (1u << b)) || p.fGain == 0) continue;
            Band& d = bands_[size_t(active_++)];
            d.index = b;
            d.mask = p.lChannel;
            if (std::memcmp(&p, &designed_[size_t(b)], sizeof p) != 0) {
                designs_[size_t(b)] =
                    designBiquad(BiquadKind::Peaking, rate_, p.fCenter, p.fGain, p.fBandwidth, p.fQ, 0);
                designed_[size_t(b)] = p;
            }
            d.c = designs_[size_t(b)];
        }
    }
    void run(float* f, size_t n) {
        for (int a = 0; a < active_; ++a) {
            const Band& d = bands_[size_t(a)];
            for (unsigned c = 0; c < chans_; ++c) {
                if (!maskSelects(d.mask, c)) continue;
                BiquadState& z = z_[size_t(d.index) * chans_ + c];
                for (size_t i = 0; i < n; ++i)
                    f[i * chans_ + c] = z.step(d.c, f[i * chans_ + c]);
            }
        }
    }
    void reset() { std::fill(z_.begin(), z_.end(), BiquadState{}); }

    struct Band {
        int index = 0;
        int mask = -1;
        BiquadCoefs c;
    };
    const double rate_;
    const unsigned chans_;
    std::array<Band, kMaxPeakBands> bands_{};
    int active_ = 0;
    std::array<BASS_BFX_PEAKEQ, kMaxPeakBands> designed_{}; // what designs_ were made for (gain 0: none)
    std::array<BiquadCoefs, kMaxPeakBands> designs_{};
    std::vector<BiquadState> z_; // band-major
};

struct Bqf {
    using Params = BASS_BFX_BQF;
    using State = BASS_BFX_BQF;
    Bqf(double rate, unsigned chans) : rate_(rate), z_(chans) {}
    // A 0 dB peaking band: transparent until set.
    static State defaults(double) { return {BASS_BFX_BQF_PEAKINGEQ, 1000, 0, 1, 0, 0, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (p.lFilter < BASS_BFX_BQF_LOWPASS || p.lFilter > BASS_BFX_BQF_HIGHSHELF) return false;
        if (!within(p.fCenter, 1, kMaxCentre) || !within(p.fGain, -24, 24) || !within(p.fQ, 0, 100) ||
            !within(p.fS, 0, 1))
            return false;
        const bool shelf = p.lFilter == BASS_BFX_BQF_LOWSHELF || p.lFilter == BASS_BFX_BQF_HIGHSHELF;
        const bool widthFromBandwidth = p.fQ == 0 && !(shelf && p.fS > 0);
        if (widthFromBandwidth && !within(p.fBandwidth, 0.1f, 10)) return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    // Which of Q, slope and bandwidth sets the width cannot glide.
    static bool blend(const State& a, const State& b, double t, State& out) {
        return (a.fQ > 0) == (b.fQ > 0) && (a.fS > 0) == (b.fS > 0) &&
               blendFields(a, b, t, out, Geo{&State::fCenter}, Lin{&State::fGain}, Geo{&State::fBandwidth},
                           Geo{&State::fQ}, Lin{&State::fS});
    }
    void configure(const State& s) {
        c_ = designBiquad(static_cast<BiquadKind>(s.lFilter), rate_, s.fCenter, s.fGain, s.fBandwidth, s.fQ,
                          s.fS);
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        const unsigned chans = static_cast<unsigned>(z_.size());
        for (unsigned c = 0; c < chans; ++c) {
            if (!maskSelects(mask_, c)) continue;
            for (size_t i = 0; i < n; ++i)
                f[i * chans + c] = z_[c].step(c_, f[i * chans + c]);
        }
    }
    void reset() { std::fill(z_.begin(), z_.end(), BiquadState{}); }

    const double rate_;
    BiquadCoefs c_;
    int mask_ = -1;
    std::vector<BiquadState> z_;
};

} // namespace

std::shared_ptr<EffectEntry> makeFilterEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_PARAMEQ:
        return std::make_shared<EffectOf<ParamEq>>(type, rate, chans);
    case BASS_FX_BFX_PEAKEQ:
        return std::make_shared<EffectOf<PeakEq>>(type, rate, chans);
    case BASS_FX_BFX_BQF:
        return std::make_shared<EffectOf<Bqf>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
