#include "analysis/R128NormalizerState.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

namespace {

// -24 dB: the deepest cut the normaliser makes, for readings and seeds alike.
constexpr double kGainFloor = 0.06309573444801933;
constexpr double kFloorDb = -24.0;
// Readings at or below this are silence as far as the gain is concerned.
constexpr double kSilenceLufs = -70.0;
constexpr float kKnee = 0.9f;

// Non-negative and in range, or 0: a cast of anything else is undefined.
uint64_t truncatedCount(double v) {
    if (!(v >= 0.0)) return 0;
    if (v >= 18446744073709551615.0) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(v);
}

double ceilingFor(double maxBoostDb) {
    return std::pow(10.0, maxBoostDb / 20.0);
}

double gainForDifference(double d, double maxBoostDb) {
    return std::pow(10.0, std::clamp(d, kFloorDb, maxBoostDb) / 20.0);
}

void applyPending(R128NormalizerState& s) {
    if (s.seedPending.exchange(0, std::memory_order_acquire)) {
        s.resetPending.store(0, std::memory_order_relaxed);
        double g = s.seedGain.load(std::memory_order_relaxed);
        const double ceiling = ceilingFor(s.maxBoostDb.load(std::memory_order_relaxed));
        if (g > ceiling) g = ceiling;
        if (g < kGainFloor) g = kGainFloor;
        s.gain.store(g, std::memory_order_relaxed);
        s.targetGain = g;
        s.framesSinceUpdate = 0;
        s.holdRemainingFrames = s.holdFrames;
    } else if (s.resetPending.exchange(0, std::memory_order_acquire)) {
        // Never louder after a reset: a new track must not start boosted by
        // the gain the last one needed.
        double g = s.gain.load(std::memory_order_relaxed);
        if (g > 1.0) g = 1.0;
        s.gain.store(g, std::memory_order_relaxed);
        s.targetGain = g;
        s.framesSinceUpdate = 0;
        s.holdRemainingFrames = s.holdFrames;
    }
}

void takeReading(R128NormalizerState& s, uint64_t n) {
    if (s.holdRemainingFrames != 0) {
        s.holdRemainingFrames -= std::min(s.holdRemainingFrames, n);
        return;
    }
    if (s.framesSinceUpdate < s.updateIntervalFrames) return;
    s.framesSinceUpdate = 0;
    double loudness = 0;
    if (ebur128_loudness_shortterm(s.ebur128State, &loudness) != EBUR128_SUCCESS) return;
    if (!std::isfinite(loudness) || loudness <= kSilenceLufs) return;
    s.targetGain = gainForDifference(s.targetLufs.load(std::memory_order_relaxed) - loudness,
                                     s.maxBoostDb.load(std::memory_order_relaxed));
}

float limit(float v) {
    // k is formed in 32 bits on purpose (0.10000002), so that the output
    // stays strictly below 0.9 + k as float arithmetic sees it.
    constexpr float k = 1.0f - kKnee;
    if (v > kKnee) return kKnee + k * std::tanh((v - kKnee) / k);
    if (v < -kKnee) return -kKnee + k * std::tanh((v + kKnee) / k);
    return v;
}

} // namespace

R128NormalizerState* r128_normalizer_create(uint32_t channels, uint64_t maxFrames, double sampleRate) {
    if (channels == 0 || maxFrames == 0) return nullptr;
    auto* s = new (std::nothrow) R128NormalizerState();
    if (!s) return nullptr;
    s->maxFrames = maxFrames;
    s->channels = channels;
    s->sampleRate = sampleRate;
    s->attackCoeff = 1.0 - std::exp(-1.0 / (0.2 * sampleRate));
    s->releaseCoeff = 1.0 - std::exp(-1.0 / (1.5 * sampleRate));
    s->updateIntervalFrames = std::max<uint64_t>(1, truncatedCount(sampleRate / 10.0));
    s->holdFrames = truncatedCount(sampleRate * 0.5);
    const uint64_t rate = truncatedCount(sampleRate);
    s->ebur128State = rate <= std::numeric_limits<unsigned long>::max()
                          ? ebur128_init(channels, static_cast<unsigned long>(rate), EBUR128_MODE_S)
                          : nullptr;
    if (!s->ebur128State) {
        delete s;
        return nullptr;
    }
    return s;
}

void r128_normalizer_destroy(R128NormalizerState* state) {
    if (!state) return;
    if (state->ebur128State) ebur128_destroy(&state->ebur128State);
    delete state;
}

void r128_normalizer_reset(R128NormalizerState* state) {
    if (state) state->resetPending.store(1, std::memory_order_release);
}

// A non-finite setting is refused: it would pass the clamp and turn every
// later sample into NaN, past what a reset can recover.
void r128_normalizer_set_target_lufs(R128NormalizerState* state, double lufs) {
    if (state && std::isfinite(lufs)) state->targetLufs.store(std::clamp(lufs, -40.0, 0.0), std::memory_order_relaxed);
}

void r128_normalizer_set_max_boost_db(R128NormalizerState* state, double db) {
    if (state && std::isfinite(db)) state->maxBoostDb.store(std::clamp(db, 0.0, 24.0), std::memory_order_relaxed);
}

double r128_normalizer_current_gain(const R128NormalizerState* state) {
    return state ? state->gain.load(std::memory_order_relaxed) : 1.0;
}

void r128_normalizer_seed_gain(R128NormalizerState* state, double gain) {
    if (!state) return;
    state->seedGain.store(std::isfinite(gain) && gain > 0.0 ? gain : 1.0, std::memory_order_relaxed);
    state->seedPending.store(1, std::memory_order_release);
}

void r128_normalizer_seed_integrated_lufs(R128NormalizerState* state, double lufs) {
    if (!state || !std::isfinite(lufs) || !(lufs > kSilenceLufs)) return;
    const double d = state->targetLufs.load(std::memory_order_relaxed) - lufs;
    double g = gainForDifference(d, state->maxBoostDb.load(std::memory_order_relaxed));
    if (g == 0.0 || !std::isfinite(g)) g = 1.0;
    state->seedGain.store(g, std::memory_order_relaxed);
    state->seedPending.store(1, std::memory_order_release);
}

void r128_normalizer_process_interleaved(R128NormalizerState* state, float* samples, uint64_t frames) {
    if (!state || !samples || frames == 0) return;
    R128NormalizerState& s = *state;
    const uint64_t n = std::min(frames, s.maxFrames);

    applyPending(s);
    ebur128_add_frames_float(s.ebur128State, samples, static_cast<size_t>(n));
    s.framesSinceUpdate += n;
    takeReading(s, n);

    double gain = s.gain.load(std::memory_order_relaxed);
    const double target = s.targetGain;
    const double factor = target < gain ? s.attackCoeff : s.releaseCoeff;
    const uint32_t chans = s.channels;
    for (uint64_t i = 0; i < n; ++i) {
        gain = gain + (target - gain) * factor;
        const auto g = static_cast<float>(gain);
        float* frame = samples + i * chans;
        for (uint32_t c = 0; c < chans; ++c)
            frame[c] = limit(frame[c] * g);
    }
    s.gain.store(gain, std::memory_order_relaxed);
}
