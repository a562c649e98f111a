/// @file
/// Headphone crossfeed (Bauer stereophonic-to-binaural) on a stream's stereo
/// audio, registered as its own platform DSP at priority 500, between the
/// volume normaliser and the DSP chain. Mono and surround blocks pass.
///
/// Threading: every operation may be called from an application thread (one
/// at a time per crossfeed; the main thread in practice). The DSP procedure runs
/// on the platform thread that renders or decodes the stream. The filter is
/// changed by the audio thread alone: setters publish the new cut frequency and
/// feed level (and reset() a clearing request), and the next block applies them
/// before it filters, so no block ever runs on half-updated coefficients and the
/// audio thread never waits. The filter's history is kept across level changes.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/stream/TavroStream.hpp>

#include <atomic>
#include <cstdint>
#include <memory>

class TAVRO_API TavroCrossfeed {
  public:
    static std::shared_ptr<TavroCrossfeed> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroCrossfeed();
    TavroCrossfeed(const TavroCrossfeed&) = delete;
    TavroCrossfeed& operator=(const TavroCrossfeed&) = delete;

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled);
    float cutoff() const { return cutoff_.load(std::memory_order_relaxed); }
    void setCutoff(float hz);
    float feed() const { return feed_.load(std::memory_order_relaxed); }
    void setFeed(float db);
    uint32_t dspHandle() const { return dspHandle_; }
    double bs2bSampleRate() const { return bs2bSampleRate_; }
    bool hasFilter() const { return filter_.load(std::memory_order_acquire) != nullptr; }

    /// @name What the filter is given for the current cutoff and feed
    /// Whole Hz, and tenths of a dB.
    /// @{
    int32_t appliedCutoff() const;
    int32_t appliedFeed() const;
    /// @}

    void ensureState();
    void applyParameters();
    void attach();
    void detach();
    void reset();

    /// @name Audio thread
    /// Called on the audio thread (or on any single thread while the stream is not rendering).
    /// @{
    void processInterleaved(float* samples, uint64_t frames, uint64_t channels);
    static void TavroCrossfeedDSP(uint32_t handle, uint32_t channel, void* buffer, uint32_t length,
                                  void* user);
    /// @}

  private:
    // The libbs2b filter and what the audio thread last gave it.
    struct Filter;

    TavroCrossfeed() = default;
    void applyPending(Filter& filter);

    std::weak_ptr<TavroStream> stream_;
    std::atomic<bool> enabled_{false};
    std::atomic<float> cutoff_{700.0f};
    std::atomic<float> feed_{4.5f};
    uint32_t dspHandle_ = 0;
    double bs2bSampleRate_ = 0;

    // Made once and published with release order; freed by the destructor
    // after the DSP is gone.
    std::atomic<Filter*> filter_{nullptr};
    // Requests for the audio thread: the level as (cut Hz) | (feed tenths
    // << 32), the sample rate, and a count of reset() calls.
    std::atomic<uint64_t> level_{0};
    std::atomic<uint32_t> rate_{0};
    std::atomic<uint64_t> clears_{0};
};
