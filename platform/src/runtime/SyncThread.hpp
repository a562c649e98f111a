// The thread that calls non-mixtime syncs, frees auto-free channels that
// ended, and finishes attribute slides.
//
// Threading: post() is lock-free and may be called from the device thread.
// Everything else runs on the sync thread itself.
#pragma once

#include "bass.h"

#include <cstdint>
#include <memory>

namespace tavro::platform {

class Channel;

struct SyncEvent {
    enum Kind : uint8_t { Fire, Drained, Barrier };
    Kind kind;
    DWORD channel;
    HSYNC sync;
    DWORD data;
    int64_t dueNs; // monotonic time it is heard; 0: at once
    static SyncEvent fire(DWORD ch, HSYNC s, DWORD d, int64_t due = 0) { return {Fire, ch, s, d, due}; }
    static SyncEvent drained(DWORD ch) { return {Drained, ch, 0, 0, 0}; }
    static SyncEvent barrier() { return {Barrier, 0, 0, 0, 0}; }
};

class SyncThread {
  public:
    static void post(const SyncEvent& e);
    // Returns once no callback of this sync (or of any sync of the channel,
    // when sync is 0) is running on the sync thread. No-op on the sync thread.
    static void waitIdle(DWORD channel, HSYNC sync);
    static bool onSyncThread();
    // Starts the thread if needed and makes it look at slides now.
    static void wake();
    // Runs until every event posted before the call has been handled.
    static void flushForTesting();
};

} // namespace tavro::platform
