#include "output/Voice.hpp"

#include "channel/Channel.hpp"
#include "output/Device.hpp"
#include "runtime/SyncThread.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tavro::platform {

Voice::Voice(Channel& channel, size_t ringFrames, size_t historyFrames, int srcQuality) : channel_(channel) {
    ring.allocate(ringFrames, channel.chans());
    history.allocate(historyFrames, channel.chans());
    resampler_.configure(channel.chans(), srcQuality);
    scratch_.assign(Resampler::kMaxOutBlock * channel.chans(), 0.0f);
    heardPos_.store(static_cast<uint64_t>(std::max(0.0, channel.outputPosition())));
}

void Voice::requestFlush(uint64_t pos, uint64_t discardTo) {
    const uint32_t gen = flushGen_.load(std::memory_order_relaxed) + 1;
    flush_.store({std::min(discardTo, ring.written()), pos, gen});
    flushGen_.store(gen, std::memory_order_release);
}

size_t Voice::aheadAfterFlush() const {
    if (flushGen_.load(std::memory_order_acquire) == flushAck_.load(std::memory_order_acquire)) return ring.available();
    const uint64_t from = flush_.load().discardTo;
    const uint64_t written = ring.written();
    return written > from ? static_cast<size_t>(written - from) : 0;
}

void Voice::pushMarker(uint64_t at, double pos, double rate) {
    markers.push({at, pos, rate});
}

void Voice::advanceHeard(size_t frames) {
    if (heardRate_ == 1.0 && heardFrac_ == 0.0) {
        heardPos_.fetch_add(frames, std::memory_order_acq_rel);
        return;
    }
    const double adv = static_cast<double>(frames) * heardRate_ + heardFrac_;
    const double whole = std::floor(adv);
    heardFrac_ = adv - whole;
    // Two's complement: a negative step (reverse) wraps back correctly.
    heardPos_.fetch_add(static_cast<uint64_t>(static_cast<int64_t>(whole)), std::memory_order_acq_rel);
}

size_t Voice::recent(float* out, size_t frames) {
    if (frames <= history.capacity() / 2) return history.latest(out, frames);
    HistoryRing* l = long_.load(std::memory_order_acquire);
    if (!l) {
        std::lock_guard lock(longMutex_);
        if (!longOwner_) {
            // Room for a second at the channel's rate, or the largest spectrum.
            longOwner_ = std::make_unique<HistoryRing>();
            longOwner_->allocate(std::max<size_t>(2 * channel_.freq(), 2 * 16384), channel_.chans());
            long_.store(longOwner_.get(), std::memory_order_release);
        }
        l = longOwner_.get();
    }
    if (l->written() > history.capacity() / 2) return l->latest(out, frames);
    return history.latest(out, frames);
}

bool Voice::heardSnapshot(HeardSnapshot& snap, double& into) const {
    const uint64_t count = snapshotCount_.load(std::memory_order_acquire);
    const uint32_t gen = flushAck_.load(std::memory_order_acquire);
    const Device* dev = channel_.device().get();
    if (count == 0 || !dev) return false;
    const double now = dev->frameHeardAt(monotonicNs());
    bool found = false, newest = true;
    // Newest first: the first block that started at or before the heard frame.
    for (uint64_t k = 0; k < std::min<uint64_t>(count, kSnapshots); ++k) {
        const HeardSnapshot s = snapshots_[(count - 1 - k) % kSnapshots].load();
        if (s.gen != gen) break;
        newest = !found;
        snap = s;
        found = true;
        if (static_cast<double>(s.device) <= now) break;
    }
    if (!found) return false;
    // Before the oldest block of this generation nothing new is heard yet.
    // Past the end of a block followed by a later one (after a pause), all of
    // it has been heard; the newest block runs on while the output plays (the
    // callers cap it at what the device has taken).
    into = std::max(0.0, now - static_cast<double>(snap.device));
    if (!newest) into = std::min(into, static_cast<double>(snap.frames));
    return true;
}

