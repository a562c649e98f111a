#include <tavro/stream/TavroSync.hpp>

#include <tavro/dispatch/TavroMainQueue.hpp>

#include <bass.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace {

// Registrations are found by an id of ours, handed to the platform as the
// sync's user value: the id exists before the platform can call, and a
// callback holds its registration while it runs, so an entry can go at any
// time (removeSync, the stream's channel freed) without waiting for one in
// flight. Each channel with registrations carries one FREE sync of ours that
// drops them. The lock is held only for map work: never while calling the
// platform or a block, or while a registration is destroyed.
struct Entry {
    std::shared_ptr<TavroSyncRegistration> reg;
    uint32_t channel = 0;
    bool isFree = false; // a FREE sync: it outlives the channel's clean-up, fires once, then goes
};

struct Watched {
    std::vector<uint64_t> ids;
};

struct Registry {
    std::mutex mutex;
    uint64_t nextId = 1;
    std::unordered_map<uint64_t, Entry> entries;
    std::unordered_map<uint32_t, uint64_t> bySync;
    std::unordered_map<uint32_t, Watched> channels;

    // Lock held. Moves the entry out (to be destroyed unlocked).
    std::shared_ptr<TavroSyncRegistration> eraseLocked(uint64_t id) {
        auto it = entries.find(id);
        if (it == entries.end()) return nullptr;
        auto reg = std::move(it->second.reg);
        if (reg->handle) bySync.erase(reg->handle);
        if (auto ch = channels.find(it->second.channel); ch != channels.end()) std::erase(ch->second.ids, id);
        entries.erase(it);
        return reg;
    }

    // Lock held. Drops the channel's entries, all but FREE syncs still to fire
    // unless `all`.
    void dropChannelLocked(uint32_t channel, bool all, std::vector<std::shared_ptr<TavroSyncRegistration>>& out) {
        auto it = channels.find(channel);
        if (it == channels.end()) return;
        const std::vector<uint64_t> ids = std::move(it->second.ids);
        channels.erase(it);
        for (uint64_t id : ids) {
            auto e = entries.find(id);
            if (e != entries.end() && (all || !e->second.isFree)) out.push_back(eraseLocked(id));
        }
    }
};

Registry& registry() {
    static Registry* r = new Registry(); // callbacks may outlive static destruction
    return *r;
}

void* idToUser(uint64_t id) { return reinterpret_cast<void*>(static_cast<uintptr_t>(id)); }

// The stream's channel is being freed (on the freeing thread, inside the
// channel): none of its syncs fires any more, apart from FREE syncs still to
// come in this same free, and a callback in flight keeps its registration.
void onChannelFree(HSYNC, DWORD channel, DWORD, void*) {
    Registry& r = registry();
    std::vector<std::shared_ptr<TavroSyncRegistration>> gone;
    std::lock_guard lock(r.mutex);
    r.dropChannelLocked(channel, false, gone);
    // `gone` is destroyed after the lock is released (declared before it).
}

std::function<void(std::shared_ptr<TavroStream>, uint64_t)> onMainQueue(std::function<void()> block) {
    return [block = std::move(block)](std::shared_ptr<TavroStream>, uint64_t) {
        if (block) TavroMainQueue::async(block);
    };
}

} // namespace

uint32_t TavroSync::bassSyncTypeFromKind(TavroSyncKind kind) {
    switch (kind) {
    case TavroSyncKindPosition: return BASS_SYNC_POS;
    case TavroSyncKindEnd: return BASS_SYNC_END;
    case TavroSyncKindMeta: return BASS_SYNC_META;
    case TavroSyncKindOggChange: return BASS_SYNC_OGG_CHANGE;
    case TavroSyncKindSlide: return BASS_SYNC_SLIDE;
    case TavroSyncKindStall: return BASS_SYNC_STALL;
    case TavroSyncKindDownload: return BASS_SYNC_DOWNLOAD;
    case TavroSyncKindFree: return BASS_SYNC_FREE;
    default: return BASS_SYNC_END;
    }
}

