// Effects of the platform's own, run as entries of a channel's DSP chain.
//
// Threading contract:
// - Application threads call setParams, getParams, setBypass and requestReset.
//   Writers serialise on the entry's own mutex, which the render thread never
//   takes.
// - process() runs on the thread that renders the channel, inside its DSP
//   pass. It picks up parameters through a SeqLocked copy and a version
//   counter, so a block never sees half of an update; it neither allocates nor
//   locks: every buffer is sized for the channel's format when the effect is
//   made.
// - An effect lives on after the API removed it for as long as a block in
//   flight still holds it (the chain is a shared snapshot).
#pragma once

#include "channel/Channel.hpp"
#include "core/Handles.hpp"
#include "core/LockFree.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace tavro::platform {

// Every change a listener could hear as a step is spread over this time: a
// parameter glides to its new value, and an effect that is added, removed,
// bypassed or given a setting that cannot glide (a waveform, a filter type, a
// delay time) crossfades with the dry signal. 10 ms puts the step of a full
// gain change far below audibility on a steady tone and still feels immediate.
constexpr double kGlideSeconds = 0.010;

class EffectEntry : public DspEntry {
  public:
    explicit EffectEntry(DWORD type) : type_(type) {}
    DWORD type() const { return type_; }
    // Checks the record and takes it; false (nothing changed) when a value is
    // out of range.
    virtual bool setParams(const void* params) = 0;
    virtual void getParams(void* params) = 0;
    void setBypass(bool bypass) { bypass_.store(bypass, std::memory_order_relaxed); }
    bool bypassed() const { return bypass_.load(std::memory_order_relaxed); }
    void requestReset() { resetDue_.store(true, std::memory_order_release); }
    // Made for a channel that is already sounding: the effect fades in.
    void fadeInFromDry() { fadeIn_.store(true, std::memory_order_relaxed); }
    // Whether a block has run through the effect. Until then nothing of it
    // has been heard, so it can simply be taken out.
    bool flowing() const { return flowing_.load(std::memory_order_acquire); }
    // Fades the effect out; it then marks itself removed, and the next edit of
    // the channel's chain drops it.
    void retire() { retiring_.store(true, std::memory_order_release); }

  protected:
    std::atomic<bool> bypass_{false};
    std::atomic<bool> resetDue_{false};
    std::atomic<bool> fadeIn_{false};
    std::atomic<bool> retiring_{false};
    std::atomic<bool> flowing_{false};

  private:
    const DWORD type_;
};

// Parameter records are plain runs of 4-byte fields. A glide moves the listed
// float fields (`Lin` in their own unit, `Geo` geometrically, for frequencies
// and times) and passes `Own` fields on; any other difference between the two
// records cannot glide.
template <class S> struct Lin { float S::*field; };
template <class S> struct Geo { float S::*field; };

// A field that may change without a crossfade because the effect smooths the
// change itself (a delay tap that crossfades, an LFO shape that morphs): it
// takes the new value at once.
template <class S, class T> struct Own { T S::*field; };
// Spelled out for compilers without deduction for aggregates (clang before 17).
template <class S> Lin(float S::*) -> Lin<S>;
template <class S> Geo(float S::*) -> Geo<S>;
template <class S, class T> Own(T S::*) -> Own<S, T>;

// Raised-cosine-like easing: no step in slope where a glide starts or ends.
inline double smoothstep(double t) {
    return t * t * (3 - 2 * t);
}

template <class S, class T> T blendField(const S&, const S& b, double, Own<S, T> f) {
    return b.*f.field;
}
template <class S> float blendField(const S& a, const S& b, double t, Lin<S> f) {
    return static_cast<float>(a.*f.field + (b.*f.field - a.*f.field) * t);
}
template <class S> float blendField(const S& a, const S& b, double t, Geo<S> f) {
    const float x = a.*f.field, y = b.*f.field;
    if (x > 0 && y > 0) return static_cast<float>(x * std::pow(static_cast<double>(y) / x, t));
    return static_cast<float>(x + (y - x) * t);
}

// `out` = the record between `a` (t = 0) and `b` (t = 1); false when they
// differ in a field that is not listed.
template <class S, class... F> bool blendFields(const S& a, const S& b, double t, S& out, F... fields) {
    S probe = b;
    ((probe.*(fields.field) = a.*(fields.field)), ...);
    if (std::memcmp(&probe, &a, sizeof(S)) != 0) return false;
    out = b;
    ((out.*(fields.field) = blendField(a, b, t, fields)), ...);
    return true;
}

