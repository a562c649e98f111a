// Tempo and reverse functions of the effects add-on API: argument checks and
// handle lookup; the behaviour lives in the stages.
#include "bass_fx.h"
#include "core/Error.hpp"
#include "fx/ReverseStage.hpp"
#include "fx/TempoStage.hpp"

#include <cmath>

using namespace tavro::platform;

namespace {
constexpr DWORD kVersion = 0x02040C00;     // 2.4.12.0
constexpr unsigned kMaxTempoChannels = 16; // what SoundTouch processes
constexpr float kMaxReverseBlock = 10;     // seconds
} // namespace

extern "C" {

DWORD BASS_FX_GetVersion(void) {
    return succeedWith(kVersion);
}

HSTREAM BASS_FX_TempoCreate(DWORD chan, DWORD flags) {
    auto src = liveChannel(chan);
    if (!src) return 0;
    if (!src->isDecoding()) return failWith<HSTREAM>(BASS_ERROR_DECODE, 0);
    if (src->chans() > kMaxTempoChannels) return failWith<HSTREAM>(BASS_ERROR_FORMAT, 0);
    auto stage = TempoStage::create(std::move(src), flags);
    if (!stage) return 0;
    return succeedWith(Handles::add(stage));
}

DWORD BASS_FX_TempoGetSource(HSTREAM chan) {
    auto t = Handles::get<TempoStage>(chan);
    if (!t || t->isFreed()) return failWith<DWORD>(BASS_ERROR_HANDLE, 0);
    return succeedWith(t->source()->handle());
}

float BASS_FX_TempoGetRateRatio(HSTREAM chan) {
    auto t = Handles::get<TempoStage>(chan);
    if (!t || t->isFreed()) return failWith(BASS_ERROR_HANDLE, 0.0f);
    return succeedWith(t->rateRatio());
}

HSTREAM BASS_FX_ReverseCreate(DWORD chan, float dec_block, DWORD flags) {
    auto src = liveChannel(chan);
    if (!src) return 0;
    if (!src->isDecoding()) return failWith<HSTREAM>(BASS_ERROR_DECODE, 0);
    // Going backwards needs a start (the end) and a way to get there.
    if (!src->canSeek() || src->frameLength() < 0) return failWith<HSTREAM>(BASS_ERROR_NOTFILE, 0);
    if (!(dec_block > 0) || dec_block > kMaxReverseBlock) return failWith<HSTREAM>(BASS_ERROR_ILLPARAM, 0);
    const auto blockFrames = static_cast<size_t>(std::ceil(static_cast<double>(dec_block) * src->freq()));
    return succeedWith(Handles::add(std::make_shared<ReverseStage>(std::move(src), blockFrames, flags)));
}

} // extern "C"
