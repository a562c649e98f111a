/// @file
/// Loads one source at a time, keeps volume and pan across loads, runs the
/// transport and reports state, errors, the end of the track and progress.
///
/// Threading: use from the main thread. Every report (callbacks first, then
/// the delegate) is delivered asynchronously on the main queue, never from
/// inside the call that caused it; reports for a player that is gone are
/// dropped. The player takes no locks.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/analysis/TavroAnalyzer.hpp>
#include <tavro/analysis/TavroBPM.hpp>
#include <tavro/analysis/TavroVolumeNormalizer.hpp>
#include <tavro/dispatch/TavroTimer.hpp>
#include <tavro/dsp/TavroCrossfeed.hpp>
#include <tavro/effects/TavroEffects.hpp>
#include <tavro/dsp/TavroDSP.hpp>
#include <tavro/engine/TavroError.hpp>
#include <tavro/sources/TavroSource.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <functional>
#include <memory>

using TavroPlayerState = int64_t;
constexpr TavroPlayerState TavroPlayerStateStopped = 0;
constexpr TavroPlayerState TavroPlayerStatePlaying = 1;
constexpr TavroPlayerState TavroPlayerStatePaused = 2;
constexpr TavroPlayerState TavroPlayerStateEnded = 4;

using TavroPlayerOptions = uint64_t;
constexpr TavroPlayerOptions TavroPlayerOptionFXChain = 1;
constexpr TavroPlayerOptions TavroPlayerOptionReverse = 2;

class TavroPlayer;

/// Every operation is optional: the defaults do nothing.
class TAVRO_API TavroPlayerDelegate {
  public:
    virtual ~TavroPlayerDelegate() = default;
    virtual void bassPlayerDidChangeState(TavroPlayer& player, int64_t state) { (void)player, (void)state; }
    virtual void bassPlayerDidFailWithError(TavroPlayer& player, const TavroError& error) { (void)player, (void)error; }
    virtual void bassPlayerDidReachEnd(TavroPlayer& player) { (void)player; }
    virtual void bassPlayerDidUpdatePosition(TavroPlayer& player, double position) { (void)player, (void)position; }
};

class TAVRO_API TavroPlayer : public std::enable_shared_from_this<TavroPlayer> {
  public:
    static std::shared_ptr<TavroPlayer> init();
    static std::shared_ptr<TavroPlayer> initWithSource(std::shared_ptr<TavroSource> source);
    static std::shared_ptr<TavroPlayer> initWithSource(std::shared_ptr<TavroSource> source, TavroPlayerOptions options);
    ~TavroPlayer();
    TavroPlayer(const TavroPlayer&) = delete;
    TavroPlayer& operator=(const TavroPlayer&) = delete;

    /// @name Options that take effect at the next load
    /// @{
    bool fxChainEnabled() const { return fxChainEnabled_; }
    void setFxChainEnabled(bool v) { fxChainEnabled_ = v; }
    bool reverseEnabled() const { return reverseEnabled_; }
    void setReverseEnabled(bool v) { reverseEnabled_ = v; }
    bool spatialEnabled() const { return spatialEnabled_; }
    void setSpatialEnabled(bool v) { spatialEnabled_ = v; }
    bool includesEffects() const { return includesEffects_; }
    void setIncludesEffects(bool v) { includesEffects_ = v; }
    bool includesDSP() const { return includesDSP_; }
    void setIncludesDSP(bool v) { includesDSP_ = v; }
    bool includes3DSound() const { return includes3DSound_; }
    void setIncludes3DSound(bool v) { includes3DSound_ = v; }
    bool includesAnalyzer() const { return includesAnalyzer_; }
    void setIncludesAnalyzer(bool v) { includesAnalyzer_ = v; }
    bool includesBPM() const { return includesBPM_; }
    void setIncludesBPM(bool v) { includesBPM_ = v; }
    bool includesVolumeNormalizer() const { return includesVolumeNormalizer_; }
    void setIncludesVolumeNormalizer(bool v) { includesVolumeNormalizer_ = v; }
    bool includesCrossfeed() const { return includesCrossfeed_; }
    void setIncludesCrossfeed(bool v) { includesCrossfeed_ = v; }
    /// @}

    float volume() const { return volume_; }
    void setVolume(float volume);
    float pan() const { return pan_; }
    void setPan(float pan);