void TavroSync::TavroSyncProc(uint32_t, uint32_t, uint32_t data, void* user) {
    const auto id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(user));
    Registry& r = registry();
    std::shared_ptr<TavroSyncRegistration> reg;
    {
        std::lock_guard lock(r.mutex);
        auto it = r.entries.find(id);
        if (it == r.entries.end()) return;
        // A FREE sync fires once: its entry goes now, the call keeps it alive.
        reg = it->second.isFree ? r.eraseLocked(id) : it->second.reg;
    }
    if (reg->block) reg->block(reg->stream.lock(), data);
}

uint64_t TavroSync::addSyncOnStream(const std::shared_ptr<TavroStream>& stream, TavroSyncKind kind, uint64_t param,
                                    TavroSyncBlock block) {
    if (!stream) return 0;
    const uint32_t channel = stream->handle();
    if (channel == 0) return 0;
    auto reg = std::make_shared<TavroSyncRegistration>();
    reg->stream = stream;
    reg->block = std::move(block);
    const DWORD base = bassSyncTypeFromKind(kind);
    const DWORD type = base | (kind == TavroSyncKindEnd || kind == TavroSyncKindFree ? BASS_SYNC_MIXTIME : 0);

    Registry& r = registry();
    uint64_t id = 0;
    bool watch = false;
    {
        std::lock_guard lock(r.mutex);
        id = r.nextId++;
        r.entries[id] = Entry{reg, channel, base == BASS_SYNC_FREE};
        auto [it, added] = r.channels.try_emplace(channel);
        it->second.ids.push_back(id);
        watch = added;
    }
    std::vector<std::shared_ptr<TavroSyncRegistration>> gone;
    // The first registration on a channel puts on the clean-up. If that fails
    // the channel is gone, and so is every registration on it.
    if (watch && !BASS_ChannelSetSync(channel, BASS_SYNC_FREE | BASS_SYNC_MIXTIME, 0, &onChannelFree, nullptr)) {
        std::lock_guard lock(r.mutex);
        r.dropChannelLocked(channel, true, gone);
        return 0;
    }
    const HSYNC sync = BASS_ChannelSetSync(channel, type, param, &TavroSyncProc, idToUser(id));
    // A channel freed while this ran may have missed the clean-up; its syncs
    // other than FREE ones never fire again, so they can go now.
    BASS_CHANNELINFO info;
    const bool freed = !BASS_ChannelGetInfo(channel, &info);
    std::lock_guard lock(r.mutex);
    auto it = r.entries.find(id);
    if (!sync) {
        if (it != r.entries.end()) gone.push_back(r.eraseLocked(id));
        return 0;
    }
    if (it != r.entries.end()) {
        it->second.reg->handle = sync;
        r.bySync[sync] = id;
    }
    if (freed) r.dropChannelLocked(channel, false, gone);
    return sync;
}

uint64_t TavroSync::addEndSyncOnStream(const std::shared_ptr<TavroStream>& stream, std::function<void()> block) {
    return addSyncOnStream(stream, TavroSyncKindEnd, 0, onMainQueue(std::move(block)));
}

uint64_t TavroSync::addPositionSyncOnStream(const std::shared_ptr<TavroStream>& stream, double seconds,
                                            std::function<void()> block) {
    if (!stream) return 0;
    const QWORD bytes = BASS_ChannelSeconds2Bytes(stream->handle(), seconds);
    return addSyncOnStream(stream, TavroSyncKindPosition, bytes, onMainQueue(std::move(block)));
}

void TavroSync::removeSync(uint64_t sync, const std::shared_ptr<TavroStream>& stream) {
    if (sync == 0) return;
    // The platform returns only once the callback can no longer run, so the
    // registration goes right after.
    if (stream) BASS_ChannelRemoveSync(stream->handle(), static_cast<HSYNC>(sync));
    Registry& r = registry();
    std::shared_ptr<TavroSyncRegistration> gone;
    std::lock_guard lock(r.mutex);
    auto it = r.bySync.find(static_cast<uint32_t>(sync));
    if (it != r.bySync.end()) gone = r.eraseLocked(it->second);
}

size_t TavroSync::registeredCount() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    return r.entries.size();
}

size_t TavroSync::watchedChannelCount() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    return r.channels.size();
}
