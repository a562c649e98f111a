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

// A delay tap whose length changes by a crossfade from the old tap to the new
// one. Gliding the length would scrub through the line, and a cut would go
// round the feedback loop and click again at every repeat. A new length that
// comes during a crossfade waits for it to finish.
class MovingTap {
  public:
    explicit MovingTap(double rate) : span_(std::max<size_t>(1, static_cast<size_t>(rate * kGlideSeconds))) {}
    // `snap`: before any audio has gone through, the length applies at once.
    void set(size_t delay, bool snap) {
        want_ = delay;
        if (snap) from_ = to_ = delay, left_ = 0;
    }
    float read(const DelayLines& l, unsigned c) const {
        const float b = l.tap(c, to_);
        if (!left_) return b;
        const float a = l.tap(c, from_);
        return a + (b - a) * weight_;
    }
    // Once a frame, after every channel has been read.
    void advance() {
        if (left_) {
            --left_;
        } else if (want_ != to_) {
            from_ = to_, to_ = want_, left_ = span_;
        }
        weight_ = static_cast<float>(smoothstep(1 - static_cast<double>(left_) / static_cast<double>(span_)));
    }
    void snap() { set(want_, true); }

  private:
    const size_t span_;
    size_t from_ = 1, to_ = 1, want_ = 1, left_ = 0;
    float weight_ = 1;
};

constexpr float kMaxEchoMs = 2000;

struct Echo {
    using Params = BASS_DX8_ECHO;
    using State = BASS_DX8_ECHO;
    Echo(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * kMaxEchoMs / 1000) + 1, chans),
          d_(chans), left_(rate), right_(rate) {}
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
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fWetDryMix}, Lin{&State::fFeedback},
                           Own{&State::fLeftDelay}, Own{&State::fRightDelay});
    }
    void configure(const State& s) {
        wet_ = s.fWetDryMix / 100;
        fb_ = s.fFeedback / 100;
        left_.set(std::max<size_t>(1, static_cast<size_t>(std::lround(s.fLeftDelay * rate_ / 1000))),
                  !started_);
        right_.set(std::max<size_t>(1, static_cast<size_t>(std::lround(s.fRightDelay * rate_ / 1000))),
                   !started_);
        pan_ = s.lPanDelay != 0;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            // Even channels are left ones, odd ones right, pair by pair.
            for (unsigned c = 0; c < chans_; ++c)
                d_[c] = ((c & 1) ? right_ : left_).read(lines_, c);
            for (unsigned c = 0; c < chans_; ++c) {
                // Pan delay feeds each side's echo into the other side's line,
                // so repeats bounce between them.
                const unsigned from = (pan_ && (c ^ 1u) < chans_) ? (c ^ 1u) : c;
                lines_.put(c, fr[c] + fb_ * d_[from]);
                fr[c] = fr[c] * (1 - wet_) + d_[c] * wet_;
            }
            lines_.advance();
            left_.advance(), right_.advance();
        }
        started_ = true;
    }
    void reset() {
        lines_.clear();
        left_.snap(), right_.snap();
    }

    const double rate_;
    const unsigned chans_;
    DelayLines lines_;
    std::vector<float> d_;
    float wet_ = 0, fb_ = 0;
    MovingTap left_, right_;
    bool pan_ = false;
    bool started_ = false;
};

constexpr float kMaxEcho4Seconds = 2;

struct Echo4 {
    using Params = BASS_BFX_ECHO4;
    using State = BASS_BFX_ECHO4;
    Echo4(double rate, unsigned chans)
        : rate_(rate), chans_(chans), lines_(static_cast<size_t>(rate * kMaxEcho4Seconds) + 1, chans),
          d_(chans), delay_(rate) {}
    static State defaults(double) { return {0.999f, 0.999f, 0.5f, 0.4f, TRUE, BASS_BFX_CHANALL}; }
    bool merge(State& s, const Params& p) const {
        if (!within(p.fDryMix, -2, 2) || !within(p.fWetMix, -2, 2) || !within(p.fFeedback, -1, 1) ||
            !within(p.fDelay, 0, kMaxEcho4Seconds) || (p.bStereo != 0 && p.bStereo != 1))
            return false;
        s = p;
        return true;
    }
    static void read(const State& s, Params& p) { p = s; }
    static bool blend(const State& a, const State& b, double t, State& out) {
        return blendFields(a, b, t, out, Lin{&State::fDryMix}, Lin{&State::fWetMix}, Lin{&State::fFeedback},
                           Own{&State::fDelay});
    }
    void configure(const State& s) {
        dry_ = s.fDryMix, wet_ = s.fWetMix, fb_ = s.fFeedback;
        delay_.set(std::max<size_t>(1, static_cast<size_t>(std::lround(s.fDelay * rate_))), !started_);
        stereo_ = s.bStereo != 0;
        mask_ = s.lChannel;
    }
    void run(float* f, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            float* fr = f + i * chans_;
            for (unsigned c = 0; c < chans_; ++c)
                d_[c] = delay_.read(lines_, c);
            for (unsigned c = 0; c < chans_; ++c) {
                if (!maskSelects(mask_, c)) continue;
                // Stereo mode feeds back across the pair: a ping-pong echo.
                const unsigned from = (stereo_ && (c ^ 1u) < chans_) ? (c ^ 1u) : c;
                lines_.put(c, fr[c] + fb_ * d_[from]);
                fr[c] = fr[c] * dry_ + d_[c] * wet_;
            }
            lines_.advance();
            delay_.advance();
        }
        started_ = true;
    }
    void reset() {
        lines_.clear();
        delay_.snap();
    }

    const double rate_;
    const unsigned chans_;
    DelayLines lines_;
    std::vector<float> d_;
    float dry_ = 1, wet_ = 0, fb_ = 0;
    MovingTap delay_;
    bool started_ = false;
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