// What an HFX names in the handle table.
class Effect : public Object {
  public:
    ObjectKind objectKind() const override { return ObjectKind::Effect; }
    std::weak_ptr<Channel> channel;
    std::shared_ptr<EffectEntry> entry;
    std::atomic<HDSP> dsp{0};
    // Serialises moving and removing the effect (never taken while rendering).
    std::mutex placeMutex;
};

// The effect of `type` for a channel of this format; null for an unknown type.
std::shared_ptr<EffectEntry> makeEffect(DWORD type, double rate, unsigned chans);
// One per family of effects, each null for a type not its own.
std::shared_ptr<EffectEntry> makeFilterEffect(DWORD type, double rate, unsigned chans);
std::shared_ptr<EffectEntry> makeDelayEffect(DWORD type, double rate, unsigned chans);
std::shared_ptr<EffectEntry> makeDynamicsEffect(DWORD type, double rate, unsigned chans);
std::shared_ptr<EffectEntry> makeReverbEffect(DWORD type, double rate, unsigned chans);
std::shared_ptr<EffectEntry> makeModulationEffect(DWORD type, double rate, unsigned chans);
std::shared_ptr<EffectEntry> makeShaperEffect(DWORD type, double rate, unsigned chans);

// Whether a BFX channel mask selects channel c (0-based); -1 selects all.
inline bool maskSelects(int mask, unsigned c) {
    return mask == -1 || (c < 32 && ((static_cast<uint32_t>(mask) >> c) & 1u));
}

inline bool finiteAll(std::initializer_list<float> v) {
    for (float x : v)
        if (!std::isfinite(x)) return false;
    return true;
}