uint64_t Voice::heardPosition() const {
    const FlushRequest f = flush_.load();
    // Until the device thread has taken a flush, the new position is the
    // answer (also when nothing was buffered yet to be dropped).
    if (f.gen != flushAck_.load(std::memory_order_acquire)) return f.pos;
    HeardSnapshot s{};
    double into = 0;
    const uint64_t mixed = heardPos_.load(std::memory_order_acquire);
    if (!heardSnapshot(s, into)) return mixed;
    // Never past what the device has taken (a block the voice ran dry in).
    double p = s.pos + into * s.posRate;
    const auto m = static_cast<double>(mixed);
    p = s.posRate >= 0 ? std::min(p, m) : std::max(p, m);
    return static_cast<uint64_t>(std::max(0.0, std::floor(p + 1e-6)));
}

uint64_t Voice::heardRingIndex() const {
    HeardSnapshot s{};
    double into = 0;
    if (!heardSnapshot(s, into)) return ring.readPos();
    return std::min(ring.readPos(), static_cast<uint64_t>(std::max(0.0, s.ring + into * s.ringRate)));
}

void Voice::applyFlush() {
    const uint32_t gen = flushGen_.load(std::memory_order_acquire);
    if (gen == flushAck_.load(std::memory_order_relaxed)) return;
    const FlushRequest f = flush_.load();
    // What lies before discardTo is dropped with its markers and events.
    while (const RingMarker* m = markers.front()) {
        if (m->at >= f.discardTo) break;
        markers.pop();
    }
    while (const HeardEvent* e = events.front()) {
        if (e->at >= f.discardTo) break;
        events.pop();
    }
    // Already into the audio kept (it followed the old without a gap): its
    // markers have placed the heard position.
    if (ring.readPos() <= f.discardTo) {
        heardPos_.store(f.pos, std::memory_order_release);
        heardRate_ = 1;
        heardFrac_ = 0;
        ring.skipTo(f.discardTo);
        resampler_.reset();
    }
    tail_ = 0;
    flushAck_.store(f.gen, std::memory_order_release);
}

size_t Voice::pull(float* dst, size_t frames) {
    const unsigned ch = channel_.chans();
    size_t done = 0;
    while (done < frames) {
        uint64_t r = ring.readPos();
        // Markers and events apply at exact ring indices: stop at the next one.
        size_t limit = frames - done;
        while (const RingMarker* m = markers.front()) {
            if (m->at > r) {
                limit = static_cast<size_t>(std::min<uint64_t>(limit, m->at - r));
                break;
            }
            const double p = std::max(0.0, m->pos);
            const double whole = std::floor(p);
            heardPos_.store(static_cast<uint64_t>(whole), std::memory_order_release);
            heardFrac_ = p - whole;
            heardRate_ = m->rate;
            markers.pop();
        }
        while (const HeardEvent* e = events.front()) {
            if (e->at > r) {
                limit = static_cast<size_t>(std::min<uint64_t>(limit, e->at - r));
                break;
            }
            // Heard when the device frame the mix has reached leaves the output.
            const int64_t due = block_.heardNs + static_cast<int64_t>(static_cast<double>(blockDone_) * 1e9 / block_.rate);
            SyncThread::post(SyncEvent::fire(channel_.handle(), e->sync, e->data, due));
            events.pop();
        }
        const size_t got = ring.read(dst + done * ch, limit);
        if (got) {
            tail_ = 0; // a replay after the end: the next end drains anew
            history.write(dst + done * ch, got);
            if (HistoryRing* l = long_.load(std::memory_order_acquire)) l->write(dst + done * ch, got);
            advanceHeard(got);
            done += got;
        }
        if (got < limit) break;
    }
    if (done < frames && !channel_.ended() && !channel_.sourceStalled()) countUnderrun();
    if (done < frames && channel_.ended() && ring.available() == 0 && events.empty()) {
        // Feed silence after the end so the resampler's lookahead drains.
        const size_t z = std::min(frames - done, 2 * static_cast<size_t>(64) - std::min<size_t>(tail_, 128));
        std::memset(dst + done * ch, 0, z * ch * sizeof(float));
        tail_ += z;
        done += z;
    }
    return done;
}

