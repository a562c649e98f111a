/// @file
/// Automatic loudness normaliser on a stream: the normaliser core run from a
/// platform DSP at priority 1000, ahead of every other processing stage.
///
/// Threading: every operation except processInterleaved and the DSP procedure
/// belongs to one application thread (the main thread in practice). The DSP
/// procedure runs on the platform thread that renders or decodes the stream.
/// Settings, seeds and reset reach it through the core's atomics and request
/// flags, so the audio thread never waits. The one thing the audio thread
/// cannot be handed safely is a replaced core state: ensureState() takes the
/// DSP off the channel for the swap (removal returns only once no call can be
/// running) and puts it back afterwards.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/analysis/R128Normalizer.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <atomic>
#include <cstdint>
#include <memory>

class TAVRO_API TavroVolumeNormalizer {
  public:
    static std::shared_ptr<TavroVolumeNormalizer> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroVolumeNormalizer();
    TavroVolumeNormalizer(const TavroVolumeNormalizer&) = delete;
    TavroVolumeNormalizer& operator=(const TavroVolumeNormalizer&) = delete;

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled);
    float targetLufs() const { return targetLufs_; }
    void setTargetLufs(float lufs);
    float maxBoostDB() const { return maxBoostDB_; }
    void setMaxBoostDB(float db);
    uint32_t dspHandle() const { return dspHandle_; }
    bool hasState() const { return state_.load(std::memory_order_acquire) != nullptr; }
    double stateSampleRate() const { return stateSampleRate_.load(std::memory_order_relaxed); }
    uint64_t stateChannels() const { return stateChannels_.load(std::memory_order_relaxed); }

    void ensureState();
    void attach();
    void detach();
    void reset();
    float currentGain() const;
    void seedGain(float gain);
    void seedIntegratedLufs(float lufs);

    /// @name Audio thread
    /// Called on the audio thread (or on any single thread while the stream is not rendering).
    /// @{
    void processInterleaved(float* samples, uint64_t frames, uint64_t channels);
    static void TavroNormalizerDSP(uint32_t handle, uint32_t channel, void* buffer, uint32_t length,
                                   void* user);
    /// @}

    /// The core's block limit; DSP blocks are split into chunks of this size.
    static constexpr uint64_t kChunkFrames = 8192;

  private:
    TavroVolumeNormalizer() = default;
    void replaceState(R128NormalizerState* state);

    std::weak_ptr<TavroStream> stream_;
    std::atomic<bool> enabled_{false};
    float targetLufs_ = -16.0f;
    float maxBoostDB_ = 12.0f;
    uint32_t dspHandle_ = 0;
    std::atomic<R128NormalizerState*> state_{nullptr};
    std::atomic<double> stateSampleRate_{0};
    std::atomic<uint64_t> stateChannels_{0};
};
