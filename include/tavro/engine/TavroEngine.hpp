/// @file
/// The process-wide engine: brings the output up and down and holds the
/// platform's global settings.
///
/// Threading: start, stop and every setter belong on the application's main
/// thread; they take no lock, the platform serialises its own configuration.
/// The two notification procedures are called by the platform on threads of its
/// own; they touch no engine state there and only post to the main queue, so
/// onAudioInterruptionBegan, onAudioInterruptionEnded and onAudioDeviceChange
/// always run on the main thread, on the shared engine, with the callback that
/// is set when the notification is delivered (not when it was raised).
#pragma once

#include <tavro/Export.hpp>

#include <tavro/engine/TavroDeviceInfo.hpp>
#include <tavro/engine/TavroError.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// @name Audio-session behaviour, as taken by setIOSSessionOptions
/// @{
using TavroSessionOptions = uint64_t;
constexpr TavroSessionOptions TavroSessionOptionMix = 1;
constexpr TavroSessionOptions TavroSessionOptionDuck = 2;
constexpr TavroSessionOptions TavroSessionOptionAmbient = 4;
constexpr TavroSessionOptions TavroSessionOptionSpeaker = 8;
constexpr TavroSessionOptions TavroSessionOptionAirPlay = 16;
constexpr TavroSessionOptions TavroSessionOptionBluetoothHFP = 32;
constexpr TavroSessionOptions TavroSessionOptionBluetoothA2DP = 64;
/// @}

class TAVRO_API TavroEngine {
  public:
    /// The instance the notification procedures deliver to; made once, on first
    /// use, from whichever thread asks first, and kept for the whole process.
    static std::shared_ptr<TavroEngine> sharedEngine();

    /// @name Construction
    /// Other instances may be made (tests do), but notifications still go to the shared one. Destroying an
    /// instance neither frees the output nor unloads plug-ins.
    /// @{
    TavroEngine();
    ~TavroEngine();
    TavroEngine(const TavroEngine&) = delete;
    /// @}
    TavroEngine& operator=(const TavroEngine&) = delete;

    /// @name Lifecycle
    /// @{
    bool startWithError(TavroError* error = nullptr);
    bool startWithSampleRate(uint64_t sampleRate, TavroError* error = nullptr);
    /// @}
    /// @name Starts on a chosen output device
    /// -1 the default (as startWithError), 0 the no-sound device, n > 0 a deviceID of
    /// availableOutputDevices(). The no-sound device needs no sound server and opens no playback stream: the
    /// way to start for decoding, analysis and other offline work. Streams made for playing still play there,
    /// in silence, at the pace of a clock.
    /// @{
    bool startWithDevice(int64_t device, TavroError* error = nullptr);
    bool startWithDevice(int64_t device, uint64_t sampleRate, TavroError* error);
    /// @}
    void stop();
    bool isStarted() const { return started_; }
    /// After an interruption: true only when started and the output refuses to
    /// resume because the device must be reinitialised. Reinitialising is left
    /// to the caller.
    bool resumeOutputNeedsReinit();

    /// @name Read once by start
    /// @{
    bool voiceProcessingEnabled() const { return voiceProcessingEnabled_; }
    void setVoiceProcessingEnabled(bool enabled) { voiceProcessingEnabled_ = enabled; }
    bool managesAudioSession() const { return managesAudioSession_; }
    void setManagesAudioSession(bool manages) { managesAudioSession_ = manages; }
    /// @}

    /// @name Network settings
    /// Stored, pushed to the platform at once and again by start.
    /// @{
    uint64_t networkBufferMS() const { return networkBufferMS_; }
    void setNetworkBufferMS(uint64_t ms);
    uint64_t networkPrebufferMS() const { return networkPrebufferMS_; }
    void setNetworkPrebufferMS(uint64_t prebuffer);
    uint64_t networkTimeoutMS() const { return networkTimeoutMS_; }
    void setNetworkTimeoutMS(uint64_t ms);
    /// @}
    /// Unset (nullopt) is only stored: the platform keeps what it had.
    const std::optional<std::string>& userAgent() const { return userAgent_; }
    void setUserAgent(std::optional<std::string> userAgent);
    const std::optional<std::string>& proxy() const { return proxy_; }
    void setProxy(std::optional<std::string> proxy);