void Voice::gains(int64_t now, float globalVolume, float& l, float& r) const {
    const float vol = std::max(0.0f, channel_.volumeNow(now)) * globalVolume;
    const float pan = std::clamp(channel_.panNow(now), -1.0f, 1.0f);
    // Balance law: the side away from the pan keeps full level.
    l = vol * (pan > 0 ? 1.0f - pan : 1.0f);
    r = vol * (pan < 0 ? 1.0f + pan : 1.0f);
}

void Voice::mix(float* out, size_t frames, const BlockClock& clock, int64_t now, float globalVolume) {
    applyFlush();
    const unsigned ch = channel_.chans();
    const double ratio = channel_.rateNow(now) / clock.rate;
    block_ = clock;
    {
        // Where this block starts in heard terms: the resampler has taken a
        // few frames ahead of what it has put out.
        const double held = static_cast<double>(resampler_.pending());
        const double pos = static_cast<double>(heardPos_.load(std::memory_order_relaxed)) + heardFrac_ - held * heardRate_;
        const double ringAt = static_cast<double>(ring.readPos()) - held;
        const uint64_t n = snapshotCount_.load(std::memory_order_relaxed);
        snapshots_[n % kSnapshots].store({clock.index, pos, ratio * heardRate_, ringAt, ratio, frames,
                                          flushAck_.load(std::memory_order_relaxed)});
        snapshotCount_.store(n + 1, std::memory_order_release);
    }
    float gl, gr;
    gains(now, globalVolume, gl, gr);
    if (lastL_ < 0) lastL_ = gl, lastR_ = gr;
    const float startL = lastL_, startR = lastR_;
    size_t done = 0;
    bool dry = false;
    while (done < frames && !dry) {
        const size_t want = std::min(frames - done, Resampler::kMaxOutBlock);
        blockDone_ = done;
        const size_t got = resampler_.process(scratch_.data(), want, ratio,
                                              [this](float* d, size_t n) { return pull(d, n); });
        dry = got < want;
        // Gains ramp over the callback so volume and pan changes never click.
        const float inv = 1.0f / static_cast<float>(frames);
        for (size_t i = 0; i < got; ++i) {
            const float t = static_cast<float>(done + i) * inv;
            const float l = startL + (gl - startL) * t;
            const float r = startR + (gr - startR) * t;
            const float* s = scratch_.data() + i * ch;
            float* o = out + (done + i) * 2;
            switch (ch) {
            case 1:
                o[0] += s[0] * l;
                o[1] += s[0] * r;
                break;
            case 2:
                o[0] += s[0] * l;
                o[1] += s[1] * r;
                break;
            default: {
                // Fold surround layouts to stereo: front pair direct, centre and
                // LFE to both at -3 dB, rear and side pairs to their side at -3 dB.
                constexpr float k = 0.70710678f;
                float sl = s[0], sr = s[1];
                if (ch > 2) sl += k * s[2], sr += k * s[2];
                if (ch > 3) sl += k * s[3], sr += k * s[3];
                for (unsigned c = 4; c + 1 < ch; c += 2) sl += k * s[c], sr += k * s[c + 1];
                if (ch > 4 && (ch % 2) == 1) sl += k * s[ch - 1], sr += k * s[ch - 1];
                o[0] += sl * l;
                o[1] += sr * r;
            }
            }
        }
        done += got;
    }
    lastL_ = gl;
    lastR_ = gr;
    if (dry && channel_.ended() && ring.available() == 0 && events.empty() && tail_ >= 128) channel_.markDrained();
}

} // namespace tavro::platform
