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
#include "output/Resampler.hpp"

#include <atomic>
#include <cstdint>

namespace tavro::platform {

class Channel;

// From ring index `at` on, the heard position is `pos` and moves `rate`
// timeline frames per ring frame (a tempo stage reports its source's time;
// a reverse stage runs backwards).
struct RingMarker {
    uint64_t at;
    double pos;
    double rate;
    uint32_t gen; // flush generation it was pushed in: older ones die with the flush
};

struct HeardEvent {
    uint64_t at; // ring index at which the event is heard
    HSYNC sync;
    DWORD data;
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
    HistoryRing history;
    SpscQueue<RingMarker> markers{1024};
    SpscQueue<HeardEvent> events{1024};

    // Renderer side: drop what is buffered and restart the heard position.
    void requestFlush(uint64_t pos);
    // Renderer side: a new mapping from ring frames to positions starts at `at`.
    void pushMarker(uint64_t at, double pos, double rate);
    // Mixes up to `frames` device frames into a stereo buffer (adds).
    void mix(float* out, size_t frames, double deviceRate, int64_t now, float globalVolume);
    uint64_t heardPosition() const;
    // Ring index of the next frame to be heard, and the flush generation:
    // frames rendered under an older generation will never be heard.
    uint64_t heardRingIndex() const { return ring.readPos(); }
    uint32_t flushGeneration() const { return flushGen_.load(std::memory_order_acquire); }
    // Frames buffered ahead of what is heard.
    size_t buffered() const { return ring.available() + resampler_.pending(); }

  private:
    size_t pull(float* dst, size_t frames);
    void applyFlush();
    void gains(int64_t now, float globalVolume, float& l, float& r) const;
    void advanceHeard(size_t frames);

    Channel& channel_;
    Resampler resampler_;
    std::vector<float> scratch_;
    SeqLocked<FlushRequest> flush_;
    std::atomic<uint32_t> flushGen_{0};
    std::atomic<uint32_t> flushAck_{0}; // the last flush the device thread has taken
    std::atomic<uint64_t> heardPos_{0};
    double heardRate_ = 1; // device thread: the current marker's rate
    double heardFrac_ = 0; // and the fraction of a frame carried
    size_t tail_ = 0;      // zero frames fed after the end, to flush the resampler
    float lastL_ = -1, lastR_ = -1;
};

} // namespace tavro::platform
