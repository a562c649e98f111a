// Compressors: the DX8 compressor (with look-ahead) and the BFX compressor 2.
#include "bass_fx.h"
#include "effects/Effect.hpp"

#include <algorithm>
#include <vector>

namespace tavro::platform {
namespace {

inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

// A feed-forward compressor on the peak of the selected channels, linked so
// that the stereo image does not wander. The level follows peaks at once and
// falls with the release time, so a steady tone is measured at its peak
// rather than at an average that depends on its frequency; the attack and
// release times then shape how the gain moves.
struct CompressorCore {
    explicit CompressorCore(double rate) : rate(rate) {}
    void set(float thresholdDb, float ratio, float attackMs, float releaseMs, float makeupDb) {
        thr = thresholdDb;
        slope = 1 - 1 / static_cast<double>(ratio);
        att = std::exp(-1000.0 / (std::max(attackMs, 0.001f) * rate));
        rel = std::exp(-1000.0 / (std::max(releaseMs, 0.001f) * rate));
        makeup = makeupDb;
    }
    // The gain for this frame given its peak.
    float gainFor(float peak) {
        env = std::max(static_cast<double>(peak), env * rel);
        double target = 0;
        if (env > 1e-9) {
            const double level = 20 * std::log10(env);
            if (level > thr) target = -(level - thr) * slope;
        }
        const double a = target < reduction ? att : rel;
        reduction = a * reduction + (1 - a) * target;
        return static_cast<float>(std::pow(10.0, (reduction + makeup) / 20));
    }
    void clear() { env = 0, reduction = 0; }
    const double rate;
    double thr = 0, slope = 0, att = 0, rel = 0, makeup = 0, env = 0, reduction = 0;
};

constexpr float kMaxPredelayMs = 4;

struct Compressor {
    using Params = BASS_DX8_COMPRESSOR;
    using State = BASS_DX8_COMPRESSOR;
    Compressor(double rate, unsigned chans)
        : rate_(rate), chans_(chans), core_(rate),
          size_(static_cast<size_t>(rate * kMaxPredelayMs / 1000) + 2), line_(size_ * chans, 0.0f) {}
    static State defaults(double) { return {0, 10, 200, -20, 3, 4}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fGain, -60, 60) || !within(p.fAttack, 0.01f, 500) || !within(p.fRelease, 50, 3000) ||
            !within(p.fThreshold, -60, 0) || !within(p.fRatio, 1, 100) ||
            !within(p.fPredelay, 0, kMaxPredelayMs))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    // The look-ahead is a delay: changing it crossfades.
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fGain}, Geo{&State::fAttack}, Geo{&State::fRelease},
                           Lin{&State::fThreshold}, Lin{&State::fRatio});
    }
    void configure(const State& s) {
        core_.set(s.fThreshold, s.fRatio, s.fAttack, s.fRelease, s.fGain);
        delay_ = static_cast<size_t>(std::lround(s.fPredelay * rate_ / 1000));
    }
    // The detector sees the input now; the audio it acts on comes out
    // `predelay` later, so the gain is down before a transient arrives.
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            float peak = 0;
            for (unsigned c = 0; c < chans_; ++c)
                peak = std::max(peak, std::fabs(fr[c]));
            const float g = core_.gainFor(peak);
            const size_t r = (pos_ + size_ - delay_) % size_;
            for (unsigned c = 0; c < chans_; ++c) {
                line_[pos_ * chans_ + c] = fr[c];
                fr[c] = line_[r * chans_ + c] * g;
            }
            pos_ = pos_ + 1 == size_ ? 0 : pos_ + 1;
        }
    }
    void reset() {
        std::fill(line_.begin(), line_.end(), 0.0f);
        core_.clear();
    }

    const double rate_;
    const unsigned chans_;
    CompressorCore core_;
    const size_t size_;
    std::vector<float> line_;
    size_t pos_ = 0, delay_ = 0;
};

struct Compressor2 {
    using Params = BASS_BFX_COMPRESSOR2;
    using State = BASS_BFX_COMPRESSOR2;
    Compressor2(double rate, unsigned chans) : chans_(chans), core_(rate) {}
    static State defaults(double) { return {5, -15, 3, 20, 200, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fGain, -60, 60) || !within(p.fThreshold, -60, 0) || !within(p.fRatio, 1, 100) ||
            !within(p.fAttack, 0.01f, 1000) || !within(p.fRelease, 0.01f, 5000))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fGain}, Lin{&State::fThreshold}, Lin{&State::fRatio},
                           Geo{&State::fAttack}, Geo{&State::fRelease});
    }
    void configure(const State& s) {
        core_.set(s.fThreshold, s.fRatio, s.fAttack, s.fRelease, s.fGain);
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            float peak = 0;
            for (unsigned c = 0; c < chans_; ++c)
                if (maskSelects(mask_, c)) peak = std::max(peak, std::fabs(fr[c]));
            const float g = core_.gainFor(peak);
            for (unsigned c = 0; c < chans_; ++c)
                if (maskSelects(mask_, c)) fr[c] *= g;
        }
    }
    void reset() { core_.clear(); }

    const unsigned chans_;
    CompressorCore core_;
    int mask_ = -1;
};

} // namespace

std::shared_ptr<EffectEntry> makeDynamicsEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_COMPRESSOR:
        return std::make_shared<EffectOf<Compressor>>(type, rate, chans);
    case BASS_FX_BFX_COMPRESSOR2:
        return std::make_shared<EffectOf<Compressor2>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
