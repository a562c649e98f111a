#include <tavro/dsp/TavroCrossfeed.hpp>

#include <bass.h>
#include <bs2b/bs2b.h>

#include <algorithm>
#include <climits>
#include <cmath>

struct TavroCrossfeed::Filter {
    t_bs2bdp bs2b = nullptr;
    uint64_t level = 0;
    uint32_t rate = 0;
    uint64_t clears = 0;
};

namespace {

int32_t cutFor(float hz) {
    if (std::isnan(hz)) return BS2B_MINFCUT;
    return static_cast<int32_t>(std::lround(std::clamp(hz, float{BS2B_MINFCUT}, float{BS2B_MAXFCUT})));
}

// The product is formed in 32 bits on purpose: 4.55 dB gives exactly 45.5
// there, which rounds away from zero to 46 tenths.
int32_t feedFor(float db) {
    const float tenths = db * 10.0f;
    if (std::isnan(tenths)) return BS2B_MINFEED;
    return static_cast<int32_t>(std::lround(std::clamp(tenths, float{BS2B_MINFEED}, float{BS2B_MAXFEED})));
}

uint64_t packLevel(int32_t cut, int32_t feed) {
    return static_cast<uint32_t>(cut) | (static_cast<uint64_t>(static_cast<uint32_t>(feed)) << 32);
}
int cutOf(uint64_t level) {
    return static_cast<int>(level & 0xFFFFFFFFu);
}
int feedOf(uint64_t level) {
    return static_cast<int>(level >> 32);
}

} // namespace

std::shared_ptr<TavroCrossfeed> TavroCrossfeed::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroCrossfeed> crossfeed(new TavroCrossfeed());
    crossfeed->stream_ = stream;
    crossfeed->ensureState();
    crossfeed->attach();
    return crossfeed;
}

TavroCrossfeed::~TavroCrossfeed() {
    detach();
    if (Filter* filter = filter_.load(std::memory_order_acquire)) {
        bs2b_close(filter->bs2b);
        delete filter;
    }
}

int32_t TavroCrossfeed::appliedCutoff() const {
    return cutFor(cutoff());
}
int32_t TavroCrossfeed::appliedFeed() const {
    return feedFor(feed());
}

void TavroCrossfeed::ensureState() {
    const auto stream = stream_.lock();
    const auto rate = static_cast<uint32_t>(stream ? stream->sampleRate() : 0);
    if (rate == 0) return;
    if (filter_.load(std::memory_order_acquire)) {
        // The audio thread may be filtering: it retunes at its next block.
        if (bs2bSampleRate_ != rate) {
            bs2bSampleRate_ = rate;
            rate_.store(rate, std::memory_order_release);
        }
        applyParameters();
        return;
    }
    const t_bs2bdp bs2b = bs2b_open();
    if (!bs2b) return;
    bs2bSampleRate_ = 0;
    // Not yet visible to the audio thread, so it is set up here directly.
    bs2b_set_srate(bs2b, rate);
    bs2bSampleRate_ = rate;
    rate_.store(rate, std::memory_order_relaxed);
    applyParameters();
    const uint64_t level = level_.load(std::memory_order_relaxed);
    bs2b_set_level_fcut(bs2b, cutOf(level));
    bs2b_set_level_feed(bs2b, feedOf(level));
    filter_.store(new Filter{bs2b, level, rate, clears_.load(std::memory_order_relaxed)},
                  std::memory_order_release);
}

void TavroCrossfeed::applyParameters() {
    level_.store(packLevel(cutFor(cutoff()), feedFor(feed())), std::memory_order_release);
}

void TavroCrossfeed::attach() {
    if (dspHandle_ != 0) return;
    const auto stream = stream_.lock();
    dspHandle_ = BASS_ChannelSetDSP(stream ? stream->handle() : 0, &TavroCrossfeedDSP, this, 500);
}

void TavroCrossfeed::detach() {
    if (dspHandle_ == 0) return;
    const auto stream = stream_.lock();
    // Returns only once the procedure can no longer run.
    BASS_ChannelRemoveDSP(stream ? stream->handle() : 0, dspHandle_);
    dspHandle_ = 0;
}

void TavroCrossfeed::setEnabled(bool enabled) {
    enabled_.store(enabled, std::memory_order_relaxed);
    if (enabled && !hasFilter()) ensureState();
}

void TavroCrossfeed::setCutoff(float hz) {
    cutoff_.store(hz, std::memory_order_relaxed);
    applyParameters();
}

void TavroCrossfeed::setFeed(float db) {
    feed_.store(db, std::memory_order_relaxed);
    applyParameters();
}

void TavroCrossfeed::reset() {
    if (hasFilter()) clears_.fetch_add(1, std::memory_order_release);
}

void TavroCrossfeed::applyPending(Filter& filter) {
    const uint32_t rate = rate_.load(std::memory_order_acquire);
    if (rate != filter.rate) {
        bs2b_set_srate(filter.bs2b, rate);
        filter.rate = rate;
    }
    const uint64_t level = level_.load(std::memory_order_acquire);
    if (level != filter.level) {
        bs2b_set_level_fcut(filter.bs2b, cutOf(level));
        bs2b_set_level_feed(filter.bs2b, feedOf(level));
        filter.level = level;
    }
    const uint64_t clears = clears_.load(std::memory_order_acquire);
    if (clears != filter.clears) {
        bs2b_clear(filter.bs2b);
        filter.clears = clears;
    }
}

void TavroCrossfeed::processInterleaved(float* samples, uint64_t frames, uint64_t channels) {
    if (!isEnabled() || channels != 2) return;
    Filter* filter = filter_.load(std::memory_order_acquire);
    if (!filter) return;
    applyPending(*filter);
    while (frames > 0) {
        const uint64_t n = std::min<uint64_t>(frames, INT_MAX);
        bs2b_cross_feed_f(filter->bs2b, samples, static_cast<int>(n));
        samples += 2 * n;
        frames -= n;
    }
}

void TavroCrossfeed::TavroCrossfeedDSP(uint32_t, uint32_t channel, void* buffer, uint32_t length,
                                       void* user) {
    // The crossfeed outlives every call: its destructor removes this DSP
    // first, and removal waits for a call in progress.
    auto* crossfeed = static_cast<TavroCrossfeed*>(user);
    BASS_CHANNELINFO info;
    if (!BASS_ChannelGetInfo(channel, &info) || info.chans == 0) return;
    crossfeed->processInterleaved(static_cast<float*>(buffer), length / (info.chans * 4), info.chans);
}
