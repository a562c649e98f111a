// Effects that shape level and waveform: DX8 distortion, BFX dynamic
// amplification and the BFX volume envelope.
#include "bass_fx.h"
#include "effects/Biquad.hpp"
#include "effects/Effect.hpp"

#include <algorithm>
#include <array>
#include <vector>

namespace tavro::platform {
namespace {

inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

// Low-pass before the shaper keeps its harmonics of high input from folding
// back; the band-pass after it is the tone control of the classic design.
struct Distortion {
    using Params = BASS_DX8_DISTORTION;
    using State = BASS_DX8_DISTORTION;
    struct Chan {
        BiquadState pre, post;
    };
    Distortion(double rate, unsigned chans) : rate_(rate), chans_(chans), z_(chans) {}
    static State defaults(double) { return {-18, 15, 2400, 2400, 8000}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fGain, -60, 0) || !within(p.fEdge, 0, 100) ||
            !within(p.fPostEQCenterFrequency, 100, 8000) || !within(p.fPostEQBandwidth, 100, 8000) ||
            !within(p.fPreLowpassCutoff, 100, 8000))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fGain}, Lin{&State::fEdge},
                           Geo{&State::fPostEQCenterFrequency}, Geo{&State::fPostEQBandwidth},
                           Geo{&State::fPreLowpassCutoff});
    }
    void configure(const State& s) {
        pre_ = designBiquad(BiquadKind::Lowpass, rate_, s.fPreLowpassCutoff, 0, 0, M_SQRT1_2, 0);
        post_ = designBiquad(BiquadKind::BandpassQ, rate_, s.fPostEQCenterFrequency, 0, 0,
                             s.fPostEQCenterFrequency / s.fPostEQBandwidth, 0);
        drive_ = 1 + s.fEdge * 0.3f;
        norm_ = 1 / std::tanh(drive_);
        gain_ = static_cast<float>(std::pow(10.0, s.fGain / 20.0));
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i)
            for (unsigned c = 0; c < chans_; ++c) {
                float& x = f[i * chans_ + c];
                const float shaped = std::tanh(drive_ * z_[c].pre.step(pre_, x)) * norm_;
                x = z_[c].post.step(post_, shaped) * gain_;
            }
    }
    void reset() { std::fill(z_.begin(), z_.end(), Chan{}); }

    const double rate_;
    const unsigned chans_;
    std::vector<Chan> z_;
    BiquadCoefs pre_, post_;
    float drive_ = 1, norm_ = 1, gain_ = 1;
};

// Dynamic amplification: brings the level towards a target. It cuts at once
// when the output would pass the target, and raises the gain slowly (`rate`
// of the gap per second) once the input has been above `quiet` for `delay`
// seconds, so that pauses are not pumped up.
constexpr float kMaxDampGain = 1000;

struct Damp {
    using Params = BASS_BFX_DAMP;
    using State = BASS_BFX_DAMP;
    Damp(double rate, unsigned chans) : rate_(rate), chans_(chans), release_(std::exp(-1 / (0.1 * rate))) {}
    static State defaults(double) { return {0.95f, 0, 0.05f, 1, 0, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fTarget, 0, 1) || !within(p.fQuiet, 0, 1) || !within(p.fRate, 0, 1) ||
            !within(p.fGain, 0, kMaxDampGain) || !within(p.fDelay, 0, 30))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    void configure(const State& s) {
        p_ = s;
        g_ = s.fGain;
        perSample_ = s.fRate / rate_;
        delayFrames_ = static_cast<uint64_t>(s.fDelay * rate_);
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            float peak = 0;
            for (unsigned c = 0; c < chans_; ++c)
                if (maskSelects(p_.lChannel, c)) peak = std::max(peak, std::fabs(fr[c]));
            env_ = std::max(static_cast<double>(peak), env_ * release_);
            if (env_ > p_.fQuiet && env_ > 1e-9) {
                loud_ = std::min(loud_ + 1, delayFrames_ + 1);
                const double want = std::min<double>(p_.fTarget / env_, kMaxDampGain);
                if (want < g_)
                    g_ = want;
                else if (loud_ > delayFrames_)
                    g_ += (want - g_) * perSample_;
            } else {
                loud_ = 0;
            }
            const float g = static_cast<float>(g_);
            for (unsigned c = 0; c < chans_; ++c)
                if (maskSelects(p_.lChannel, c)) fr[c] *= g;
        }
    }
    void reset() { env_ = 0, loud_ = 0, g_ = p_.fGain; }

    const double rate_;
    const unsigned chans_;
    const double release_;
    State p_{};
    double g_ = 1, env_ = 0, perSample_ = 0;
    uint64_t loud_ = 0, delayFrames_ = 0;
};

