// Echoes: the DX8 echo (with pan delay) and the BFX echo 4.
#include "bass_fx.h"
#include "effects/Effect.hpp"

#include <algorithm>
#include <vector>

namespace tavro::platform {
namespace {

inline bool within(float v, float lo, float hi) {
    return v >= lo && v <= hi;
}

// Delay lines are sized once for the longest delay a record may ask for, so
// that a parameter change never allocates on the render thread.
struct DelayLines {
    DelayLines(size_t frames, unsigned chans) : size(frames + 1), chans(chans), buf(size * chans, 0.0f) {}
    float tap(unsigned c, size_t delay) const {
        const size_t r = (pos + size - delay) % size;
        return buf[r * chans + c];
    }
    void put(unsigned c, float v) { buf[pos * chans + c] = v; }
    void advance() { pos = pos + 1 == size ? 0 : pos + 1; }
    void clear() {
        std::fill(buf.begin(), buf.end(), 0.0f);
        pos = 0;
    }
    const size_t size;
    const unsigned chans;
    std::vector<float> buf;
    size_t pos = 0;
};

constexpr float kMaxEchoMs = 2000;

struct Echo {
    using Params = BASS_DX8_ECHO;
    using State = BASS_DX8_ECHO;
    Echo(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * kMaxEchoMs / 1000) + 1, chans),
          d_(chans) {}
    static State defaults(double) { return {50, 50, 500, 500, FALSE}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fWetDryMix, 0, 100) || !within(p.fFeedback, 0, 100) ||
            !within(p.fLeftDelay, 1, kMaxEchoMs) || !within(p.fRightDelay, 1, kMaxEchoMs) ||
            (p.lPanDelay != 0 && p.lPanDelay != 1))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    void configure(const State& s) {
        wet_ = s.fWetDryMix / 100;
        fb_ = s.fFeedback / 100;
        left_ = std::max<size_t>(1, static_cast<size_t>(std::lround(s.fLeftDelay * rate_ / 1000)));
        right_ = std::max<size_t>(1, static_cast<size_t>(std::lround(s.fRightDelay * rate_ / 1000)));
        pan_ = s.lPanDelay != 0;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            // Even channels are left ones, odd ones right, pair by pair.
            for (unsigned c = 0; c < chans_; ++c)
                d_[c] = lines_.tap(c, (c & 1) ? right_ : left_);
            for (unsigned c = 0; c < chans_; ++c) {
                // Pan delay feeds each side's echo into the other side's line,
                // so repeats bounce between them.
                const unsigned from = (pan_ && (c ^ 1u) < chans_) ? (c ^ 1u) : c;
                lines_.put(c, fr[c] + fb_ * d_[from]);
                fr[c] = fr[c] * (1 - wet_) + d_[c] * wet_;
            }
            lines_.advance();
        }
    }
    void reset() { lines_.clear(); }

    const double rate_;
    const unsigned chans_;
    DelayLines lines_;
    std::vector<float> d_;
    float wet_ = 0, fb_ = 0;
    size_t left_ = 1, right_ = 1;
    bool pan_ = false;
};

constexpr float kMaxEcho4Seconds = 2;

struct Echo4 {
    using Params = BASS_BFX_ECHO4;
    using State = BASS_BFX_ECHO4;
    Echo4(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * kMaxEcho4Seconds) + 1, chans),
          d_(chans) {}
    static State defaults(double) { return {0.999f, 0.999f, 0.5f, 0.4f, TRUE, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fDryMix, -2, 2) || !within(p.fWetMix, -2, 2) || !within(p.fFeedback, -1, 1) ||
            !within(p.fDelay, 0, kMaxEcho4Seconds) || (p.bStereo != 0 && p.bStereo != 1))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    void configure(const State& s) {
        dry_ = s.fDryMix, wet_ = s.fWetMix, fb_ = s.fFeedback;
        delay_ = std::max<size_t>(1, static_cast<size_t>(std::lround(s.fDelay * rate_)));
        stereo_ = s.bStereo != 0;
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c)
                d_[c] = lines_.tap(c, delay_);
            for (unsigned c = 0; c < chans_; ++c) {
                if (!maskSelects(mask_, c)) continue;
                // Stereo mode feeds back across the pair: a ping-pong echo.
                const unsigned from = (stereo_ && (c ^ 1u) < chans_) ? (c ^ 1u) : c;
                lines_.put(c, fr[c] + fb_ * d_[from]);
                fr[c] = fr[c] * dry_ + d_[c] * wet_;
            }
            lines_.advance();
        }
    }
    void reset() { lines_.clear(); }

    const double rate_;
    const unsigned chans_;
    DelayLines lines_;
    std::vector<float> d_;
    float dry_ = 1, wet_ = 0, fb_ = 0;
    size_t delay_ = 1;
    bool stereo_ = false;
    int mask_ = -1;
};

} // namespace

std::shared_ptr<EffectEntry> makeDelayEffect(DWORD type, double rate, unsigned chans) {
    switch (type) {
    case BASS_FX_DX8_ECHO:
        return std::make_shared<EffectOf<Echo>>(type, rate, chans);
    case BASS_FX_BFX_ECHO4:
        return std::make_shared<EffectOf<Echo4>>(type, rate, chans);
    default:
        return nullptr;
    }
}

} // namespace tavro::platform
