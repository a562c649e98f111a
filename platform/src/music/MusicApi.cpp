// Tracker-module functions of the API: argument checks and handles; the
// behaviour lives in MusicChannel.
#include "core/Error.hpp"
#include "music/MusicChannel.hpp"
#include "output/Device.hpp"

#include <algorithm>

using namespace tavro::platform;

namespace {
// libopenmpt's documented range of mixing rates.
constexpr DWORD kMinMusicRate = 8000, kMaxMusicRate = 192000;
} // namespace

extern "C" {

HMUSIC BASS_MusicLoad(BOOL mem, const void* file, QWORD offset, DWORD length, DWORD flags, DWORD freq) {
    auto dev = Device::current();
    if (!dev) return failWith<HMUSIC>(BASS_ERROR_INIT, 0);
    // The device's rate by default; a device beyond libopenmpt's range gets
    // the nearest rate it renders, and the output resamples.
    if (freq == 0)
        freq = std::clamp(dev->rate(), kMinMusicRate, kMaxMusicRate);
    else if (freq < kMinMusicRate || freq > kMaxMusicRate)
        return failWith<HMUSIC>(BASS_ERROR_FREQ, 0);
    std::shared_ptr<MusicChannel> music;
    if (mem) {
        // A block in memory has no end to run to: its length must be given.
        if (!file || length == 0) return failWith<HMUSIC>(BASS_ERROR_ILLPARAM, 0);
        music = MusicChannel::loadMemory(file, length, flags, freq, dev);
    } else {
        if (!file) return failWith<HMUSIC>(BASS_ERROR_FILEOPEN, 0);
        music = MusicChannel::loadFile(static_cast<const char*>(file), offset, length, flags, freq, dev);
    }
    if (!music) return 0;
    return succeedWith<HMUSIC>(Handles::add(music));
}

BOOL BASS_MusicFree(HMUSIC handle) {
    auto music = Handles::get<MusicChannel>(handle);
    if (!music || music->isFreed()) return fail(BASS_ERROR_HANDLE);
    Handles::remove(handle);
    music->free();
    return succeed();
}

} // extern "C"