// The node table is a fixed part of the published state, so an envelope
// reaches the render thread without allocating; longer ones are refused.
constexpr int kMaxEnvNodes = 128;

struct VolumeEnv {
    using Params = BASS_BFX_VOLUME_ENV;
    struct State {
        int lChannel;
        int count;
        BOOL follow;
        std::array<BASS_BFX_ENV_NODE, kMaxEnvNodes> nodes;
    };
    VolumeEnv(double rate, unsigned chans) : rate_(rate), chans_(chans) {}
    static State defaults(double) { return {BASS_BFX_CHANALL, 0, FALSE, {}}; }
    bool merge(State& s, const Params& p) const {
        if (p.lNodeCount < 0 || p.lNodeCount > kMaxEnvNodes || (p.lNodeCount > 0 && !p.pNodes)) return false;
        State next{p.lChannel, p.lNodeCount, p.bFollow ? TRUE : FALSE, {}};
        for (int i = 0; i < p.lNodeCount; ++i) {
            const auto& n = p.pNodes[i];
            if (!(n.pos >= 0) || !std::isfinite(n.pos) || !within(n.val, 0, 100)) return false;
            next.nodes[size_t(i)] = n;
        }
        std::stable_sort(next.nodes.begin(), next.nodes.begin() + p.lNodeCount,
                         [](const auto& a, const auto& b) { return a.pos < b.pos; });
        s = next;
        return true;
    }
    // The nodes were the caller's and stay with the caller: only the count,
    // channels and follow flag come back.
    static void read(const State& s, Params& p) {
        p.lChannel = s.lChannel, p.lNodeCount = s.count, p.bFollow = s.follow, p.pNodes = nullptr;
    }
    void configure(const State& s) {
        s_ = s;
        clock_ = 0;
    }
    float valueAt(double t) const {
        const auto* begin = s_.nodes.data();
        const auto* end = begin + s_.count;
        const auto* hi = std::upper_bound(begin, end, t, [](double v, const auto& n) { return v < n.pos; });
        if (hi == begin) return begin->val;
        if (hi == end) return (end - 1)->val;
        const auto* lo = hi - 1;
        const double span = hi->pos - lo->pos;
        const double k = span > 0 ? (t - lo->pos) / span : 1;
        return static_cast<float>(lo->val + (hi->val - lo->val) * k);
    }
    // Following, the envelope reads the channel's own timeline, so a seek
    // (or playing backwards) moves it along.
    void run(Channel& ch, float* f, size_t n) {
        if (s_.count == 0) return;
        const double start = s_.follow ? ch.outputPosition() : clock_;
        const double dir = s_.follow ? ch.timelineDirection() : 1;
        const double perSecond = s_.follow ? static_cast<double>(ch.freq()) : rate_;
        for (size_t i = 0; i < n; ++i) {
            const float g = valueAt((start + dir * static_cast<double>(i)) / perSecond);
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c)
                if (maskSelects(s_.lChannel, c)) fr[c] *= g;
        }
        clock_ += static_cast<double>(n);
    }
    void reset() { clock_ = 0; }

    const double rate_;
    const unsigned chans_;
    State s_{};
    double clock_ = 0; // frames since the envelope was set, when not following
};

} // namespace

std::shared_ptr<EffectEntry> makeShaperEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_DISTORTION:
        return std::make_shared<EffectOf<Distortion>>(type, rate, chans);
    case BASS_FX_BFX_DAMP:
        return std::make_shared<EffectOf<Damp>>(type, rate, chans);
    case BASS_FX_BFX_VOLUME_ENV:
        return std::make_shared<EffectOf<VolumeEnv>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
