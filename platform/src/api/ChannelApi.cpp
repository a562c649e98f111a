// Channel and stream functions of the API: handle lookup and argument
// checks; the behaviour lives in Channel.
#include "channel/Channel.hpp"
#include "channel/UserStream.hpp"
#include "core/Error.hpp"
#include "output/Device.hpp"

#include <cmath>

using namespace tavro::platform;

namespace {
std::shared_ptr<Channel> channel(DWORD handle) {
    auto ch = Handles::get<Channel>(handle);
    if (!ch || ch->isFreed()) setError(BASS_ERROR_HANDLE);
    return ch && !ch->isFreed() ? ch : nullptr;
}
constexpr QWORD kBadPos = static_cast<QWORD>(-1);
} // namespace

extern "C" {

HSTREAM BASS_StreamCreate(DWORD freq, DWORD chans, DWORD flags, STREAMPROC* proc, void* user) {
    auto dev = Device::current();
    if (!dev) return failWith<HSTREAM>(BASS_ERROR_INIT, 0);
    if (freq < 1 || freq > 1000000) return failWith<HSTREAM>(BASS_ERROR_FREQ, 0);
    if (chans < 1 || chans > kMaxChannels) return failWith<HSTREAM>(BASS_ERROR_ILLPARAM, 0);
    if (uint64_t(freq) * chans > kMaxSamplesPerSecond) return failWith<HSTREAM>(BASS_ERROR_FORMAT, 0);
    if (proc == STREAMPROC_DEVICE) return failWith<HSTREAM>(BASS_ERROR_NOTAVAIL, 0);
    if (proc == STREAMPROC_DUMMY && !(flags & BASS_STREAM_DECODE)) flags |= BASS_STREAM_DECODE;
    auto s = std::make_shared<UserStream>(freq, chans, flags, proc, user, dev);
    return succeedWith(Handles::add(s));
}

DWORD BASS_StreamPutData(HSTREAM handle, const void* buffer, DWORD length) {
    auto s = Handles::get<UserStream>(handle);
    if (!s || s->isFreed()) return failWith<DWORD>(BASS_ERROR_HANDLE, 0xFFFFFFFF);
    if (!s->isPush()) return failWith<DWORD>(BASS_ERROR_NOTAVAIL, 0xFFFFFFFF);
    return s->putData(buffer, length);
}

BOOL BASS_StreamFree(HSTREAM handle) {
    auto ch = channel(handle);
    if (!ch) return FALSE;
    Handles::remove(handle);
    ch->free();
    return succeed();
}

BOOL BASS_ChannelFree(DWORD handle) { return BASS_StreamFree(handle); }

BOOL BASS_ChannelPlay(DWORD handle, BOOL restart) {
    auto ch = channel(handle);
    return ch && ch->play(restart != FALSE);
}

BOOL BASS_ChannelStart(DWORD handle) {
    auto ch = channel(handle);
    return ch && ch->play(false);
}

BOOL BASS_ChannelPause(DWORD handle) {
    auto ch = channel(handle);
    return ch && ch->pause();
}

BOOL BASS_ChannelStop(DWORD handle) {
    auto ch = channel(handle);
    return ch && ch->stop();
}

DWORD BASS_ChannelIsActive(DWORD handle) {
    auto ch = channel(handle);
    return ch ? succeedWith(ch->activeState()) : BASS_ACTIVE_STOPPED;
}

BOOL BASS_ChannelGetInfo(DWORD handle, BASS_CHANNELINFO* info) {
    if (!info) return fail(BASS_ERROR_ILLPARAM);
    auto ch = channel(handle);
    if (!ch) return FALSE;
    ch->fillInfo(*info);
    return succeed();
}

DWORD BASS_ChannelFlags(DWORD handle, DWORD flags, DWORD mask) {
    auto ch = channel(handle);
    if (!ch) return 0xFFFFFFFF;
    return succeedWith(ch->changeFlags(flags, mask));
}

QWORD BASS_ChannelGetLength(DWORD handle, DWORD mode) {
    auto ch = channel(handle);
    return ch ? ch->length(mode) : kBadPos;
}

QWORD BASS_ChannelGetPosition(DWORD handle, DWORD mode) {
    auto ch = channel(handle);
    return ch ? ch->position(mode) : kBadPos;
}

BOOL BASS_ChannelSetPosition(DWORD handle, QWORD pos, DWORD mode) {
    auto ch = channel(handle);
    return ch && ch->setPosition(pos, mode);
}

double BASS_ChannelBytes2Seconds(DWORD handle, QWORD pos) {
    auto ch = channel(handle);
    if (!ch) return -1.0;
    if (pos == kBadPos) return failWith(BASS_ERROR_ILLPARAM, -1.0);
    return succeedWith(static_cast<double>(pos / ch->bytesPerFrame()) / ch->freq());
}

QWORD BASS_ChannelSeconds2Bytes(DWORD handle, double pos) {
    auto ch = channel(handle);
    if (!ch) return kBadPos;
    if (!(pos >= 0) || std::isinf(pos)) return failWith(BASS_ERROR_ILLPARAM, kBadPos);
    // Round down to a whole frame; the tiny bias keeps exact frame times
    // (t = n / rate) from landing one frame early through rounding.
    const double exact = std::floor(pos * ch->freq() + 1e-7);
    // Beyond any position a 64-bit byte count can hold.
    if (exact * static_cast<double>(ch->bytesPerFrame()) >= 1.8e19) return failWith(BASS_ERROR_ILLPARAM, kBadPos);
    const auto frames = static_cast<QWORD>(exact);
    return succeedWith(frames * ch->bytesPerFrame());
}

BOOL BASS_ChannelSetAttribute(DWORD handle, DWORD attrib, float value) {
    auto ch = channel(handle);
    return ch && ch->setAttribute(attrib, value);
}

BOOL BASS_ChannelGetAttribute(DWORD handle, DWORD attrib, float* value) {
    if (!value) return fail(BASS_ERROR_ILLPARAM);
    auto ch = channel(handle);
    return ch && ch->getAttribute(attrib, *value);
}

BOOL BASS_ChannelSlideAttribute(DWORD handle, DWORD attrib, float value, DWORD time) {
    auto ch = channel(handle);
    return ch && ch->slideAttribute(attrib, value, time);
}

BOOL BASS_ChannelIsSliding(DWORD handle, DWORD attrib) {
    auto ch = channel(handle);
    if (!ch) return FALSE;
    setError(BASS_OK);
    return ch->isSliding(attrib) ? TRUE : FALSE;
}

HDSP BASS_ChannelSetDSP(DWORD handle, DSPPROC* proc, void* user, int priority) {
    auto ch = channel(handle);
    return ch ? ch->addDsp(proc, user, priority, 0) : 0;
}

HDSP BASS_ChannelSetDSPEx(DWORD handle, DSPPROC* proc, void* user, int priority, DWORD flags) {
    auto ch = channel(handle);
    return ch ? ch->addDsp(proc, user, priority, flags) : 0;
}

BOOL BASS_ChannelRemoveDSP(DWORD handle, HDSP dsp) {
    auto ch = channel(handle);
    return ch && ch->removeDsp(dsp);
}

HSYNC BASS_ChannelSetSync(DWORD handle, DWORD type, QWORD param, SYNCPROC* proc, void* user) {
    auto ch = channel(handle);
    return ch ? ch->addSync(type, param, proc, user) : 0;
}

BOOL BASS_ChannelRemoveSync(DWORD handle, HSYNC sync) {
    auto ch = channel(handle);
    return ch && ch->removeSync(sync);
}

DWORD BASS_ChannelGetData(DWORD handle, void* buffer, DWORD length) {
    auto ch = channel(handle);
    return ch ? ch->getData(buffer, length) : 0xFFFFFFFF;
}

DWORD BASS_ChannelGetLevel(DWORD handle) {
    auto ch = channel(handle);
    if (!ch) return 0xFFFFFFFF;
    float lv[2] = {0, 0};
    if (!ch->getLevels(lv, 0.02f, BASS_LEVEL_STEREO)) return 0xFFFFFFFF;
    const auto l = static_cast<DWORD>(std::min(1.0f, lv[0]) * 32768.0f);
    const auto r = static_cast<DWORD>(std::min(1.0f, lv[1]) * 32768.0f);
    return succeedWith(l | (r << 16));
}

BOOL BASS_ChannelGetLevelEx(DWORD handle, float* levels, float length, DWORD flags) {
    auto ch = channel(handle);
    return ch && ch->getLevels(levels, length, flags);
}

} // extern "C"
