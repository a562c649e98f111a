// Tempo estimation and beat tracking on an onset-strength envelope.
//
// The work is split in two so that the part touching the audio thread stays
// small: OnsetDetector turns audio into an envelope block by block (cheap,
// allocation-free), and everything else works on that envelope, either on a
// whole file at once (estimateTempo, trackBeats) or on a sliding window that
// is fed continuously (LiveTracker).
//
// Threading contract:
// - OnsetDetector is built on an application thread; process() may run on the
//   audio render thread and neither allocates, locks nor logs. reset() must
//   not race process().
// - estimateTempo, trackBeats and LiveTracker allocate working memory in
//   proportion to the envelope they are given and belong on worker threads.
//   A LiveTracker is not shared between threads without outside locking.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tavro::platform::bpm {

// Onset-strength envelope of interleaved float audio: log-compressed spectral
// flux, half-wave rectified, weighted towards low and middle frequencies so
// that kick and snare outweigh cymbals.
class OnsetDetector {
  public:
    OnsetDetector(double sampleRate, unsigned channels);
    ~OnsetDetector();
    OnsetDetector(const OnsetDetector&) = delete;
    OnsetDetector& operator=(const OnsetDetector&) = delete;

    // Calls sink(float) once per completed envelope frame, in order.
    template <class Sink> void process(const float* interleaved, size_t frames, Sink&& sink) {
        if (interleaved == nullptr) return;
        const unsigned ch = channels_;
        for (size_t f = 0; f < frames; ++f) {
            const float* s = interleaved + f * ch;
            float sum = 0.0f;
            for (unsigned c = 0; c < ch; ++c) sum += sanitize(s[c]);
            frame_[fill_++] = sum * channelGain_;
            if (fill_ == frameSize_) sink(analyseFrame());
        }
    }

    double frameRate() const { return sampleRate_ / static_cast<double>(hop_); }
    size_t hop() const { return hop_; }
    double latencySeconds() const;
    void reset();

  private:
    // Non-finite samples would poison every later frame through the flux
    // history, and absurd magnitudes would overflow the power sum.
    static float sanitize(float x) {
        if (!std::isfinite(x)) return 0.0f;
        constexpr float kLimit = 64.0f;
        return x > kLimit ? kLimit : (x < -kLimit ? -kLimit : x);
    }
    float analyseFrame();

    struct Transform;
    double sampleRate_;
    unsigned channels_;
    float channelGain_;
    size_t frameSize_;
    size_t hop_;
    size_t fill_;
    size_t firstBin_ = 1;
    size_t lastBin_ = 1;
    float magScale_ = 1.0f;
    std::vector<float> frame_;  // newest frameSize_ mono samples, oldest first
    std::vector<float> window_;
    std::vector<float> weight_; // per bin
    std::vector<float> prevLog_;
    std::unique_ptr<Transform> fft_;
};

// Tempo in BPM within [minBpm, maxBpm]: the beat, or its octave when the beat
// lies outside the range. However weak the evidence, the best candidate; 0
// only when the envelope holds no repeated onsets (silence, a steady tone) or
// is too short for the slowest tempo asked for. Cost linear in `count`.
double estimateTempo(const float* envelope, size_t count, double frameRate, double minBpm, double maxBpm);

// Beat times in seconds from the envelope's first value, latency applied,
// ascending. Empty when bpm is not usable.
std::vector<double> trackBeats(const float* envelope, size_t count, double frameRate, double latencySeconds,
                               double bpm);

// Tempo and beats over a sliding window of an envelope that arrives
// continuously.
class LiveTracker {
  public:
    LiveTracker(double frameRate, double latencySeconds, double windowSeconds = 10.0);

    void push(const float* env, size_t n);
    void reset();
    // 0 until about 3 s have arrived or while there are no onsets to time. A
    // reading an octave (or a 3:2) away from the previous one is accepted only
    // once it has persisted for a while, so the beat grid does not flap.
    double tempo(double minBpm, double maxBpm);
    // Appends beats not reported before, as seconds since the first pushed
    // value, ascending; a beat is held back until about half a period of
    // envelope follows it.
    void takeNewBeats(std::vector<double>& out);

    // Envelope values pushed since construction or the last reset().
    uint64_t pushed() const { return total_; }

  private:
    double currentTempo();
    const std::vector<float>& window();

    double frameRate_;
    double latency_;
    size_t capacity_;
    std::vector<float> ring_;
    std::vector<float> linear_;
    size_t head_ = 0;      // next write position in ring_
    uint64_t total_ = 0;
    double minBpm_ = 60.0;
    double maxBpm_ = 180.0;
    double tempo_ = 0.0;
    uint64_t tempoAt_ = 0;   // total_ when tempo_ was last estimated
    // An octave or 3:2 reinterpretation of tempo_ and how much envelope time
    // (in frames) has spoken for it more than for tempo_.
    double pendingTempo_ = 0.0;
    double pendingEvidence_ = 0.0;
    static constexpr double kSwitchSeconds = 1.0;
    double lastReported_ = -1e300;
};

} // namespace tavro::platform::bpm