    /// @name Pass-through settings
    /// Read from and written to the platform directly, before or after start.
    /// @{
    uint64_t playbackBufferMS() const;
    void setPlaybackBufferMS(uint64_t ms);
    uint64_t updatePeriodMS() const;
    void setUpdatePeriodMS(uint64_t ms);
    uint64_t updateThreads() const;
    void setUpdateThreads(uint64_t threads);
    uint64_t resamplingQuality() const;
    void setResamplingQuality(uint64_t quality);
    uint64_t sampleResamplingQuality() const;
    void setSampleResamplingQuality(uint64_t quality);
    uint64_t downmixChannels() const;
    void setDownmixChannels(uint64_t downmix);
    /// @}

    /// @name One volume for streams, music and samples alike, 0 to 1
    /// @{
    float globalVolume() const;
    void setGlobalVolume(float volume);
    /// @}

    bool setIOSSessionOptions(TavroSessionOptions options);

    /// Output devices in device-number order.
    std::vector<TavroDeviceInfo> availableOutputDevices() const;
    /// Selects the device for the calling thread's later platform calls.
    bool setOutputDevice(int32_t deviceID);
    /// The device the calling thread's platform calls go to: the one start
    /// opened (the default may turn out to be the no-sound device when no sound
    /// server is reachable) or the one setOutputDevice selected; -1 when none.
    int32_t currentOutputDevice() const;

    /// @name Callbacks, run on the main thread
    /// @{
    const std::function<void()>& onAudioInterruptionBegan() const { return onAudioInterruptionBegan_; }
    void setOnAudioInterruptionBegan(std::function<void()> callback) {
        onAudioInterruptionBegan_ = std::move(callback);
    }
    const std::function<void()>& onAudioInterruptionEnded() const { return onAudioInterruptionEnded_; }
    void setOnAudioInterruptionEnded(std::function<void()> callback) {
        onAudioInterruptionEnded_ = std::move(callback);
    }
    const std::function<void(int64_t)>& onAudioDeviceChange() const { return onAudioDeviceChange_; }
    void setOnAudioDeviceChange(std::function<void(int64_t)> callback) {
        onAudioDeviceChange_ = std::move(callback);
    }
    /// @}

    /// @name Loaded plug-ins by name; emptied by stop
    /// @{
    const std::map<std::string, uint32_t>& plugins() const { return plugins_; }
    void setPlugins(std::map<std::string, uint32_t> plugins) { plugins_ = std::move(plugins); }
    /// @}

    /// @name Format plug-ins
    /// loadAllPlugins loads those of the fixed list that are not loaded yet and writes two kinds of line to
    /// the system log; it does not need the engine to be started.
    /// @{
    static const std::vector<std::string>& pluginNames();
    void loadAllPlugins();
    std::map<std::string, uint32_t> loadedPlugins() const { return plugins_; }
    static std::vector<std::string> builtInPlaybackFileExtensions();
    /// The module of pluginNames() that plays the file at path, or "" when it needs none or is not a
    /// format any module knows. Judged by the file's first bytes, then, for a file that cannot be read
    /// or is not recognised, by its extension. A file of a plug-in format whose module is not loaded
    /// fails to open with code 41, "Unsupported file format", like one that is no audio at all; this
    /// tells the two apart:
    /// @code
    /// if (error.code() == BASS_ERROR_FILEFORM) {
    ///     const std::string module = TavroEngine::pluginForFile(path);
    ///     if (!module.empty() && !engine->loadedPlugins().count(module)) { /* say: load module */ }
    /// }
    /// @endcode
    static std::string pluginForFile(const std::string& path);
    /// @}
    /// Built-in and plug-in extensions, lower case, without dot, sorted.
    std::vector<std::string> supportedPlaybackFileExtensions() const;
    /// The platform's version as "major.minor.revision.build".
    std::string bassVersionString() const;

    /// @name Handed to the platform by start
    /// Called on the platform's threads.
    /// @{
    static void TavroIOSNotifyProc(uint32_t status);
    static void TavroDeviceNotifyProc(uint32_t notify);
    /// @}

  private:
    bool start(int64_t device, uint64_t sampleRate, TavroError* error);

    bool started_ = false;
    bool voiceProcessingEnabled_ = false;
    bool managesAudioSession_ = false;
    uint64_t networkBufferMS_ = 5000;
    uint64_t networkPrebufferMS_ = 75;
    uint64_t networkTimeoutMS_ = 15000;
    std::optional<std::string> userAgent_;
    std::optional<std::string> proxy_;
    std::function<void()> onAudioInterruptionBegan_;
    std::function<void()> onAudioInterruptionEnded_;
    std::function<void(int64_t)> onAudioDeviceChange_;
    std::map<std::string, uint32_t> plugins_;
};