    const std::shared_ptr<TavroStream>& stream() const { return stream_; }
    /// Components made by the last load (null when not asked for).
    const std::shared_ptr<TavroEffects>& effects() const { return effects_; }
    const std::shared_ptr<TavroDSP>& dsp() const { return dsp_; }
    const std::shared_ptr<TavroAnalyzer>& analyzer() const { return analyzer_; }
    const std::shared_ptr<TavroBPM>& bpm() const { return bpm_; }
    const std::shared_ptr<TavroCrossfeed>& crossfeed() const { return crossfeed_; }
    const std::shared_ptr<TavroVolumeNormalizer>& volumeNormalizer() const { return volumeNormalizer_; }
    TavroPlayerState state() const { return state_; }
    uint64_t endSync() const { return endSync_; }
    double position() const { return stream_ ? stream_->position() : 0.0; }
    double duration() const { return stream_ ? stream_->duration() : 0.0; }
    bool isPlaying() const { return state_ == TavroPlayerStatePlaying; }

    /// @name Loading and transport
    /// @{
    bool loadSource(std::shared_ptr<TavroSource> source, TavroError* error = nullptr);
    bool play(TavroError* error = nullptr);
    bool pause();
    bool stop();
    bool seekToSeconds(double seconds);
    bool seekBy(double delta);
    void releaseStream();
    /// @}

    /// @name Events
    /// @{
    std::weak_ptr<TavroPlayerDelegate> delegate() const { return delegate_; }
    void setDelegate(std::weak_ptr<TavroPlayerDelegate> d) { delegate_ = std::move(d); }
    void setOnStateChange(std::function<void(int64_t)> f) { onStateChange_ = std::move(f); }
    void setOnError(std::function<void(const TavroError&)> f) { onError_ = std::move(f); }
    void setOnEnd(std::function<void()> f) { onEnd_ = std::move(f); }
    void setOnProgress(std::function<void(double)> f) { onProgress_ = std::move(f); }
    const std::function<void(int64_t)>& onStateChange() const { return onStateChange_; }
    const std::function<void(const TavroError&)>& onError() const { return onError_; }
    const std::function<void()>& onEnd() const { return onEnd_; }
    const std::function<void(double)>& onProgress() const { return onProgress_; }
    /// @}

    /// @name Progress and fades
    /// @{
    void beginProgressUpdatesEvery(double interval);
    void endProgressUpdates();
    const std::shared_ptr<TavroTimer>& progressTimer() const { return progressTimer_; }
    bool fadeVolumeTo(float volume, double seconds);
    bool fadeInOver(double seconds, TavroError* error = nullptr);
    bool fadeOutAndPauseOver(double seconds);
    bool fadeOutAndStopOver(double seconds);
    bool fadeOutThen(std::function<void()> action, double seconds);
    /// @}

  private:
    TavroPlayer() = default;
    void handleEnd();
    // Reports go out through the main queue, never from inside the call.
    void deliverStateChange();
    void deliverError(const TavroError* error);

    bool fxChainEnabled_ = true, reverseEnabled_ = false, spatialEnabled_ = false;
    bool includesEffects_ = false, includesDSP_ = false, includes3DSound_ = false, includesAnalyzer_ = false;
    bool includesBPM_ = false, includesVolumeNormalizer_ = false, includesCrossfeed_ = false;
    float volume_ = 1.0f, pan_ = 0.0f;
    std::shared_ptr<TavroStream> stream_;
    std::shared_ptr<TavroEffects> effects_;
    std::shared_ptr<TavroDSP> dsp_;
    std::shared_ptr<TavroCrossfeed> crossfeed_;
    std::shared_ptr<TavroAnalyzer> analyzer_;
    std::shared_ptr<TavroBPM> bpm_;
    std::shared_ptr<TavroVolumeNormalizer> volumeNormalizer_;
    TavroPlayerState state_ = TavroPlayerStateStopped;
    uint64_t endSync_ = 0;
    std::shared_ptr<TavroTimer> progressTimer_;
    std::weak_ptr<TavroPlayerDelegate> delegate_;
    std::function<void(int64_t)> onStateChange_;
    std::function<void(const TavroError&)> onError_;
    std::function<void()> onEnd_;
    std::function<void(double)> onProgress_;
};
