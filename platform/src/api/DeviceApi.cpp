// Initialisation, devices and output control.
#include "channel/Channel.hpp"
#include "core/Config.hpp"
#include "core/Error.hpp"
#include "output/Device.hpp"
#include "output/PulseDirectory.hpp"

#include <deque>
#include <mutex>
#include <string>

using namespace tavro::platform;

namespace {

// Device names handed out stay valid for the life of the process.
const char* intern(const std::string& s) {
    static std::mutex m;
    static std::deque<std::string>* pool = new std::deque<std::string>();
    std::lock_guard lock(m);
    for (const auto& p : *pool)
        if (p == s) return p.c_str();
    pool->push_back(s);
    return pool->back().c_str();
}

int defaultOutput(const ServerDevices& sd) {
    if (sd.reachable)
        for (size_t i = 0; i < sd.sinks.size(); ++i)
            if (sd.sinks[i].present && sd.sinks[i].name == sd.defaultSink) return static_cast<int>(i) + 1;
    return 0;
}

std::mutex& initMutex() {
    static std::mutex m;
    return m;
}

} // namespace

extern "C" {

BOOL BASS_Init(int device, DWORD freq, DWORD flags, void*, const void*) {
    std::lock_guard lock(initMutex());
    const ServerDevices sd = PulseDirectory::snapshot();
    if (device == -1) device = defaultOutput(sd);
    if (device < 0 || (device > 0 && static_cast<size_t>(device) > sd.sinks.size())) return fail(BASS_ERROR_DEVICE);
    if (Device::byNumber(device)) return fail(BASS_ERROR_ALREADY);
    if (freq == 0) freq = device == 0 ? 44100 : 48000;
    auto d = Device::open(device, freq, flags);
    if (!d) return FALSE;
    if (!d->startOutput()) return FALSE;
    Device::registerInitialised(d);
    return succeed();
}

BOOL BASS_Free(void) {
    std::lock_guard lock(initMutex());
    auto d = Device::unregisterCurrent();
    if (!d) return fail(BASS_ERROR_INIT);
    d->shutdown();
    return succeed();
}

BOOL BASS_Start(void) {
    auto d = Device::current();
    if (!d) return fail(BASS_ERROR_INIT);
    if (!d->startOutput()) return FALSE;
    return succeed();
}

BOOL BASS_Stop(void) {
    auto d = Device::current();
    if (!d) return fail(BASS_ERROR_INIT);
    // Stopping the output stops every channel on it.
    for (auto& ch : d->attachedChannels()) ch->stop();
    d->stopOutput();
    return succeed();
}

BOOL BASS_Pause(void) {
    auto d = Device::current();
    if (!d) return fail(BASS_ERROR_INIT);
    d->stopOutput();
    return succeed();
}

DWORD BASS_GetVersion(void) { return BASSVERSION_FULL; }

// The share of real time (percent of one core) the audio threads spent
// rendering and mixing since the previous call, measured over at least
// 100 ms so that quick calls see a steady figure.
float BASS_GetCPU(void) {
    static std::mutex m;
    static int64_t lastNs = 0, lastBusy = 0;
    static float percent = 0;
    std::lock_guard lock(m);
    const int64_t now = monotonicNs(), busy = audioBusyNs();
    if (lastNs == 0) {
        lastNs = now, lastBusy = busy;
    } else if (now - lastNs >= 100'000'000) {
        percent = static_cast<float>(static_cast<double>(busy - lastBusy) * 100.0 / static_cast<double>(now - lastNs));
        lastNs = now, lastBusy = busy;
    }
    return percent;
}

BOOL BASS_GetDeviceInfo(DWORD device, BASS_DEVICEINFO* info) {
    if (!info) return fail(BASS_ERROR_ILLPARAM);
    const ServerDevices sd = PulseDirectory::snapshot();
    const int def = defaultOutput(sd);
    if (device == 0) {
        info->name = intern("No sound");
        info->driver = nullptr;
        info->flags = BASS_DEVICE_ENABLED | (def == 0 ? BASS_DEVICE_DEFAULT : 0) |
                      (Device::byNumber(0) ? BASS_DEVICE_INIT : 0);
        return succeed();
    }
    if (device > sd.sinks.size()) return fail(BASS_ERROR_DEVICE);
    const ServerDevice& s = sd.sinks[device - 1];
    info->name = intern(s.description);
    info->driver = intern(s.name);
    info->flags = (s.present ? BASS_DEVICE_ENABLED : 0) | (def == static_cast<int>(device) ? BASS_DEVICE_DEFAULT : 0) |
                  (Device::byNumber(static_cast<int>(device)) ? BASS_DEVICE_INIT : 0);
    return succeed();
}

BOOL BASS_SetDevice(DWORD device) {
    const int n = static_cast<int>(device);
    if (!Device::byNumber(n)) {
        const ServerDevices sd = PulseDirectory::snapshot();
        return fail(device == 0 || device <= sd.sinks.size() ? BASS_ERROR_INIT : BASS_ERROR_DEVICE);
    }
    Device::setCurrent(n);
    return succeed();
}

DWORD BASS_GetDevice(void) {
    auto d = Device::current();
    if (!d) return failWith<DWORD>(BASS_ERROR_INIT, 0xFFFFFFFF);
    return succeedWith(static_cast<DWORD>(d->number()));
}

BOOL BASS_GetInfo(BASS_INFO* info) {
    if (!info) return fail(BASS_ERROR_ILLPARAM);
    auto d = Device::current();
    if (!d) return fail(BASS_ERROR_INIT);
    *info = {};
    info->freq = d->rate();
    info->latency = d->latencyMs();
    info->minbuf = std::max<DWORD>(10, info->latency);
    info->initflags = d->initFlags();
    info->speakers = 2;
    info->minrate = 1000;
    info->maxrate = 384000;
    return succeed();
}

} // extern "C"
