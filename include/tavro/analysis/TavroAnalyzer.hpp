/// @file
/// Spectrum, waveform and level readings of one stream for meters, spectrum
/// displays and oscilloscopes, once or on a main-queue timer.
///
/// Readings are taken from the platform on demand: on a playing stream they
/// show what is being heard and disturb nothing; on a decoding stream they
/// consume the frames they read. The analyser keeps no audio of its own.
///
/// FFT sizes are 256, 512, 1024, 2048, 4096 and 8192. Any other size is
/// refused: readSpectrum returns 0 and spectrumWithSize an empty array, and the
/// platform is not asked (a size between two supported ones would otherwise
/// return magnitudes of a different resolution than the caller sized for).
///
/// Threading: use from one application thread (the main thread in practice);
/// no lock is held. A monitor's callback always runs on the main queue and
/// holds the analyser only weakly; once stopMonitoring() or the destructor has
/// run on the main thread, no further callback comes.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTimer.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

/// One snapshot of the readings.
class TAVRO_API TavroAnalysisFrame {
  public:
    /// @name FFT magnitudes, fftSize / 2 values
    /// @{
    const std::vector<float>& spectrum() const { return spectrum_; }
    void setSpectrum(std::vector<float> v) { spectrum_ = std::move(v); }
    /// @}
    /// One value per frame: the mean of the frame's channels.
    const std::vector<float>& waveform() const { return waveform_; }
    void setWaveform(std::vector<float> v) { waveform_ = std::move(v); }
    /// Levels of the last 50 ms.
    float peakLeft() const { return peakLeft_; }
    void setPeakLeft(float v) { peakLeft_ = v; }
    float peakRight() const { return peakRight_; }
    void setPeakRight(float v) { peakRight_ = v; }
    float rmsLeft() const { return rmsLeft_; }
    void setRmsLeft(float v) { rmsLeft_ = v; }
    float rmsRight() const { return rmsRight_; }
    void setRmsRight(float v) { rmsRight_ = v; }

  private:
    std::vector<float> spectrum_;
    std::vector<float> waveform_;
    float peakLeft_ = 0, peakRight_ = 0, rmsLeft_ = 0, rmsRight_ = 0;
};

class TAVRO_API TavroAnalyzer : public std::enable_shared_from_this<TavroAnalyzer> {
  public:
    static std::shared_ptr<TavroAnalyzer> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroAnalyzer();
    TavroAnalyzer(const TavroAnalyzer&) = delete;
    TavroAnalyzer& operator=(const TavroAnalyzer&) = delete;

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    const std::shared_ptr<TavroTimer>& monitorTimer() const { return monitorTimer_; }
    bool monitoring() const { return monitorTimer_ != nullptr; }

    /// FFT magnitudes into `buffer` (fftSize / 2 floats); returns their count or 0.
    uint64_t readSpectrum(float* buffer, uint64_t fftSize);
    /// Interleaved float frames into `buffer` (maxFrames × channel count floats);
    /// returns the frames read. `channels` receives the channel count used.
    uint64_t readWaveformFloats(float* buffer, uint64_t maxFrames, uint64_t* channels = nullptr);
    std::vector<float> spectrumWithSize(uint64_t fftSize);
    /// One value per whole frame among up to `sampleCount` samples: the mean of its channels.
    std::vector<float> waveformWithSampleCount(uint64_t sampleCount);
    /// Peak and RMS of the last 50 ms; true when either reading succeeded.
    bool readPeakLeft(float* peakLeft, float* peakRight, float* rmsLeft, float* rmsRight);
    std::shared_ptr<TavroAnalysisFrame> captureWithFFTSize(uint64_t fftSize, uint64_t waveformSamples);

    void startMonitoringWithInterval(double interval, uint64_t fftSize, uint64_t waveformSamples,
                                     std::function<void(const std::shared_ptr<TavroAnalysisFrame>&)> block);
    void stopMonitoring();

  private:
    TavroAnalyzer() = default;
    uint32_t handle() const;

    std::weak_ptr<TavroStream> stream_;
    std::shared_ptr<TavroTimer> monitorTimer_;
};
