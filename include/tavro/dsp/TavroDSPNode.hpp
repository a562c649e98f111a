/// @file
/// The contract of a sample-level processing node run by TavroDSP, and the
/// kind numbers of the library's own nodes.
///
/// Threading: processInterleavedFloat runs on the audio thread that renders or
/// decodes the stream (one block at a time, never concurrently with itself).
/// Parameters, including `enabled`, may be set from any application thread
/// while blocks run: each is a single 32-bit value read by the audio thread
/// without a lock, so a change is heard from the next block (or sooner, for
/// parameters a node reads per frame or per sample). Processing state belongs
/// to the audio thread; copy() reads parameters only, so it may run while the
/// source node is processing.
#pragma once

#include <tavro/Export.hpp>

#include <atomic>
#include <cstdint>
#include <memory>

using TavroDSPNodeKind = int64_t;
constexpr TavroDSPNodeKind TavroDSPNodeKindGain = 0;
constexpr TavroDSPNodeKind TavroDSPNodeKindLowPass = 1;
constexpr TavroDSPNodeKind TavroDSPNodeKindHighPass = 2;
constexpr TavroDSPNodeKind TavroDSPNodeKindBandPass = 3;
constexpr TavroDSPNodeKind TavroDSPNodeKindNotch = 4;
constexpr TavroDSPNodeKind TavroDSPNodeKindSoftClip = 5;
constexpr TavroDSPNodeKind TavroDSPNodeKindBitCrusher = 6;
constexpr TavroDSPNodeKind TavroDSPNodeKindRingModulator = 7;
constexpr TavroDSPNodeKind TavroDSPNodeKindTremolo = 8;
constexpr TavroDSPNodeKind TavroDSPNodeKindDelay = 9;
constexpr TavroDSPNodeKind TavroDSPNodeKindLowShelf = 10;
constexpr TavroDSPNodeKind TavroDSPNodeKindHighShelf = 11;
constexpr TavroDSPNodeKind TavroDSPNodeKindPeaking = 12;
constexpr TavroDSPNodeKind TavroDSPNodeKindStereoWidth = 13;

/// A parameter shared between application threads and the audio thread.
/// Relaxed order is enough: each value stands alone and publishes nothing else,
/// and on every target the load is an ordinary move, so hot loops that read a
/// parameter per sample pay nothing for it.
template <typename T> class TavroDSPParam {
  public:
    explicit TavroDSPParam(T value) : value_(value) {}
    T get() const { return value_.load(std::memory_order_relaxed); }
    void set(T value) { value_.store(value, std::memory_order_relaxed); }

  private:
    std::atomic<T> value_;
};

class TAVRO_API TavroDSPNode {
  public:
    virtual ~TavroDSPNode() = default;
    TavroDSPNode(const TavroDSPNode&) = delete;
    TavroDSPNode& operator=(const TavroDSPNode&) = delete;

    /// Rewrites `frames` x `channels` interleaved samples in place.
    virtual void processInterleavedFloat(float* samples, uint64_t frames, uint64_t channels,
                                         uint64_t sampleRate) = 0;
    virtual TavroDSPNodeKind kind() const = 0;
    virtual bool enabled() const { return enabled_.get(); }
    virtual void setEnabled(bool enabled) { enabled_.set(enabled); }

    /// A new node of the same class with this node's `enabled` flag and
    /// parameters, and fresh processing state.
    virtual std::shared_ptr<TavroDSPNode> copy() const = 0;

  protected:
    TavroDSPNode() = default;

  private:
    TavroDSPParam<bool> enabled_{true};
};
