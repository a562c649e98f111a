#include "core/Config.hpp"

#include "core/Error.hpp"

#include <algorithm>
#include <array>
#include <mutex>
#include <thread>

namespace tavro::platform {

namespace {

struct Range {
    DWORD min, max;
    bool clamp; // true: out-of-range values are clamped; false: refused
};

struct Option {
    DWORD id;
    DWORD initial;
    Range range;
};

// Options held as numbers; anything else is refused with BASS_ERROR_ILLPARAM.
constexpr std::array<Option, 17> kOptions{{
    {BASS_CONFIG_BUFFER, 40, {10, 5000, true}},
    {BASS_CONFIG_UPDATEPERIOD, 10, {0, 100, true}},
    {BASS_CONFIG_GVOL_SAMPLE, 10000, {0, 10000, false}},
    {BASS_CONFIG_GVOL_STREAM, 10000, {0, 10000, false}},
    {BASS_CONFIG_GVOL_MUSIC, 10000, {0, 10000, false}},
    {BASS_CONFIG_FLOATDSP, 0, {0, 1, true}},
    {BASS_CONFIG_NET_TIMEOUT, 5000, {0, 0xFFFFFFFF, false}},
    {BASS_CONFIG_NET_BUFFER, 5000, {0, 0xFFFFFFFF, false}},
    {BASS_CONFIG_NET_PREBUF, 75, {0, 100, false}},
    {BASS_CONFIG_NET_PLAYLIST, 0, {0, 2, false}},
    {BASS_CONFIG_UPDATETHREADS, 1, {0, 8, false}},
    {BASS_CONFIG_REC_LOOPBACK, 0, {0, 1, true}},
    {BASS_CONFIG_IOS_SESSION, 0, {0, 0x1FF, false}},
    {BASS_CONFIG_SRC, 2, {0, 4, false}},
    {BASS_CONFIG_SRC_SAMPLE, 2, {0, 4, false}},
    {BASS_CONFIG_NET_PLAYLIST_DEPTH, 1, {0, 0xFFFFFFFF, false}},
    {BASS_CONFIG_DOWNMIX, 0, {0, 1, false}},
}};

constexpr bool isPointerOption(DWORD id) {
    return id == BASS_CONFIG_DEV_NOTIFY || id == BASS_CONFIG_IOS_NOTIFY || id == BASS_CONFIG_NET_AGENT ||
           id == BASS_CONFIG_NET_PROXY;
}

struct Store {
    std::array<std::atomic<DWORD>, kOptions.size()> values;
    std::mutex ptrMutex;
    std::string agent, proxy;
    bool agentSet = false, proxySet = false;
    std::atomic<DEVNOTIFYPROC*> devNotify{nullptr};
    std::atomic<IOSNOTIFYPROC*> iosNotify{nullptr};
    Store() {
        for (size_t i = 0; i < kOptions.size(); ++i) values[i].store(kOptions[i].initial);
        // As many update threads as cores (at most the option's 8).
        const DWORD cores = std::clamp<DWORD>(std::thread::hardware_concurrency(), 1, 8);
        for (size_t i = 0; i < kOptions.size(); ++i)
            if (kOptions[i].id == BASS_CONFIG_UPDATETHREADS) values[i].store(cores);
    }
};

Store& store() {
    static Store s;
    return s;
}

int indexOf(DWORD option) {
    if (isPointerOption(option)) return -1;
    for (size_t i = 0; i < kOptions.size(); ++i)
        if (kOptions[i].id == option) return static_cast<int>(i);
    return -1;
}

} // namespace

bool Config::set(DWORD option, DWORD value) {
    const int i = indexOf(option);
    if (i < 0) return fail(BASS_ERROR_ILLPARAM);
    const Range& r = kOptions[i].range;
    if (value < r.min || value > r.max) {
        if (!r.clamp) return fail(BASS_ERROR_ILLPARAM);
        value = std::clamp(value, r.min, r.max);
    }
    store().values[i].store(value);
    return succeed();
}

std::optional<DWORD> Config::get(DWORD option) {
    const int i = indexOf(option);
    if (i < 0) return std::nullopt;
    return store().values[i].load();
}

DWORD Config::value(DWORD option) { return get(option).value_or(0); }

bool Config::setPtr(DWORD option, const void* value) {
    Store& s = store();
    switch (option) {
    case BASS_CONFIG_DEV_NOTIFY:
        s.devNotify.store(reinterpret_cast<DEVNOTIFYPROC*>(const_cast<void*>(value)));
        return succeed();
    case BASS_CONFIG_IOS_NOTIFY:
        s.iosNotify.store(reinterpret_cast<IOSNOTIFYPROC*>(const_cast<void*>(value)));
        return succeed();
    case BASS_CONFIG_NET_AGENT:
    case BASS_CONFIG_NET_PROXY: {
        std::lock_guard lock(s.ptrMutex);
        std::string& target = option == BASS_CONFIG_NET_AGENT ? s.agent : s.proxy;
        bool& isSet = option == BASS_CONFIG_NET_AGENT ? s.agentSet : s.proxySet;
        isSet = value != nullptr;
        target = value ? static_cast<const char*>(value) : "";
        return succeed();
    }
    default:
        return fail(BASS_ERROR_ILLPARAM);
    }
}

const void* Config::getPtr(DWORD option) {
    Store& s = store();
    switch (option) {
    case BASS_CONFIG_DEV_NOTIFY:
        return reinterpret_cast<const void*>(s.devNotify.load());
    case BASS_CONFIG_IOS_NOTIFY:
        return reinterpret_cast<const void*>(s.iosNotify.load());
    case BASS_CONFIG_NET_AGENT:
    case BASS_CONFIG_NET_PROXY: {
        // The returned text stays valid until the option is set again.
        std::lock_guard lock(s.ptrMutex);
        if (option == BASS_CONFIG_NET_AGENT) return s.agentSet ? s.agent.c_str() : nullptr;
        return s.proxySet ? s.proxy.c_str() : nullptr;
    }
    default:
        return nullptr;
    }
}

std::string Config::agent() {
    std::lock_guard lock(store().ptrMutex);
    return store().agent;
}
std::string Config::proxy() {
    std::lock_guard lock(store().ptrMutex);
    return store().proxy;
}
DEVNOTIFYPROC* Config::deviceNotify() { return store().devNotify.load(); }
IOSNOTIFYPROC* Config::sessionNotify() { return store().iosNotify.load(); }

} // namespace tavro::platform

using tavro::platform::Config;

extern "C" BOOL BASS_SetConfig(DWORD option, DWORD value) { return Config::set(option, value) ? TRUE : FALSE; }

extern "C" DWORD BASS_GetConfig(DWORD option) {
    if (auto v = Config::get(option)) return tavro::platform::succeedWith(*v);
    return tavro::platform::failWith<DWORD>(BASS_ERROR_ILLPARAM, 0xFFFFFFFF);
}

extern "C" BOOL BASS_SetConfigPtr(DWORD option, const void* value) {
    return Config::setPtr(option, value) ? TRUE : FALSE;
}

extern "C" const void* BASS_GetConfigPtr(DWORD option) {
    const void* p = Config::getPtr(option);
    tavro::platform::setError(p ? BASS_OK : BASS_ERROR_ILLPARAM);
    return p;
}
