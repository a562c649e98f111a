#include <tavro/engine/TavroEngine.hpp>

#include <tavro/dispatch/TavroMainQueue.hpp>

#include <bass.h>

#include <mutex>

namespace {

uint64_t getConfig(DWORD option) { return static_cast<uint64_t>(BASS_GetConfig(option)); }
void setConfig(DWORD option, uint64_t value) { BASS_SetConfig(option, static_cast<DWORD>(value)); }

// Session option bits 0-3 are the platform's own; 4-6 sit two places higher
// there, because the platform keeps 16 and 32 for disabling and deactivating
// the session, which callers may not reach through the options.
DWORD platformSessionBits(TavroSessionOptions options) {
    return static_cast<DWORD>((options & 0x0F) | ((options & 0x70) << 2));
}

} // namespace

std::shared_ptr<TavroEngine> TavroEngine::sharedEngine() {
    static std::once_flag once;
    // Never destroyed: a notification delivered while the process exits must
    // still find its engine.
    static std::shared_ptr<TavroEngine>* shared = nullptr;
    std::call_once(once, [] { shared = new std::shared_ptr<TavroEngine>(std::make_shared<TavroEngine>()); });
    return *shared;
}

TavroEngine::TavroEngine() = default;
TavroEngine::~TavroEngine() = default;

bool TavroEngine::startWithError(TavroError* error) { return startWithSampleRate(44100, error); }

bool TavroEngine::startWithSampleRate(uint64_t sampleRate, TavroError* error) { return start(-1, sampleRate, error); }

bool TavroEngine::startWithDevice(int64_t device, TavroError* error) { return start(device, 44100, error); }

bool TavroEngine::startWithDevice(int64_t device, uint64_t sampleRate, TavroError* error) {
    return start(device, sampleRate, error);
}

bool TavroEngine::start(int64_t device, uint64_t sampleRate, TavroError* error) {
    if (started_) return true;
    if (device < -1 || device > INT32_MAX) {
        if (error) *error = TavroError::errorFromBassCode(BASS_ERROR_DEVICE);
        return false;
    }
    if (!managesAudioSession_) BASS_SetConfig(BASS_CONFIG_IOS_SESSION, BASS_IOS_SESSION_DISABLE);
    const DWORD flags = voiceProcessingEnabled_ ? BASS_DEVICE_VOICEPROC : 0;
    if (!BASS_Init(static_cast<int>(device), static_cast<DWORD>(sampleRate), flags, nullptr, nullptr)) {
        if (error) *error = TavroError::currentError();
        return false;
    }
    BASS_SetConfigPtr(BASS_CONFIG_IOS_NOTIFY, reinterpret_cast<const void*>(&TavroIOSNotifyProc));
    BASS_SetConfigPtr(BASS_CONFIG_DEV_NOTIFY, reinterpret_cast<const void*>(&TavroDeviceNotifyProc));
    // Pushed again because the platform may have been reset since the setters
    // ran. Refusals are not checked: the platform's own value stays in force.
    setConfig(BASS_CONFIG_NET_BUFFER, networkBufferMS_);
    setConfig(BASS_CONFIG_NET_PREBUF, networkPrebufferMS_);
    setConfig(BASS_CONFIG_NET_TIMEOUT, networkTimeoutMS_);
    BASS_SetConfig(BASS_CONFIG_NET_PLAYLIST, 1);
    BASS_SetConfig(BASS_CONFIG_NET_PLAYLIST_DEPTH, 1);
    // Every sample-level stage of the library works on 32-bit float blocks.
    BASS_SetConfig(BASS_CONFIG_FLOATDSP, 1);
    // Unlike the setters, start does not push empty texts.
    if (userAgent_ && !userAgent_->empty()) BASS_SetConfigPtr(BASS_CONFIG_NET_AGENT, userAgent_->c_str());
    if (proxy_ && !proxy_->empty()) BASS_SetConfigPtr(BASS_CONFIG_NET_PROXY, proxy_->c_str());
    started_ = true;
    return true;
}

void TavroEngine::stop() {
    if (!started_) return;
    BASS_Free();
    BASS_PluginFree(0);
    plugins_.clear();
    started_ = false;
}

bool TavroEngine::resumeOutputNeedsReinit() {
    if (!started_) return false;
    if (BASS_Start()) return false;
    return BASS_ErrorGetCode() == BASS_ERROR_REINIT;
}

void TavroEngine::setNetworkBufferMS(uint64_t ms) {
    networkBufferMS_ = ms;
    setConfig(BASS_CONFIG_NET_BUFFER, ms);
}

void TavroEngine::setNetworkPrebufferMS(uint64_t prebuffer) {
    networkPrebufferMS_ = prebuffer;
    setConfig(BASS_CONFIG_NET_PREBUF, prebuffer);
}

void TavroEngine::setNetworkTimeoutMS(uint64_t ms) {
    networkTimeoutMS_ = ms;
    setConfig(BASS_CONFIG_NET_TIMEOUT, ms);
}

void TavroEngine::setUserAgent(std::optional<std::string> userAgent) {
    userAgent_ = std::move(userAgent);
    if (userAgent_) BASS_SetConfigPtr(BASS_CONFIG_NET_AGENT, userAgent_->c_str());
}

