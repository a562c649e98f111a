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

#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>

namespace tavro::platform {

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

  protected:
    std::atomic<bool> bypass_{false};
    std::atomic<bool> resetDue_{false};

  private:
    const DWORD type_;
};

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
template <class Impl> class EffectOf final : public EffectEntry {
    using Params = typename Impl::Params;
    using State = typename Impl::State;

  public:
    EffectOf(DWORD type, double rate, unsigned chans)
        : EffectEntry(type), impl_(rate, chans), chans_(chans), state_(Impl::defaults(rate)) {
        published_.store(state_);
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
            impl_.configure(published_.load());
        }
        if (resetDue_.exchange(false, std::memory_order_acq_rel)) impl_.reset();
        if (bypass_.load(std::memory_order_relaxed)) return;
        if constexpr (requires { impl_.run(ch, frames, count); })
            impl_.run(ch, frames, count);
        else
            impl_.run(frames, count);
        // Last line of defence: a state gone non-finite (denormal storms,
        // extreme but legal settings) is cleared rather than passed on.
        const size_t n = count * chans_;
        for (size_t i = 0; i < n; ++i)
            if (!std::isfinite(frames[i])) {
                std::memset(frames, 0, n * sizeof(float));
                impl_.reset();
                break;
            }
    }

  private:
    Impl impl_;
    const unsigned chans_;
    std::mutex mutex_;
    State state_; // the writers' copy (mutex_)
    SeqLocked<State> published_;
    std::atomic<uint32_t> version_{0};
    uint32_t seen_ = 0; // render thread
};

} // namespace tavro::platform
