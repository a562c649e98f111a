// Effect functions of the platform API: handle lookup and argument checks; the
// processing lives in the effect classes.
#include "bass.h"
#include "core/Error.hpp"
#include "effects/Effect.hpp"

using namespace tavro::platform;

namespace tavro::platform {

std::shared_ptr<EffectEntry> makeEffect(DWORD type, double rate, unsigned chans) {
    if (auto e = makeFilterEffect(type, rate, chans)) return e;
    if (auto e = makeDelayEffect(type, rate, chans)) return e;
    if (auto e = makeDynamicsEffect(type, rate, chans)) return e;
    if (auto e = makeReverbEffect(type, rate, chans)) return e;
    if (auto e = makeModulationEffect(type, rate, chans)) return e;
    if (auto e = makeShaperEffect(type, rate, chans)) return e;
    return nullptr;
}

} // namespace tavro::platform

namespace {

std::shared_ptr<Channel> liveChannelOf(DWORD handle) {
    auto ch = Handles::get<Channel>(handle);
    if (!ch || ch->isFreed()) return nullptr;
    return ch;
}

// An effect whose channel was freed goes with it; the table entry is dropped
// the first time the stale handle is used.
std::shared_ptr<Effect> liveEffect(DWORD fx) {
    auto e = Handles::get<Effect>(fx);
    if (!e) return nullptr;
    auto ch = e->channel.lock();
    if (!ch || ch->isFreed()) {
        Handles::remove(fx);
        return nullptr;
    }
    return e;
}

// A freed channel cannot tell its effects, so their handles (and the buffers
// they hold) are swept out whenever a new effect is made.
void sweepStaleEffects() {
    for (const auto& o : Handles::all(ObjectKind::Effect)) {
        auto ch = std::static_pointer_cast<Effect>(o)->channel.lock();
        if (!ch || ch->isFreed()) Handles::remove(o->handle());
    }
}

} // namespace

extern "C" {

HFX BASS_ChannelSetFX(DWORD handle, DWORD type, int priority) {
    auto ch = liveChannelOf(handle);
    if (!ch) return failWith<HFX>(BASS_ERROR_HANDLE, 0);
    sweepStaleEffects();
    auto entry = makeEffect(type, static_cast<double>(ch->freq()), ch->chans());
    if (!entry) return failWith<HFX>(BASS_ERROR_ILLTYPE, 0);
    entry->priority = priority;
    if (ch->hasFlowed()) entry->fadeInFromDry();
    auto fx = std::make_shared<Effect>();
    fx->channel = ch;
    fx->entry = entry;
    const HFX h = Handles::add(fx);
    fx->dsp.store(ch->addDspEntry(std::move(entry)));
    return succeedWith(h);
}

BOOL BASS_ChannelRemoveFX(DWORD handle, HFX fx) {
    auto ch = liveChannelOf(handle);
    if (!ch) return fail(BASS_ERROR_HANDLE);
    auto e = liveEffect(fx);
    if (!e || e->channel.lock() != ch) return fail(BASS_ERROR_HANDLE);
    std::lock_guard lock(e->placeMutex);
    if (!Handles::remove(fx)) return fail(BASS_ERROR_HANDLE); // removed meanwhile
    // One that has been heard fades out and then leaves the chain by itself.
    if (e->entry->flowing())
        e->entry->retire();
    else
        ch->removeDsp(e->dsp.load());
    return succeed();
}

BOOL BASS_FXSetParameters(HFX handle, const void* params) {
    auto e = liveEffect(handle);
    if (!e) return fail(BASS_ERROR_HANDLE);
    if (!params || !e->entry->setParams(params)) return fail(BASS_ERROR_ILLPARAM);
    return succeed();
}

BOOL BASS_FXGetParameters(HFX handle, void* params) {
    auto e = liveEffect(handle);
    if (!e) return fail(BASS_ERROR_HANDLE);
    if (!params) return fail(BASS_ERROR_ILLPARAM);
    e->entry->getParams(params);
    return succeed();
}

BOOL BASS_FXSetBypass(HFX handle, BOOL bypass) {
    auto e = liveEffect(handle);
    if (!e) return fail(BASS_ERROR_HANDLE);
    e->entry->setBypass(bypass != 0);
    return succeed();
}

// Moving an effect means taking it out of the chain and putting it back at its
// new place; its state and parameters go with it.
BOOL BASS_FXSetPriority(HFX handle, int priority) {
    auto e = liveEffect(handle);
    if (!e) return fail(BASS_ERROR_HANDLE);
    auto ch = e->channel.lock();
    if (!ch) return fail(BASS_ERROR_HANDLE);
    std::lock_guard lock(e->placeMutex);
    if (!Handles::find(handle)) return fail(BASS_ERROR_HANDLE); // removed meanwhile
    ch->removeDsp(e->dsp.load());
    e->entry->removed.store(false, std::memory_order_release);
    e->entry->priority = priority;
    e->dsp.store(ch->addDspEntry(e->entry));
    return succeed();
}

// An effect handle clears that effect; a channel handle clears all of its own.
BOOL BASS_FXReset(DWORD handle) {
    if (auto e = liveEffect(handle)) {
        e->entry->requestReset();
        return succeed();
    }
    auto ch = liveChannelOf(handle);
    if (!ch) return fail(BASS_ERROR_HANDLE);
    for (const auto& o : Handles::all(ObjectKind::Effect)) {
        auto e = std::static_pointer_cast<Effect>(o);
        if (e->channel.lock() == ch) e->entry->requestReset();
    }
    return succeed();
}

} // extern "C"
