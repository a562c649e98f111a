// Tempo and beat analysis functions of the effects add-on: offline on
// decoding channels, live through LiveBpm.
#include "bass_fx.h"
#include "bpm/BeatAnalysis.hpp"
#include "bpm/LiveBpm.hpp"
#include "channel/Channel.hpp"
#include "core/Error.hpp"
#include "core/Handles.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <vector>

using namespace tavro::platform;

namespace {

constexpr double kLowestBpm = 20, kHighestBpm = 400;
constexpr double kBeatMinBpm = 60, kBeatMaxBpm = 180;

bool parseRange(DWORD word, double& lo, double& hi) {
    lo = word & 0xFFFF;
    hi = word >> 16;
    return lo >= kLowestBpm && hi <= kHighestBpm && lo <= hi;
}

std::shared_ptr<Channel> liveChannel(DWORD handle) {
    auto ch = Handles::get<Channel>(handle);
    if (!ch || ch->isFreed()) {
        setError(BASS_ERROR_HANDLE);
        return nullptr;
    }
    return ch;
}

// The onset envelope of a decoding channel from startSec to endSec (or its
// end). Leaves the channel where the reading stopped.
bool envelopeOf(Channel& ch, double startSec, double endSec, BPMPROGRESSPROC* progress, void* user,
                std::vector<float>& envelope, double& frameRate, double& latency) {
    if (!ch.isDecoding()) return fail(BASS_ERROR_DECODE);
    if (!(startSec >= 0) || !(endSec > startSec)) return fail(BASS_ERROR_ILLPARAM);
    const double rate = ch.freq();
    const auto startFrame = static_cast<uint64_t>(startSec * rate);
    const uint64_t here = static_cast<uint64_t>(std::max(0.0, std::floor(ch.outputPosition() + 1e-6)));
    if (startFrame != here && !ch.setPosition(startFrame * ch.bytesPerFrame(), BASS_POS_BYTE)) return false;
    uint64_t total = std::isfinite(endSec) ? static_cast<uint64_t>((endSec - startSec) * rate) : UINT64_MAX;
    if (const int64_t len = ch.frameLength(); len >= 0)
        total = std::min<uint64_t>(total, static_cast<uint64_t>(len) > startFrame ? len - startFrame : 0);

    bpm::OnsetDetector detector(rate, ch.chans());
    frameRate = detector.frameRate();
    latency = detector.latencySeconds();
    try {
        if (total != UINT64_MAX) envelope.reserve(static_cast<size_t>(static_cast<double>(total) / detector.hop()) + 2);
        std::vector<float> block(kMaxBlockFrames * ch.chans());
        uint64_t done = 0;
        int lastPercent = -1;
        while (done < total) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(kMaxBlockFrames, total - done));
            const size_t got = ch.read(block.data(), want);
            if (got == 0) break;
            detector.process(block.data(), got, [&](float v) { envelope.push_back(v); });
            done += got;
            if (progress && total != UINT64_MAX) {
                const int percent = static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(total));
                if (percent != lastPercent) progress(ch.handle(), static_cast<float>(percent), user);
                lastPercent = percent;
            }
        }
    } catch (const std::bad_alloc&) {
        return fail(BASS_ERROR_MEM);
    }
    return succeed();
}

} // namespace

extern "C" {

float BASS_FX_BPM_DecodeGet(DWORD chan, double startSec, double endSec, DWORD minMaxBPM, DWORD flags,
                            BPMPROGRESSPROC* proc, void* user) {
    auto ch = liveChannel(chan);
    if (!ch) return -1.0f;
    double lo = 0, hi = 0;
    if (flags != 0 || !parseRange(minMaxBPM, lo, hi)) return failWith(BASS_ERROR_ILLPARAM, -1.0f);
    std::vector<float> env;
    double frameRate = 0, latency = 0;
    if (!envelopeOf(*ch, startSec, endSec, proc, user, env, frameRate, latency)) return -1.0f;
    const double bpm = bpm::estimateTempo(env.data(), env.size(), frameRate, lo, hi);
    return succeedWith(static_cast<float>(bpm));
}

BOOL BASS_FX_BPM_BeatDecodeGet(DWORD chan, double startSec, double endSec, DWORD flags, BPMBEATPROC* proc,
                               void* user) {
    auto ch = liveChannel(chan);
    if (!ch) return FALSE;
    if (flags != 0 || !proc) return fail(BASS_ERROR_ILLPARAM);
    std::vector<float> env;
    double frameRate = 0, latency = 0;
    if (!envelopeOf(*ch, startSec, endSec, nullptr, nullptr, env, frameRate, latency)) return FALSE;
    const double bpm = bpm::estimateTempo(env.data(), env.size(), frameRate, kBeatMinBpm, kBeatMaxBpm);
    if (bpm > 0) {
        const double first = static_cast<double>(static_cast<uint64_t>(startSec * ch->freq())) / ch->freq();
        for (double t : bpm::trackBeats(env.data(), env.size(), frameRate, latency, bpm))
            proc(chan, first + t, user);
    }
    return succeed();
}

BOOL BASS_FX_BPM_CallbackSet(DWORD handle, BPMPROC* proc, double period, DWORD minMaxBPM, DWORD flags, void* user) {
    if (!liveChannel(handle)) return FALSE;
    bpm::LiveRequest req;
    req.kind = bpm::LiveKind::Tempo;
    req.tempoProc = proc;
    req.user = user;
    req.period = period;
    if (!proc || flags != 0 || !(period > 0) || !std::isfinite(period) || !parseRange(minMaxBPM, req.minBpm, req.maxBpm))
        return fail(BASS_ERROR_ILLPARAM);
    return bpm::startLive(handle, req);
}

BOOL BASS_FX_BPM_BeatCallbackSet(DWORD handle, BPMBEATPROC* proc, void* user) {
    if (!liveChannel(handle)) return FALSE;
    if (!proc) return fail(BASS_ERROR_ILLPARAM);
    bpm::LiveRequest req;
    req.kind = bpm::LiveKind::Beat;
    req.beatProc = proc;
    req.user = user;
    req.minBpm = kBeatMinBpm;
    req.maxBpm = kBeatMaxBpm;
    return bpm::startLive(handle, req);
}

// After an offline analysis nothing is kept, so freeing only ends live
// reports; it succeeds for any live channel.
BOOL BASS_FX_BPM_Free(DWORD handle) {
    return bpm::stopLive(handle, bpm::LiveKind::Tempo);
}

BOOL BASS_FX_BPM_BeatFree(DWORD handle) {
    return bpm::stopLive(handle, bpm::LiveKind::Beat);
}

} // extern "C"
