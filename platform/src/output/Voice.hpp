// The playback side of a channel: the ring the renderer fills ahead, and what
// the device thread needs to turn it into heard sound (resampling, volume and
// pan ramps, heard position, syncs that fire when heard).
//
// Threading: the ring's producer, push of markers and events, and
// requestFlush() run under the channel's renderMutex; mix() and everything it
// touches run on the device thread and never block; heardPosition() and
// latest() may be called from any thread.
#pragma once

#include "bass.h"
#include "core/LockFree.hpp"
#include "output/Device.hpp"
#include "output/Resampler.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace tavro::platform {

class Channel;

// From ring index `at` on, the heard position is `pos` and moves `rate`
// timeline frames per ring frame (a tempo stage reports its source's time;
// a reverse stage runs backwards).
struct RingMarker {
    uint64_t at;
    double pos;
    double rate;
};

struct HeardEvent {
    uint64_t at; // ring index at which the event is heard
    HSYNC sync;
    DWORD data;
};

// What one device block took from the voice: from device frame `device` on,
// the heard position is `pos` and the ring index `ring`, moving `posRate` and
// `ringRate` per device frame, for `frames` device frames.
struct HeardSnapshot {
    uint64_t device;
    double pos, posRate;
    double ring, ringRate;
    uint64_t frames;
    uint32_t gen; // flush generation
};

struct FlushRequest {
    uint64_t discardTo; // ring index: everything before it is dropped
    uint64_t pos;       // heard position from then on
    uint32_t gen;
};

class Voice {
  public:
    Voice(Channel& channel, size_t ringFrames, size_t historyFrames, int srcQuality);

    FrameRing ring;
    // What was heard: a short history for the usual reads (levels, spectra
    // up to 4096 points), and a long one (a second or more) made on the
    // first read that needs it, so that a stream nobody measures stays small.
    HistoryRing history;
    // Any thread: the newest `frames` frames heard, into out[0, got); fewer
    // when less is kept. A read longer than the short history sees what that
    // holds until the long one, kept from then on, has more.
    size_t recent(float* out, size_t frames);
    SpscQueue<RingMarker> markers{1024};
    SpscQueue<HeardEvent> events{1024};

    // Renderer side: drop what is buffered before ring index `discardTo`
    // (everything written so far by default) and restart the heard position
    // there. Audio written from `discardTo` on before the request is kept, so
    // a seek can put its new audio in place before the device drops the old.
    void requestFlush(uint64_t pos, uint64_t discardTo = UINT64_MAX);
    // Renderer side: a new mapping from ring frames to positions starts at `at`.
    void pushMarker(uint64_t at, double pos, double rate);
    // Mixes up to `frames` device frames into a stereo buffer (adds).
    void mix(float* out, size_t frames, const BlockClock& clock, int64_t now, float globalVolume);
    // The position the listener hears now: what the device took, less what
    // the output still holds.
    uint64_t heardPosition() const;
    // Ring index of the frame heard now, and the flush generation: frames
    // rendered under an older generation will never be heard.
    uint64_t heardRingIndex() const;
    uint32_t flushGeneration() const { return flushGen_.load(std::memory_order_acquire); }
    // Frames buffered ahead of what is heard.
    size_t buffered() const { return ring.available() + resampler_.pending(); }
    // Renderer side: frames in the ring that will still be played, once a
    // flush the device has not taken yet has dropped what it drops.
    size_t aheadAfterFlush() const;

  private:
    size_t pull(float* dst, size_t frames);
    void applyFlush();
    void gains(int64_t now, float globalVolume, float& l, float& r) const;
    void advanceHeard(size_t frames);
    // The newest block snapshot that covers what is heard now (false before
    // anything of the current flush generation was mixed), and how far into
    // it the listener is, in device frames.
    bool heardSnapshot(HeardSnapshot& snap, double& into) const;

    Channel& channel_;
    std::mutex longMutex_;
    std::unique_ptr<HistoryRing> longOwner_; // longMutex_
    std::atomic<HistoryRing*> long_{nullptr};
    Resampler resampler_;
    std::vector<float> scratch_;
    SeqLocked<FlushRequest> flush_;
    std::atomic<uint32_t> flushGen_{0};
    std::atomic<uint32_t> flushAck_{0}; // the last flush the device thread has taken
    std::atomic<uint64_t> heardPos_{0};
    double heardRate_ = 1; // device thread: the current marker's rate
    double heardFrac_ = 0; // and the fraction of a frame carried
    size_t tail_ = 0;      // zero frames fed after the end, to flush the resampler
    // Device thread: the block being mixed and how far into it the mix is,
    // for the time at which events are heard.
    BlockClock block_{0, 0, 1};
    size_t blockDone_ = 0;
    static constexpr size_t kSnapshots = 64; // blocks of history: covers the output's latency
    SeqLocked<HeardSnapshot> snapshots_[kSnapshots];
    std::atomic<uint64_t> snapshotCount_{0};
    float lastL_ = -1, lastR_ = -1;
};

} // namespace tavro::platform
