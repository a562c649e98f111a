/// @file
/// Tempo and beats: offline analysis of files, and live reports of a playing
/// stream.
///
/// Threading: use from one application thread (the main thread in practice);
/// the attributes carry no lock. Offline analysis runs on the global
/// concurrent queue, each call with its own decoding stream, and its
/// completion is called on the main queue. Live reports come from the
/// platform's analysis thread and are handed to the main queue, one task per
/// report, so the callbacks always run on the main thread. A report posted
/// just before a stop may still reach the callback that was current when it
/// was posted. Live reports stay with the channel they were started on until
/// stopped, the object is destroyed, or setStream moves them to another stream.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/TavroURL.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class TAVRO_API TavroBPM {
  public:
    static std::shared_ptr<TavroBPM> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroBPM();
    TavroBPM(const TavroBPM&) = delete;
    TavroBPM& operator=(const TavroBPM&) = delete;

    /// A decoding float stream of a file, or null.
    static std::shared_ptr<TavroStream> decodeStreamForURL(const TavroURL& url);
    /// Tempo of [startSeconds, endSeconds] (endSeconds <= 0: to the end),
    /// searched in minBPM..maxBPM (0 = 60 and 180); 0 when the file cannot be
    /// read or the request is refused (an empty range, a bad BPM range).
    static void detectBPMForFileURL(const TavroURL& url, double startSeconds, double endSeconds, uint64_t minBPM,
                                    uint64_t maxBPM, std::function<void(float)> completion);
    /// Beat times in seconds, in the order found; empty when the file cannot be read.
    static void detectBeatsForFileURL(const TavroURL& url, double startSeconds, double endSeconds,
                                      std::function<void(const std::vector<double>&)> completion);
    /// Low 16 bits the lowest BPM, high 16 bits the highest; each 0 takes its default.
    static uint32_t rangeWordForMinBPM(uint64_t minBPM, uint64_t maxBPM);

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    /// Running live reports move along: stopped on the old stream's channel
    /// (waiting for a report in flight) and started on the new one with the
    /// same settings; those that cannot start there end.
    void setStream(std::weak_ptr<TavroStream> stream);
    bool liveBPMRunning() const { return liveBPMRunning_; }
    bool beatDetectionRunning() const { return beatDetectionRunning_; }
    const std::function<void(float)>& liveBPMBlock() const { return liveBPMBlock_; }
    void setLiveBPMBlock(std::function<void(float)> block);
    const std::function<void(double)>& beatBlock() const { return beatBlock_; }
    void setBeatBlock(std::function<void(double)> block);

    bool startLiveBPMWithPeriod(double period, uint64_t minBPM, uint64_t maxBPM, std::function<void(float)> block);
    void stopLiveBPM();
    bool startBeatDetectionWithBlock(std::function<void(double)> block);
    void stopBeatDetection();
    void stopAll();


  private:
    TavroBPM() = default;
    uint32_t handle() const;
    // Hand-over from the platform's callbacks to the main queue.
    void deliverLiveBPM(float bpm);
    void deliverBeatAt(double seconds);
    friend void TavroLiveBPMProc(uint32_t channel, float bpm, void* user);
    friend void TavroLiveBeatProc(uint32_t channel, double beatSeconds, void* user);

    std::weak_ptr<TavroStream> stream_;
    bool liveBPMRunning_ = false;
    bool beatDetectionRunning_ = false;
    // The channels the platform's callbacks were set on (0: none), stopped
    // by handle so that a stream replaced or gone leaves nothing behind.
    uint32_t liveBPMChannel_ = 0;
    uint32_t beatChannel_ = 0;
    double livePeriod_ = 0;
    uint64_t liveMinBPM_ = 0, liveMaxBPM_ = 0;
    // Written on the owning thread, read on the analysis thread (blockMutex_).
    mutable std::mutex blockMutex_;
    std::function<void(float)> liveBPMBlock_;
    std::function<void(double)> beatBlock_;
};