// Binds one DSP class to the entry. Impl provides:
//   using Params (the public record) and State (what the render thread needs,
//   trivially copyable); Impl(rate, chans); static State defaults(rate);
//   bool merge(State&, const Params&) const: validates, app thread, reads only
//   the format; static void read(const State&, Params&);
//   configure(const State&), run(float*, size_t frames) (or run(Channel&, ...)
//   for an effect that follows the channel's position), reset(): render thread.
//   Optionally static bool blend(const State& a, const State& b, double t,
//   State& out): the state a fraction t of the way from a to b, false when
//   the change cannot glide. configure() must then be cheap and keep the
//   running state (filter memories, delay lines), since a glide calls it
//   every few frames. Without blend every change crossfades through dry.
template <class Impl> class EffectOf final : public EffectEntry {
    using Params = typename Impl::Params;
    using State = typename Impl::State;
    static constexpr bool kGlides = requires(const State& a, State& o) { Impl::blend(a, a, 0.0, o); };
    // Frames between re-configurations while gliding: fine enough that each
    // step of a filter's coefficients is inaudible.
    static constexpr size_t kGlideStep = 1;
    // Frames crossfaded at a time; the dry copy lives in a buffer of this size.
    static constexpr size_t kFadeChunk = 256;

  public:
    EffectOf(DWORD type, double rate, unsigned chans)
        : EffectEntry(type), impl_(rate, chans), chans_(chans), state_(Impl::defaults(rate)),
          glideFrames_(std::max<size_t>(kGlideStep, static_cast<size_t>(rate * kGlideSeconds))),
          dry_(kFadeChunk * chans) {
        published_.store(state_);
        current_ = target_ = state_;
        impl_.configure(state_);
    }

    bool setParams(const void* params) override {
        Params in;
        std::memcpy(&in, params, sizeof in);
        std::lock_guard lock(mutex_);
        State next = state_;
        if (!impl_.merge(next, in)) return false;
        state_ = next;
        published_.store(next);
        version_.fetch_add(1, std::memory_order_release);
        return true;
    }

    void getParams(void* params) override {
        Params out;
        std::memcpy(&out, params, sizeof out); // a band selector may come in
        {
            std::lock_guard lock(mutex_);
            Impl::read(state_, out);
        }
        std::memcpy(params, &out, sizeof out);
    }

    void process(Channel& ch, float* frames, size_t count) override {
        const uint32_t v = version_.load(std::memory_order_acquire);
        if (v != seen_) {
            seen_ = v;
            retarget(published_.load());
        }
        if (resetDue_.exchange(false, std::memory_order_acq_rel)) impl_.reset();
        if (!flowing_.load(std::memory_order_relaxed)) {
            // Whatever was set before the first block applies at once.
            settle();
            mix_ = fadeIn_.load(std::memory_order_relaxed) ? 0.0f : goal();
            flowing_.store(true, std::memory_order_release);
        }
        size_t done = 0;
        while (done < count) {
            float* f = frames + done * chans_;
            const size_t left = count - done;
            const float want = goal();
            if (glideLeft_ == 0 && mix_ == want) {
                if (want == 1) return run(ch, f, left);
                if (switchDue_) { // faded out for a change that cannot glide
                    settle();
                    continue;
                }
                // Bypassed (the state is kept as it was) or gone.
                if (retiring_.load(std::memory_order_acquire)) removed.store(true, std::memory_order_release);
                return;
            }
            const size_t n = std::min(left, glideLeft_ ? kGlideStep : kFadeChunk);
            if constexpr (kGlides)
                if (glideLeft_) {
                    glideLeft_ -= std::min(n, glideLeft_);
                    const double t = 1 - static_cast<double>(glideLeft_) / static_cast<double>(glideFrames_);
                    Impl::blend(from_, target_, smoothstep(t), current_);
                    impl_.configure(current_);
                }
            if (mix_ == 1 && want == 1)
                run(ch, f, n);
            else
                crossfade(ch, f, n, want);
            done += n;
        }
    }

  private:
    float goal() const {
        return bypass_.load(std::memory_order_relaxed) || retiring_.load(std::memory_order_relaxed) ||
                       switchDue_
                   ? 0.0f
                   : 1.0f;
    }

    // A new record from the application: glide to it when only gliding fields
    // changed, else fade out, switch, and fade back in.
    void retarget(const State& next) {
        target_ = next;
        if (!flowing_.load(std::memory_order_relaxed)) return;
        if constexpr (kGlides) {
            State probe;
            if (!switchDue_ && Impl::blend(current_, target_, 0.0, probe)) {
                from_ = current_;
                glideLeft_ = glideFrames_;
                return;
            }
        }
        glideLeft_ = 0;
        switchDue_ = true;
    }

    void settle() {
        current_ = target_;
        impl_.configure(current_);
        glideLeft_ = 0;
        switchDue_ = false;
    }

    // While the effect's share w moves towards `want` (one fade length for a
    // full swing), it hears w x and the output is (1 - w) x + w fx(w x): a
    // reverb or an echo that comes in starts from a faded input instead of
    // ringing with the cut, and one that goes out takes its tail with it.
    void crossfade(Channel& ch, float* f, size_t n, float want) {
        std::array<float, kFadeChunk> w{};
        const float step = 1.0f / static_cast<float>(glideFrames_);
        for (size_t i = 0; i < n; ++i) {
            mix_ = want > mix_ ? std::min(want, mix_ + step) : std::max(want, mix_ - step);
            w[i] = static_cast<float>(smoothstep(mix_));
        }
        std::memcpy(dry_.data(), f, n * chans_ * sizeof(float));
        if (w[0] == 0 && w[n - 1] == 0) return; // dry throughout
        for (size_t i = 0; i < n; ++i)
            for (unsigned c = 0; c < chans_; ++c)
                f[i * chans_ + c] *= w[i];
        run(ch, f, n);
        for (size_t i = 0; i < n; ++i)
            for (unsigned c = 0; c < chans_; ++c) {
                float& x = f[i * chans_ + c];
                x = dry_[i * chans_ + c] * (1 - w[i]) + x * w[i];
            }
    }

    void run(Channel& ch, float* f, size_t n) {
        if constexpr (requires { impl_.run(ch, f, n); })
            impl_.run(ch, f, n);
        else
            impl_.run(f, n);
        // Last line of defence: a state gone non-finite (denormal storms,
        // extreme but legal settings) is cleared rather than passed on.
        const size_t samples = n * chans_;
        for (size_t i = 0; i < samples; ++i)
            if (!std::isfinite(f[i])) {
                std::memset(f, 0, samples * sizeof(float));
                impl_.reset();
                break;
            }
    }

    Impl impl_;
    const unsigned chans_;
    std::mutex mutex_;
    State state_; // the writers' copy (mutex_)
    SeqLocked<State> published_;
    std::atomic<uint32_t> version_{0};
    // Render thread only.
    uint32_t seen_ = 0;
    State current_, from_, target_; // configured now; a glide's ends
    const size_t glideFrames_;
    size_t glideLeft_ = 0;
    bool switchDue_ = false; // a change that cannot glide waits for the fade-out
    float mix_ = 1;          // the effect's share of the output, before smoothing
    std::vector<float> dry_;
};

} // namespace tavro::platform
