/// @file
/// One chain of platform channels made from a source: the source's channel,
/// optionally a reverse stage and a tempo stage on top. `handle` is the top,
/// the channel every component attaches to.
///
/// Threading: not locked; use a stream from the thread that owns it (normally
/// the main thread). Only the A-B loop's sync runs elsewhere, on the mixing
/// thread, where it reads loopStartBytes and moves the position.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/engine/TavroError.hpp>
#include <tavro/sources/TavroSource.hpp>

#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

using TavroStreamOptions = uint64_t;
constexpr TavroStreamOptions TavroStreamOptionFXChain = 1;
constexpr TavroStreamOptions TavroStreamOptionReverseChain = 2;
constexpr TavroStreamOptions TavroStreamOptionTempoLinear = 4;
constexpr TavroStreamOptions TavroStreamOptionTempoShannon = 8;

using TavroSeekFlags = uint64_t;
constexpr TavroSeekFlags TavroSeekDecodeTo = 1;
constexpr TavroSeekFlags TavroSeekScan = 2;
constexpr TavroSeekFlags TavroSeekFlush = 4;

class TAVRO_API TavroStream : public std::enable_shared_from_this<TavroStream> {
  public:
    static std::shared_ptr<TavroStream> streamWithSource(std::shared_ptr<TavroSource> source, TavroSourceFlags flags,
                                                         TavroStreamOptions options, TavroError* error = nullptr);
    static std::shared_ptr<TavroStream> streamWithSource(std::shared_ptr<TavroSource> source, TavroSourceFlags flags,
                                                         TavroError* error = nullptr);
    /// Any integer is taken as options, the literal 0 included, which would
    /// otherwise fit the error pointer just as well.
    template <std::integral Options>
    static std::shared_ptr<TavroStream> streamWithSource(std::shared_ptr<TavroSource> source, TavroSourceFlags flags,
                                                         Options options, TavroError* error = nullptr) {
        return streamWithSource(std::move(source), flags, static_cast<TavroStreamOptions>(options), error);
    }
    ~TavroStream();
    TavroStream(const TavroStream&) = delete;
    TavroStream& operator=(const TavroStream&) = delete;

    uint32_t handle() const { return handle_; }
    uint32_t sourceHandle() const { return sourceHandle_; }
    int64_t kind() const { return kind_; }
    const std::shared_ptr<TavroSource>& source() const { return source_; }
    TavroStreamOptions createOptions() const { return createOptions_; }
    uint32_t loopSync() const { return loopSync_; }
    uint64_t loopStartBytes() const { return loopStartBytes_; }
    bool hasFXChain() const { return createOptions_ & TavroStreamOptionFXChain; }
    bool hasReverseChain() const { return createOptions_ & TavroStreamOptionReverseChain; }

    /// @name Transport
    /// @{
    bool play(bool restart);
    bool pause();
    bool resume();
    bool stop();
    void free();
    /// @}

    /// @name Position, in seconds
    /// @{
    double position() const;
    double duration() const;
    bool seekToSeconds(double seconds);
    bool seekToSeconds(double seconds, TavroSeekFlags flags);
    int64_t rawBytePosition() const;
    /// @}

    /// @name Channel information (0 or false when unavailable)
    /// @{
    uint64_t sampleRate() const;
    uint64_t channelCount() const;
    uint64_t originalSampleRate() const;
    bool isDecoding() const;
    bool isLooping() const;
    void setLooping(bool looping);
    bool isLive() const;
    /// @}

    /// @name Attributes
    /// @{
    float volume() const;
    void setVolume(float volume);
    float pan() const;
    void setPan(float pan);
    float tempoFrequency() const;
    void setTempoFrequency(float frequency);
    /// @}

    bool slideVolumeTo(float volume, double duration);
    bool slidePanTo(float pan, double duration);
    bool slideFrequencyTo(float frequency, double duration);
    bool isSlidingVolume() const;

    /// @name A-B loop, jumped inside the mixer at the exact frame
    /// @{
    bool setLoopFromSeconds(double start, double end);
    void clearLoop();
    /// @}

    std::map<std::string, std::string> readTags() const;

  private:
    TavroStream() = default;
    float attribute(uint32_t attrib) const;
    static void TavroLoopSyncProc(uint32_t handle, uint32_t channel, uint32_t data, void* user);

    uint32_t handle_ = 0, sourceHandle_ = 0;
    int64_t kind_ = 0;
    std::shared_ptr<TavroSource> source_;
    TavroStreamOptions createOptions_ = 0;
    uint32_t loopSync_ = 0;
    uint64_t loopStartBytes_ = 0;
};