void TavroEngine::setProxy(std::optional<std::string> proxy) {
    proxy_ = std::move(proxy);
    if (proxy_) BASS_SetConfigPtr(BASS_CONFIG_NET_PROXY, proxy_->c_str());
}

uint64_t TavroEngine::playbackBufferMS() const { return getConfig(BASS_CONFIG_BUFFER); }
void TavroEngine::setPlaybackBufferMS(uint64_t ms) { setConfig(BASS_CONFIG_BUFFER, ms); }
uint64_t TavroEngine::updatePeriodMS() const { return getConfig(BASS_CONFIG_UPDATEPERIOD); }
void TavroEngine::setUpdatePeriodMS(uint64_t ms) { setConfig(BASS_CONFIG_UPDATEPERIOD, ms); }
uint64_t TavroEngine::updateThreads() const { return getConfig(BASS_CONFIG_UPDATETHREADS); }
void TavroEngine::setUpdateThreads(uint64_t threads) { setConfig(BASS_CONFIG_UPDATETHREADS, threads); }
uint64_t TavroEngine::resamplingQuality() const { return getConfig(BASS_CONFIG_SRC); }
void TavroEngine::setResamplingQuality(uint64_t quality) { setConfig(BASS_CONFIG_SRC, quality); }
uint64_t TavroEngine::sampleResamplingQuality() const { return getConfig(BASS_CONFIG_SRC_SAMPLE); }
void TavroEngine::setSampleResamplingQuality(uint64_t quality) { setConfig(BASS_CONFIG_SRC_SAMPLE, quality); }
uint64_t TavroEngine::downmixChannels() const { return getConfig(BASS_CONFIG_DOWNMIX); }
void TavroEngine::setDownmixChannels(uint64_t downmix) { setConfig(BASS_CONFIG_DOWNMIX, downmix); }

float TavroEngine::globalVolume() const {
    return static_cast<float>(BASS_GetConfig(BASS_CONFIG_GVOL_STREAM)) / 10000.0f;
}

void TavroEngine::setGlobalVolume(float volume) {
    // Written so that NaN lands on 0 instead of reaching the conversion.
    if (!(volume > 0.0f)) volume = 0.0f;
    if (volume > 1.0f) volume = 1.0f;
    const auto level = static_cast<DWORD>(volume * 10000.0f);
    BASS_SetConfig(BASS_CONFIG_GVOL_STREAM, level);
    BASS_SetConfig(BASS_CONFIG_GVOL_MUSIC, level);
    BASS_SetConfig(BASS_CONFIG_GVOL_SAMPLE, level);
}

bool TavroEngine::setIOSSessionOptions(TavroSessionOptions options) {
    return BASS_SetConfig(BASS_CONFIG_IOS_SESSION, platformSessionBits(options)) != 0;
}

std::vector<TavroDeviceInfo> TavroEngine::availableOutputDevices() const {
    std::vector<TavroDeviceInfo> devices;
    BASS_DEVICEINFO info{};
    for (DWORD n = 0; BASS_GetDeviceInfo(n, &info); ++n) {
        TavroDeviceInfo device;
        device.deviceID = static_cast<int32_t>(n);
        device.name = info.name ? info.name : "";
        if (info.driver) device.driver = info.driver;
        device.isDefault = (info.flags & BASS_DEVICE_DEFAULT) != 0;
        device.isEnabled = (info.flags & BASS_DEVICE_ENABLED) != 0;
        devices.push_back(std::move(device));
        info = BASS_DEVICEINFO{};
    }
    return devices;
}

bool TavroEngine::setOutputDevice(int32_t deviceID) { return BASS_SetDevice(static_cast<DWORD>(deviceID)) != 0; }

int32_t TavroEngine::currentOutputDevice() const {
    const DWORD device = BASS_GetDevice();
    return device == 0xFFFFFFFF ? -1 : static_cast<int32_t>(device);
}

// Both procedures run on a platform thread. They read nothing there: the
// callback is looked up on the main thread at delivery, so one set or cleared
// in between is honoured. The callback is copied before the call so that it
// may replace or clear itself.
void TavroEngine::TavroIOSNotifyProc(uint32_t status) {
    TavroMainQueue::async([status] {
        const auto engine = sharedEngine();
        std::function<void()> callback;
        if (status == BASS_IOSNOTIFY_INTERRUPT) callback = engine->onAudioInterruptionBegan_;
        else if (status == BASS_IOSNOTIFY_INTERRUPT_END) callback = engine->onAudioInterruptionEnded_;
        if (callback) callback();
    });
}

void TavroEngine::TavroDeviceNotifyProc(uint32_t notify) {
    TavroMainQueue::async([notify] {
        const auto callback = sharedEngine()->onAudioDeviceChange_;
        if (!callback) return;
        // Codes the engine does not know are reported as 0 rather than guessed at.
        const bool known = notify >= BASS_DEVNOTIFY_ADDED && notify <= BASS_DEVNOTIFY_FAILED;
        callback(known ? static_cast<int64_t>(notify) : 0);
    });
}
