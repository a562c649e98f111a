#include "channel/Channel.hpp"

#include "channel/SampleFormat.hpp"
#include "channel/Spectrum.hpp"
#include "core/Config.hpp"
#include "core/Error.hpp"
#include "output/Device.hpp"
#include "output/Voice.hpp"
#include "runtime/RealTime.hpp"
#include "runtime/SyncThread.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <utility>

namespace tavro::platform {

namespace {
thread_local Channel* tlsRender = nullptr;

// Marks the channel this thread renders, restoring the outer one afterwards
// (a stage rendering its source nests).
struct RenderScope {
    Channel* saved;
    explicit RenderScope(Channel* c) : saved(tlsRender) { tlsRender = c; }
    ~RenderScope() { tlsRender = saved; }
};

constexpr uint64_t kNoSync = std::numeric_limits<uint64_t>::max();

int attribBit(DWORD attrib) {
    switch (attrib) {
    case BASS_ATTRIB_FREQ: return 1;
    case BASS_ATTRIB_VOL: return 2;
    case BASS_ATTRIB_PAN: return 4;
    default: return 0;
    }
}
} // namespace

Channel* currentRenderChannel() { return tlsRender; }

int64_t monotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

float Slide::valueAt(int64_t now) const {
    if (durNs <= 0 || now >= startNs + durNs) return to;
    if (now <= startNs) return from;
    const double t = static_cast<double>(now - startNs) / static_cast<double>(durNs);
    if (log && from > 0 && to > 0) return static_cast<float>(from * std::pow(static_cast<double>(to) / from, t));
    return static_cast<float>(from + (to - from) * t);
}

void DspEntry::process(Channel& ch, float* frames, size_t count) {
    const DWORD chans = ch.chans();
    const DWORD mono = flags >> 24;
    const bool asFloat = Config::value(BASS_CONFIG_FLOATDSP) != 0 || ch.bytesPerSample() == 4 || (flags & BASS_DSP_FLOAT);
    float* scratch = ch.scratch();
    if (mono) {
        // The procedure sees channel `mono` alone, as a one-channel block.
        const DWORD c = mono - 1;
        for (size_t i = 0; i < count; ++i) scratch[i] = frames[i * chans + c];
        proc(handle, ch.handle(), scratch, static_cast<DWORD>(count * sizeof(float)), user);
        if (!(flags & BASS_DSP_READONLY))
            for (size_t i = 0; i < count; ++i) frames[i * chans + c] = scratch[i];
        return;
    }
    if (asFloat) {
        proc(handle, ch.handle(), frames, static_cast<DWORD>(count * chans * sizeof(float)), user);
        return;
    }
    const unsigned bps = ch.bytesPerSample();
    encodeSamples(frames, scratch, count * chans, bps);
    proc(handle, ch.handle(), scratch, static_cast<DWORD>(count * chans * bps), user);
    if (!(flags & BASS_DSP_READONLY)) decodeSamples(scratch, frames, count * chans, bps);
}

Channel::Channel(DWORD freq, DWORD chans, DWORD flags, DWORD ctype, std::shared_ptr<Device> device)
    : freq_(freq), chans_(chans), ctype_(ctype), flags_(flags), device_(std::move(device)),
      scratch_(kMaxBlockFrames * chans, 0.0f),
      dsps_(std::make_shared<std::vector<std::shared_ptr<DspEntry>>>()),
      syncs_(std::make_shared<std::vector<std::shared_ptr<SyncEntry>>>()) {
    volume_.store({1, 1, 0, 0, false});
    pan_.store({0, 0, 0, 0, false});
    freqAttr_.store({static_cast<float>(freq), static_cast<float>(freq), 0, 0, false});
}

Channel::~Channel() = default;

unsigned Channel::bytesPerSample() const {
    if (flags() & BASS_SAMPLE_FLOAT) return 4;
    if (flags() & BASS_SAMPLE_8BITS) return 1;
    return 2;
}

void Channel::fillInfo(BASS_CHANNELINFO& info) const {
    info = {};
    info.freq = freq_;
    info.chans = chans_;
    info.flags = flags();
    info.ctype = ctype_;
    info.origres = bytesPerSample() * 8;
}

DWORD Channel::changeFlags(DWORD flags, DWORD mask) {
    constexpr DWORD kChangeable = BASS_SAMPLE_LOOP | BASS_STREAM_AUTOFREE;
    mask &= kChangeable;
    DWORD old = flags_.load();
    while (!flags_.compare_exchange_weak(old, (old & ~mask) | (flags & mask))) {
    }
    return (old & ~mask) | (flags & mask);
}

// ---------------------------------------------------------------- rendering

std::shared_ptr<const std::vector<std::shared_ptr<DspEntry>>> Channel::dspSnapshot() const {
    std::lock_guard lock(listMutex_);
    return dsps_;
}

std::shared_ptr<const std::vector<std::shared_ptr<SyncEntry>>> Channel::syncSnapshot() const {
    std::lock_guard lock(listMutex_);
    return syncs_;
}

void Channel::runDsps(const std::vector<std::shared_ptr<DspEntry>>& dsps, float* buf, size_t frames) {
    RealTimeScope rt;
    for (const auto& d : dsps)
        if (!d->removed.load(std::memory_order_acquire)) d->process(*this, buf, frames);
}

void Channel::fireSync(SyncEntry& s, DWORD data, uint64_t heardAhead) {
    if (s.removed.load(std::memory_order_acquire)) return;
    if (s.mixtime) {
        if (s.onetime) s.removed.store(true);
        s.proc(s.handle, handle(), data, s.user);
        return;
    }
    if (renderingToRing_ && voice()) {
        // Heard later: the device thread fires it when it reaches this frame.
        voice()->events.push({ringBase_ + renderDone_ + heardAhead, s.handle, data});
        return;
    }
    SyncThread::post(SyncEvent::fire(handle(), s.handle, data));
}

// Position syncs fire when the timeline reaches their frame, whichever way it
// runs: every frame passed since the last judgement is judged once, and after
// a seek the frame landed on. Returns true when a sync moved the position.
bool Channel::judgePositionSyncs(const std::vector<std::shared_ptr<SyncEntry>>& syncs) {
    const auto at = static_cast<int64_t>(pos_.load(std::memory_order_relaxed));
    int64_t lo = at, hi = at;
    if (judged_) {
        if (at == lastJudged_) return false;
        if (at > lastJudged_) lo = lastJudged_ + 1;
        else hi = lastJudged_ - 1;
    }
    judged_ = true;
    lastJudged_ = at;
    const uint64_t bpf = bytesPerFrame();
    // A stage's output lags its timeline: a sync heard later fires when the
    // output reaches its frame.
    const double outNow = outPos_.load(std::memory_order_relaxed);
    for (const auto& s : syncs) {
        if (s->type != BASS_SYNC_POS || s->removed.load()) continue;
        const auto p = static_cast<int64_t>(s->param / bpf);
        if (p < lo || p > hi) continue;
        const double ahead = (static_cast<double>(p) - outNow) / markRate_;
        fireSync(*s, 0, ahead > 0 && ahead < 1e9 ? static_cast<uint64_t>(ahead) : 0);
        // A sync that moved the position ends this pass; the rest are judged anew there.
        if (static_cast<int64_t>(pos_.load(std::memory_order_relaxed)) != at || !judged_) return true;
    }
    return false;
}

void Channel::firePositionSyncs(const std::vector<std::shared_ptr<SyncEntry>>& syncs) {
    // A sync that seeks lands on a frame whose own syncs are due at once; the
    // bound only stops a sync that keeps seeking onto itself.
    for (int pass = 0; pass < 16 && judgePositionSyncs(syncs); ++pass) {
    }
}

uint64_t Channel::framesToNextSync(const std::vector<std::shared_ptr<SyncEntry>>& syncs) const {
    uint64_t next = kNoSync;
    const uint64_t bpf = bytesPerFrame();
    const uint64_t at = pos_.load(std::memory_order_relaxed);
    const bool forwards = timelineDirection() > 0;
    for (const auto& s : syncs) {
        if (s->type != BASS_SYNC_POS || s->removed.load()) continue;
        const uint64_t p = s->param / bpf;
        if (forwards && p > at) next = std::min(next, p - at);
        if (!forwards && p < at) next = std::min(next, at - p);
    }
    return next;
}

bool Channel::handleEnd(const std::vector<std::shared_ptr<SyncEntry>>& syncs) {
    const uint64_t at = pos_.load(std::memory_order_relaxed);
    for (const auto& s : syncs)
        if (s->type == BASS_SYNC_END) fireSync(*s, 0);
    if (pos_.load(std::memory_order_relaxed) != at || !judged_) return true; // a sync moved the position
    if ((flags() & BASS_SAMPLE_LOOP) && seekable() && seekFramesLocked(startFrame(), 0)) return true;
    markEnded();
    return false;
}

void Channel::markEnded() {
    // Whatever a stage held back has come out: the position is the end.
    outPos_.store(static_cast<double>(pos_.load(std::memory_order_relaxed)), std::memory_order_release);
    ended_.store(true, std::memory_order_release);
}

Channel::Span Channel::produceSpan(float* out, size_t frames, uint64_t maxTimeline) {
    const uint64_t at = pos_.load(std::memory_order_relaxed);
    const size_t n = static_cast<size_t>(std::min<uint64_t>(frames, maxTimeline));
    const size_t got = produce(out, n);
    const int dir = timelineDirection();
    return {got, dir > 0 ? at + got : at - got, static_cast<double>(at), static_cast<double>(dir), got < n};
}

void Channel::noteOutput(const Span& span) {
    outPos_.store(span.outStart + static_cast<double>(span.frames) * span.rate, std::memory_order_release);
    // The heard position follows markers; one is needed only where the mapping
    // from ring frames to timeline frames changes (a seek, a loop, a new rate).
    const bool continues =
        !markerDue_ && span.rate == markRate_ && std::fabs(span.outStart - markNext_) < 0.5;
    if (!continues && renderingToRing_ && voice())
        voice()->pushMarker(ringBase_ + renderDone_, span.outStart, span.rate);
    markerDue_ = false;
    markRate_ = span.rate;
    markNext_ = span.outStart + static_cast<double>(span.frames) * span.rate;
}

void Channel::resetTimeline(uint64_t frame) {
    std::lock_guard lock(renderMutex_);
    pos_.store(frame, std::memory_order_release);
    outPos_.store(static_cast<double>(frame), std::memory_order_release);
    judged_ = false;
    markerDue_ = true;
}

size_t Channel::read(float* out, size_t frames) {
    std::lock_guard lock(renderMutex_);
    RenderScope scope(this);
    size_t done = 0;
    try {
        renderLocked(out, frames, done);
    } catch (...) {
        // Whatever a decoder, a stage or a procedure threw ends the stream
        // here: it must not reach the render thread or the caller.
        markEnded();
    }
    return done;
}

void Channel::renderLocked(float* out, size_t frames, size_t& done) {
    beginBlock();
    const auto dsps = dspSnapshot();
    const auto syncs = syncSnapshot();
    // Frames the source has given since it last restarted at its end (a loop
    // or a sync that moved it); a restart that gives nothing ends the stream.
    size_t sinceRestart = SIZE_MAX;
    while (done < frames && !ended_.load(std::memory_order_relaxed) && !freed_.load()) {
        if (renderingToRing_) renderDone_ = done;
        firePositionSyncs(*syncs);
        const uint64_t at = pos_.load(std::memory_order_relaxed);
        float* dst = out + done * chans_;
        const Span span =
            produceSpan(dst, std::min(frames - done, kMaxBlockFrames), framesToNextSync(*syncs));
        if (span.frames) {
            blockStart_ = span.outStart;
            blockRate_ = span.rate;
            runDsps(*dsps, dst, span.frames);
            if (!flowed_.load(std::memory_order_relaxed)) flowed_.store(true, std::memory_order_relaxed);
            noteOutput(span);
            done += span.frames;
            if (renderingToRing_) renderDone_ = done;
        }
        pos_.store(span.timeline, std::memory_order_release);
        if (sinceRestart != SIZE_MAX) sinceRestart += span.frames;
        // A step that moved nothing is starved whatever it says, or this would spin.
        const bool starved = span.starved || (span.frames == 0 && span.timeline == at);
        stalled_.store(starved && !sourceEnded(), std::memory_order_relaxed);
        if (starved) {
            if (!sourceEnded()) break; // stalled: no data yet
            if (sinceRestart == 0) {
                markEnded();
                break;
            }
            if (!handleEnd(*syncs)) break;
            sinceRestart = 0;
        }
    }
}

uint64_t Channel::blockRingIndex() const {
    return renderingToRing_ ? ringBase_ + renderDone_ : std::numeric_limits<uint64_t>::max();
}

size_t Channel::fillRing(size_t target) {
    std::lock_guard lock(renderMutex_);
    if (!voice() || freed_.load()) return 0;
    return renderAhead(target);
}

size_t Channel::ringTarget() const { return static_cast<size_t>(uint64_t(freq_) * Config::value(BASS_CONFIG_BUFFER) / 1000); }

size_t Channel::renderAhead(size_t target, uint64_t from) {
    Voice& v = *voice();
    FrameRing& ring = v.ring;
    target = std::min(target, ring.capacity());
    // Audio a flush is about to drop does not count.
    auto ahead = [&]() -> size_t {
        if (from == UINT64_MAX) return v.aheadAfterFlush();
        return static_cast<size_t>(ring.written() - from);
    };
    size_t total = 0;
    while (ahead() < target && !ended_.load()) {
        size_t n = std::min(target - ahead(), kMaxBlockFrames);
        float* region = ring.writeRegion(n);
        if (n == 0) break;
        renderingToRing_ = true;
        ringBase_ = ring.written();
        renderDone_ = 0;
        const size_t got = read(region, n);
        renderingToRing_ = false;
        ring.commitWrite(got);
        total += got;
        if (got < n) break;
    }
    return total;
}

void Channel::flushBehindNewAudio(uint64_t heardFrame, uint64_t from) {
    if (state() == ChannelState::Playing) renderAhead(ringTarget(), from);
    voice()->requestFlush(heardFrame, from);
}

// ---------------------------------------------------------------- transport

void Channel::ensureVoice() {
    if (voice()) return;
    const DWORD bufferMs = Config::value(BASS_CONFIG_BUFFER);
    const size_t ring = static_cast<size_t>(uint64_t(freq_) * bufferMs / 1000) + kMaxBlockFrames;
    // The short history (a longer one is made when a read needs it): 8192
    // frames serve reads of up to 4096, with the other half as slack.
    const size_t history = 8192;
    voiceOwner_ = std::make_unique<Voice>(*this, ring, history, static_cast<int>(Config::value(BASS_CONFIG_SRC)));
    // Readers on other threads (position, data, levels) find it without the render lock.
    voice_.store(voiceOwner_.get(), std::memory_order_release);
}

bool Channel::play(bool restart) {
    if (isDecoding()) return fail(BASS_ERROR_DECODE);
    if (freed_.load()) return fail(BASS_ERROR_HANDLE);
    if (!device_ || !device_->isRunning()) return fail(BASS_ERROR_START);
    {
        std::lock_guard lock(renderMutex_);
        // Ended: its source is done. Still playing, the device is playing out
        // the tail: a replay follows the tail instead of cutting it.
        const bool wasEnded = ended_.load() && state() == ChannelState::Stopped;
        const bool draining = ended_.load() && state() == ChannelState::Playing;
        if (restart || wasEnded || draining) {
            const uint64_t from = voice() ? voice()->ring.written() : 0;
            if (seekable()) {
                if (!seekFramesLocked(startFrame(), 0)) return false;
            } else {
                onRestart();
            }
            if (voice() && (restart || !draining)) flushBehindNewAudio(static_cast<uint64_t>(outputPosition()), from);
        }
        if (state() == ChannelState::Playing && !restart) return succeed();
        ensureVoice();
        state_.store(ChannelState::Playing, std::memory_order_release);
        // The first audio is in the ring before the device sees the channel.
        renderAhead(ringTarget());
    }
    device_->attach(shared_from_this());
    Device::wakeUpdater();
    return succeed();
}

void Channel::rewindToHeard() {
    if (isDecoding() || !seekable()) return;
    std::lock_guard lock(renderMutex_);
    if (!voice() || ended_.load() || state() == ChannelState::Stopped) return;
    const uint64_t heard = voice()->heardPosition();
    if (heard == pos_.load()) return;
    const uint64_t from = voice()->ring.written();
    if (seekFramesLocked(heard, 0)) flushBehindNewAudio(heard, from);
}

bool Channel::pause() {
    if (isDecoding()) return fail(BASS_ERROR_DECODE);
    ChannelState expected = ChannelState::Playing;
    if (!state_.compare_exchange_strong(expected, ChannelState::Paused))
        return fail(expected == ChannelState::Paused ? BASS_ERROR_ALREADY : BASS_ERROR_NOPLAY);
    return succeed();
}

bool Channel::stop() {
    if (isDecoding()) return succeed();
    {
        std::lock_guard lock(renderMutex_);
        state_.store(ChannelState::Stopped, std::memory_order_release);
        if (voice()) {
            // Continue later from what was heard, not from what was rendered ahead.
            const uint64_t heard = voice()->heardPosition();
            if (seekable() && !ended_.load() && heard != pos_.load()) seekFramesLocked(heard, 0);
            voice()->requestFlush(seekable() ? pos_.load() : heard);
        }
    }
    if (device_) device_->detach(*this);
    if (flags() & BASS_STREAM_AUTOFREE) {
        Handles::remove(handle());
        free();
    }
    return succeed();
}

DWORD Channel::activeState() const {
    if (isDecoding()) return ended() ? BASS_ACTIVE_STOPPED : BASS_ACTIVE_PLAYING;
    switch (state()) {
    case ChannelState::Paused:
        return BASS_ACTIVE_PAUSED;
    case ChannelState::Playing:
        if (device_ && (!device_->isRunning() || device_->isOutputLost())) return BASS_ACTIVE_PAUSED_DEVICE;
        if (stalled_.load() && voice() && voice()->ring.available() == 0 && !ended()) return BASS_ACTIVE_STALLED;
        return BASS_ACTIVE_PLAYING;
    default:
        return BASS_ACTIVE_STOPPED;
    }
}

void Channel::markDrained() {
    ChannelState expected = ChannelState::Playing;
    if (!state_.compare_exchange_strong(expected, ChannelState::Stopped)) return;
    // A replay or a seek that came in meanwhile keeps it playing.
    if (!ended()) {
        expected = ChannelState::Stopped;
        state_.compare_exchange_strong(expected, ChannelState::Playing);
        return;
    }
    SyncThread::post(SyncEvent::drained(handle()));
}

// ---------------------------------------------------------------- position

bool Channel::seekSource(uint64_t, DWORD) { return fail(BASS_ERROR_NOTFILE); }

bool Channel::seekFramesLocked(uint64_t frame, DWORD mode) {
    if (!seekSource(frame, mode)) return false;
    pos_.store(frame, std::memory_order_release);
    outPos_.store(static_cast<double>(frame), std::memory_order_release);
    judged_ = false;
    markerDue_ = true;
    ended_.store(false, std::memory_order_release);
    return true;
}

bool Channel::setPosition(QWORD pos, DWORD mode) {
    if ((mode & 0xFF) != BASS_POS_BYTE) return fail(BASS_ERROR_NOTAVAIL);
    if (!seekable()) return fail(BASS_ERROR_NOTFILE);
    const uint64_t frame = pos / bytesPerFrame();
    const int64_t len = lengthFrames();
    if (len >= 0 && frame > static_cast<uint64_t>(len)) return fail(BASS_ERROR_POSITION);
    std::lock_guard lock(renderMutex_);
    const bool reentrant = currentRenderChannel() == this;
    const bool draining = ended_.load() && state() == ChannelState::Playing;
    const uint64_t from = voice() ? voice()->ring.written() : 0;
    if (!seekFramesLocked(frame, mode)) return false;
    // A sync inside the render moved us, or the source had ended and its
    // tail is being played out: what was rendered is still to be heard, so
    // no flush; the next output starts a marker.
    if (voice() && !(reentrant && renderingToRing_) && !draining) flushBehindNewAudio(frame, from);
    if (state() == ChannelState::Playing) Device::wakeUpdater();
    return succeed();
}

QWORD Channel::position(DWORD mode) {
    if ((mode & 0xFF) != BASS_POS_BYTE) return failWith<QWORD>(BASS_ERROR_NOTAVAIL, static_cast<QWORD>(-1));
    uint64_t frames;
    if (isDecoding() || !voice() || (mode & BASS_POS_DECODE))
        frames = static_cast<uint64_t>(std::max(0.0, std::floor(outputPosition() + 1e-6)));
    else frames = voice()->heardPosition();
    return succeedWith<QWORD>(frames * bytesPerFrame());
}

QWORD Channel::length(DWORD mode) {
    if ((mode & 0xFF) != BASS_POS_BYTE) return failWith<QWORD>(BASS_ERROR_NOTAVAIL, static_cast<QWORD>(-1));
    const int64_t len = lengthFrames();
    if (len < 0) return failWith<QWORD>(BASS_ERROR_NOTAVAIL, static_cast<QWORD>(-1));
    return succeedWith<QWORD>(static_cast<QWORD>(len) * bytesPerFrame());
}

// ---------------------------------------------------------------- attributes

double Channel::rateNow(int64_t now) const {
    const float f = freqAttr_.load().valueAt(now);
    return f > 0 ? static_cast<double>(f) : static_cast<double>(freq_);
}

bool Channel::setAttribute(DWORD attrib, float value) {
    if (!std::isfinite(value)) return fail(BASS_ERROR_ILLPARAM);
    const int64_t now = monotonicNs();
    switch (attrib) {
    case BASS_ATTRIB_VOL:
        if (value < 0) return fail(BASS_ERROR_ILLPARAM);
        volume_.store({value, value, now, 0, false});
        break;
    case BASS_ATTRIB_PAN:
        value = std::clamp(value, -1.0f, 1.0f);
        pan_.store({value, value, now, 0, false});
        break;
    case BASS_ATTRIB_FREQ:
        if (value == 0) value = static_cast<float>(freq_);
        if (value < 100 || value > 1000000) return fail(BASS_ERROR_ILLPARAM);
        freqAttr_.store({value, value, now, 0, false});
        break;
    default:
        return fail(BASS_ERROR_ILLTYPE);
    }
    return succeed();
}

bool Channel::getAttribute(DWORD attrib, float& value) {
    const int64_t now = monotonicNs();
    switch (attrib) {
    case BASS_ATTRIB_VOL: value = volume_.load().valueAt(now); break;
    case BASS_ATTRIB_PAN: value = pan_.load().valueAt(now); break;
    case BASS_ATTRIB_FREQ: value = static_cast<float>(rateNow(now)); break;
    default: return fail(BASS_ERROR_ILLTYPE);
    }
    return succeed();
}

bool Channel::slideAttribute(DWORD attrib, float value, DWORD ms) {
    const bool log = attrib & BASS_SLIDE_LOG;
    attrib &= ~BASS_SLIDE_LOG;
    const int bit = attribBit(attrib);
    if (!bit) return fail(BASS_ERROR_ILLTYPE);
    if (!std::isfinite(value)) return fail(BASS_ERROR_ILLPARAM);
    const int64_t now = monotonicNs();
    const int64_t dur = int64_t(ms) * 1'000'000;
    SeqLocked<Slide>* target = nullptr;
    switch (attrib) {
    case BASS_ATTRIB_VOL:
        // Sliding the volume to -1 fades out and then stops the channel.
        stopAfterSlide_.store(value < 0);
        value = std::max(value, 0.0f);
        target = &volume_;
        break;
    case BASS_ATTRIB_PAN:
        value = std::clamp(value, -1.0f, 1.0f);
        target = &pan_;
        break;
    default:
        if (value == 0) value = static_cast<float>(freq_);
        if (value < 100 || value > 1000000) return fail(BASS_ERROR_ILLPARAM);
        target = &freqAttr_;
        break;
    }
    const float from = target->load().valueAt(now);
    target->store({from, value, now, dur, log});
    slidesPending_.fetch_or(static_cast<uint32_t>(bit));
    Device::watchSlides(shared_from_this());
    return succeed();
}

bool Channel::isSliding(DWORD attrib) const {
    const int64_t now = monotonicNs();
    if (attrib == 0) return slidesPending_.load() != 0;
    switch (attrib & ~BASS_SLIDE_LOG) {
    case BASS_ATTRIB_VOL: return volume_.load().activeAt(now);
    case BASS_ATTRIB_PAN: return pan_.load().activeAt(now);
    case BASS_ATTRIB_FREQ: return freqAttr_.load().activeAt(now);
    default: return false;
    }
}

void Channel::checkSlides(int64_t) {
    for (DWORD attrib : {BASS_ATTRIB_FREQ, BASS_ATTRIB_VOL, BASS_ATTRIB_PAN}) {
        const uint32_t bit = static_cast<uint32_t>(attribBit(attrib));
        if (!(slidesPending_.load() & bit) || isSliding(attrib)) continue;
        slidesPending_.fetch_and(~bit);
        if (attrib == BASS_ATTRIB_VOL && stopAfterSlide_.exchange(false)) stop();
        fireSyncsNow(BASS_SYNC_SLIDE, attrib);
    }
}

// ---------------------------------------------------------------- DSP and syncs

HDSP Channel::addDsp(DSPPROC* proc, void* user, int priority, DWORD flags) {
    if (!proc) return failWith<HDSP>(BASS_ERROR_ILLPARAM, 0);
    const DWORD mono = flags >> 24;
    if (mono > chans_) return failWith<HDSP>(BASS_ERROR_ILLPARAM, 0);
    auto e = std::make_shared<DspEntry>();
    e->proc = proc;
    e->user = user;
    e->priority = priority;
    e->flags = flags;
    return addDspEntry(std::move(e));
}

HDSP Channel::addDspEntry(std::shared_ptr<DspEntry> entry) {
    entry->handle = Handles::allocate();
    std::shared_ptr<const std::vector<std::shared_ptr<DspEntry>>> old;
    {
        std::lock_guard lock(listMutex_);
        // free() marks the channel before it clears the lists under this lock.
        if (freed_.load()) return failWith<HDSP>(BASS_ERROR_HANDLE, 0);
        entry->order = ++dspOrder_;
        auto next = std::make_shared<std::vector<std::shared_ptr<DspEntry>>>();
        for (const auto& d : *dsps_)
            if (!d->removed.load()) next->push_back(d);
        // Falling priority; equal priorities run in the order they were set.
        auto it = std::find_if(next->begin(), next->end(),
                               [&](const auto& d) { return d->priority < entry->priority; });
        next->insert(it, entry);
        old = std::exchange(dsps_, std::move(next));
    }
    return succeedWith(entry->handle);
}

bool Channel::removeDsp(HDSP dsp) {
    // Holding the render lock means no block is in flight: once this returns
    // the procedure cannot be called again (inside its own call, the flag stops
    // the rest of the current pass).
    std::lock_guard render(renderMutex_);
    std::shared_ptr<const std::vector<std::shared_ptr<DspEntry>>> old;
    std::lock_guard lock(listMutex_);
    auto next = std::make_shared<std::vector<std::shared_ptr<DspEntry>>>();
    bool found = false;
    for (const auto& d : *dsps_) {
        if (d->handle == dsp && !d->removed.load()) {
            d->removed.store(true);
            found = true;
        } else if (!d->removed.load()) {
            next->push_back(d);
        }
    }
    if (!found) return fail(BASS_ERROR_HANDLE);
    old = std::exchange(dsps_, std::move(next));
    return succeed();
}

HSYNC Channel::addSync(DWORD type, QWORD param, SYNCPROC* proc, void* user) {
    if (!proc) return failWith<HSYNC>(BASS_ERROR_ILLPARAM, 0);
    const DWORD base = type & 0x00FFFFFF;
    switch (base) {
    case BASS_SYNC_POS: case BASS_SYNC_END: case BASS_SYNC_META: case BASS_SYNC_SLIDE: case BASS_SYNC_STALL:
    case BASS_SYNC_DOWNLOAD: case BASS_SYNC_FREE: case BASS_SYNC_SETPOS: case BASS_SYNC_OGG_CHANGE:
        break;
    default:
        return failWith<HSYNC>(BASS_ERROR_ILLTYPE, 0);
    }
    auto s = std::make_shared<SyncEntry>();
    s->handle = Handles::allocate();
    s->type = base;
    s->mixtime = type & BASS_SYNC_MIXTIME;
    s->onetime = type & BASS_SYNC_ONETIME;
    s->param = param;
    s->proc = proc;
    s->user = user;
    std::lock_guard lock(listMutex_);
    if (freed_.load()) return failWith<HSYNC>(BASS_ERROR_HANDLE, 0); // see addDspEntry
    auto next = std::make_shared<std::vector<std::shared_ptr<SyncEntry>>>();
    for (const auto& e : *syncs_)
        if (!e->removed.load()) next->push_back(e);
    next->push_back(s);
    syncs_ = std::move(next);
    return succeedWith(s->handle);
}

bool Channel::removeSync(HSYNC sync) {
    {
        std::lock_guard render(renderMutex_);
        std::lock_guard lock(listMutex_);
        auto next = std::make_shared<std::vector<std::shared_ptr<SyncEntry>>>();
        bool found = false;
        for (const auto& e : *syncs_) {
            if (e->handle == sync && !e->removed.load()) {
                e->removed.store(true);
                found = true;
            } else if (!e->removed.load()) {
                next->push_back(e);
            }
        }
        if (!found) return fail(BASS_ERROR_HANDLE);
        syncs_ = std::move(next);
    }
    SyncThread::waitIdle(handle(), sync);
    return succeed();
}

std::shared_ptr<SyncEntry> Channel::findSync(HSYNC sync) const {
    std::lock_guard lock(listMutex_);
    for (const auto& e : *syncs_)
        if (e->handle == sync) return e;
    return nullptr;
}

void Channel::fireSyncsNow(DWORD type, DWORD data) {
    // Held here: a procedure that sets or removes a sync replaces the list.
    const auto syncs = syncSnapshot();
    for (const auto& s : *syncs) {
        if (s->type != type || s->removed.load()) continue;
        if (s->onetime) s->removed.store(true);
        s->proc(s->handle, handle(), data, s->user);
    }
}

// ---------------------------------------------------------------- data

DWORD Channel::getData(void* buffer, DWORD length) {
    constexpr DWORD kFail = 0xFFFFFFFF;
    if ((length & 0x80000000u) && length != 0xFFFFFFFFu) {
        SpectrumRequest req;
        if (!parseSpectrumRequest(length, req)) return failWith(BASS_ERROR_ILLPARAM, kFail);
        if (!buffer) return failWith(BASS_ERROR_ILLPARAM, kFail);
        return getSpectrum(static_cast<float*>(buffer), req);
    }
    if (length == BASS_DATA_AVAILABLE) {
        const uint64_t frames = (!isDecoding() && voice()) ? voice()->buffered() : 0;
        return succeedWith(static_cast<DWORD>(frames * bytesPerFrame()));
    }
    if (!buffer) return failWith(BASS_ERROR_ILLPARAM, kFail);
    const unsigned outBps = (length & BASS_DATA_FLOAT) ? 4 : bytesPerSample();
    const DWORD bytes = length & 0x0FFFFFFF;
    const size_t frames = bytes / (outBps * chans_);
    if (frames == 0) return succeedWith<DWORD>(0);
    auto* out = static_cast<uint8_t*>(buffer);
    if (!isDecoding()) {
        if (!voice()) return failWith(BASS_ERROR_NOPLAY, kFail);
        // What is being heard; the playing channel is not disturbed.
        std::vector<float> tmp(frames * chans_);
        const size_t got = voice()->recent(tmp.data(), frames);
        encodeSamples(tmp.data(), out, got * chans_, outBps);
        return succeedWith(static_cast<DWORD>(got * chans_ * outBps));
    }
    if (ended()) return failWith(BASS_ERROR_ENDED, kFail);
    size_t done = 0;
    if (outBps == 4) {
        done = read(reinterpret_cast<float*>(out), frames);
    } else {
        std::vector<float> tmp(std::min(frames, kMaxBlockFrames) * chans_);
        while (done < frames) {
            const size_t n = read(tmp.data(), std::min(frames - done, kMaxBlockFrames));
            encodeSamples(tmp.data(), out + done * chans_ * outBps, n * chans_, outBps);
            done += n;
            if (n == 0) break;
        }
    }
    if (done == 0 && ended()) return failWith(BASS_ERROR_ENDED, kFail);
    return succeedWith(static_cast<DWORD>(done * chans_ * outBps));
}

// A spectrum of the next N frames of a decoding channel (they are consumed, as
// any read of a decoding channel is), or of the last N frames heard of a
// playing one (nothing is disturbed). Frames that are not there are zeros.
DWORD Channel::getSpectrum(float* out, const SpectrumRequest& req) {
    constexpr DWORD kFail = 0xFFFFFFFF;
    const size_t n = spectrumSize(req);
    thread_local std::vector<float> frames;
    frames.resize(n * chans_);
    size_t got = 0;
    if (isDecoding()) {
        if (ended()) return failWith(BASS_ERROR_ENDED, kFail);
        while (got < n) {
            const size_t r = read(frames.data() + got * chans_, n - got);
            if (r == 0) break;
            got += r;
        }
        if (got == 0 && ended()) return failWith(BASS_ERROR_ENDED, kFail);
        std::fill(frames.begin() + static_cast<std::ptrdiff_t>(got * chans_), frames.end(), 0.0f);
    } else {
        if (!voice()) return failWith(BASS_ERROR_NOPLAY, kFail);
        // Right-aligned: the newest frame is the last one of the block.
        got = voice()->recent(frames.data(), n);
        std::move_backward(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(got * chans_), frames.end());
        std::fill(frames.begin(), frames.end() - static_cast<std::ptrdiff_t>(got * chans_), 0.0f);
    }
    if (!computeSpectrum(req, frames.data(), chans_, out)) return failWith(BASS_ERROR_MEM, kFail);
    return succeedWith(static_cast<DWORD>(got * bytesPerFrame()));
}

bool Channel::getLevels(float* levels, float seconds, DWORD flags) {
    if (!levels || !(seconds > 0) || seconds > 1.0f) return fail(BASS_ERROR_ILLPARAM);
    const size_t frames = std::max<size_t>(1, static_cast<size_t>(static_cast<double>(seconds) * freq_));
    std::vector<float> data(frames * chans_);
    size_t got = 0;
    if (isDecoding()) {
        if (ended()) return fail(BASS_ERROR_ENDED);
        got = read(data.data(), frames);
        if (got == 0 && ended()) return fail(BASS_ERROR_ENDED);
    } else {
        if (!voice() || state() != ChannelState::Playing) return fail(BASS_ERROR_NOPLAY);
        got = voice()->recent(data.data(), frames);
    }
    float gl = 1, gr = 1;
    if (flags & BASS_LEVEL_VOLPAN) {
        const int64_t now = monotonicNs();
        const float v = volumeNow(now), p = panNow(now);
        gl = v * (p > 0 ? 1 - p : 1);
        gr = v * (p < 0 ? 1 + p : 1);
    }
    const bool rms = flags & BASS_LEVEL_RMS;
    // Outputs: one (mono), two (stereo: even channels left, odd right) or one per channel.
    const unsigned outs = (flags & BASS_LEVEL_MONO) ? 1 : (flags & BASS_LEVEL_STEREO) ? 2 : chans_;
    double acc[32] = {};
    size_t counts[32] = {};
    for (size_t f = 0; f < got; ++f) {
        for (unsigned c = 0; c < chans_; ++c) {
            unsigned o = outs == 1 ? 0 : outs == 2 ? (chans_ == 1 ? 0 : c % 2) : c;
            o = std::min(o, 31u);
            const double g = (chans_ == 1 || c % 2 == 0) ? gl : gr;
            const double v = std::fabs(static_cast<double>(data[f * chans_ + c]) * g);
            if (rms) acc[o] += v * v, counts[o]++;
            else acc[o] = std::max(acc[o], v);
        }
    }
    for (unsigned o = 0; o < outs; ++o) {
        unsigned src = (outs == 2 && chans_ == 1) ? 0 : o;
        src = std::min(src, 31u);
        double v = rms ? (counts[src] ? std::sqrt(acc[src] / static_cast<double>(counts[src])) : 0.0) : acc[src];
        levels[o] = static_cast<float>(v);
    }
    return succeed();
}

// ---------------------------------------------------------------- lifetime

void Channel::free() {
    if (freed_.exchange(true)) return;
    state_.store(ChannelState::Stopped);
    if (device_) device_->detach(*this);
    {
        std::lock_guard render(renderMutex_);
        fireSyncsNow(BASS_SYNC_FREE, 0);
        std::lock_guard lock(listMutex_);
        for (const auto& d : *dsps_) d->removed.store(true);
        for (const auto& s : *syncs_) s->removed.store(true);
        dsps_ = std::make_shared<std::vector<std::shared_ptr<DspEntry>>>();
        syncs_ = std::make_shared<std::vector<std::shared_ptr<SyncEntry>>>();
    }
    onFree();
    SyncThread::waitIdle(handle(), 0);
}

} // namespace tavro::platform
