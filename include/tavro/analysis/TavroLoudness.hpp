/// @file
/// Loudness meter on a playing stream (through the loudness add-on), and an
/// offline integrated-loudness scan of a whole source.
///
/// Threading: a meter belongs to one application thread (the main thread in
/// practice); it holds no lock. Monitoring delivers on the main queue, one
/// firing at a time, holding the meter only weakly. The scan runs on the
/// caller's thread and blocks it until the source has been read.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dispatch/TavroTimer.hpp>
#include <tavro/sources/TavroSource.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <functional>
#include <memory>

/// Values exactly as the add-on and the platform report them; see the field
/// notes for what each one is filled from.
struct TAVRO_API TavroLoudnessLevels {
    float integratedLUFS = 0;
    float momentaryLUFS = 0;
    /// The add-on's loudness range (LU); 0 unless startMeasuring asked for it.
    float shortTermLUFS = 0;
    /// The true peak as a linear amplitude (1 = full scale), despite the name:
    /// 20 * log10 of it is the level in dBTP.
    float truePeakDB = 0;
    /// The left RMS level of the last 50 ms when that can be read, else the
    /// add-on's sample peak.
    float samplePeakLeft = 0;
    /// The right RMS level of the last 50 ms.
    float samplePeakRight = 0;
};

class TAVRO_API TavroLoudness : public std::enable_shared_from_this<TavroLoudness> {
  public:
    static std::shared_ptr<TavroLoudness> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroLoudness();
    TavroLoudness(const TavroLoudness&) = delete;
    TavroLoudness& operator=(const TavroLoudness&) = delete;

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    uint32_t handle() const { return handle_; }
    bool isRunning() const { return running_; }
    const std::shared_ptr<TavroTimer>& monitorTimer() const { return monitorTimer_; }

    bool startMeasuringIntegrated(bool integrated, bool peak, bool truePeak);
    /// The same, with the loudness range as well when `range` is set.
    bool startMeasuring(bool integrated, bool range, bool peak, bool truePeak);
    void stop();
    TavroLoudnessLevels readCurrentLevels() const;
    void startMonitoringWithInterval(double interval, std::function<void(const TavroLoudnessLevels&)> block);
    void stopMonitoring();

    /// @name Offline integrated loudness
    /// Integrated loudness in LUFS of the whole source (or of its first maxDuration seconds when that is
    /// positive), or NaN.
    /// @{
    static double scanIntegratedLoudnessForSource(const std::shared_ptr<TavroSource>& source);
    static double scanIntegratedLoudnessForSource(const std::shared_ptr<TavroSource>& source,
                                                  double maxDuration);
    /// @}

  private:
    TavroLoudness() = default;

    std::weak_ptr<TavroStream> stream_;
    uint32_t handle_ = 0;
    bool running_ = false;
    std::shared_ptr<TavroTimer> monitorTimer_;
};
