// Live tempo and beat reports of a channel.
//
// A job puts an onset detector into the channel's DSP chain (lowest priority:
// it hears what the listener hears). The detector runs on the render thread,
// allocation- and lock-free, and hands one envelope value per hop, with where
// that hop lies on the channel's timeline and in its playback ring, to the
// analysis thread through a lock-free queue. The analysis thread, shared by
// all jobs, estimates tempo and tracks beats, and calls the job's procedure:
// tempo every `period` seconds of analysed audio, each beat when the ring
// frame it was rendered into is heard.
//
// Threading: start() and stop() on application threads (stop also from inside
// the job's own callback). Callbacks run only on the analysis thread, with no
// lock of the platform held, so they may seek, edit or free channels. stop()
// waits for a callback of the job in flight (unless called from a callback),
// so once it returns no callback of the job runs or will run. Freeing the
// channel unlists its jobs (through a FREE sync) without waiting, since the
// free holds the channel's render lock that a callback may be waiting for; a
// later stop() on the freed handle waits for a callback still running. The
// registry lock is never held while taking a channel's lock or calling out.
#pragma once

#include "bass_fx.h"

#include <cstdint>

namespace tavro::platform::bpm {

enum class LiveKind { Tempo, Beat };

struct LiveRequest {
    LiveKind kind = LiveKind::Tempo;
    BPMPROC* tempoProc = nullptr;
    BPMBEATPROC* beatProc = nullptr;
    void* user = nullptr;
    double period = 0;          // seconds between tempo reports
    double minBpm = 60, maxBpm = 180;
};

// Registers (replacing any job of the same kind on the channel). Sets the
// thread's error code; false on failure.
bool startLive(DWORD channel, const LiveRequest& request);
// Ends the channel's job of that kind. False (BASS_ERROR_HANDLE) for a handle
// that is not a live channel; true otherwise, also when no job was running.
// Not to be called from the channel's own DSP or mixtime syncs (it may wait
// for a callback that waits for the channel).
bool stopLive(DWORD channel, LiveKind kind);

} // namespace tavro::platform::bpm
