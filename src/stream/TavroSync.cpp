#include <tavro/stream/TavroSync.hpp>

#include <tavro/dispatch/TavroMainQueue.hpp>
#include <tavro/dispatch/TavroSerialQueue.hpp>

#include <bass.h>

#include <map>

namespace {

struct Registry {
    TavroSerialQueue queue{"org.tavrocore.TavroCore.sync"};
    std::map<uint32_t, std::unique_ptr<TavroSyncRegistration>> entries;
};

Registry& registry() {
    static Registry* r = new Registry(); // callbacks may outlive static destruction
    return *r;
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
    // On the platform's thread, without a queue or a lock.
    const auto* reg = static_cast<const TavroSyncRegistration*>(user);
    if (reg->block) reg->block(reg->stream.lock(), data);
}

uint64_t TavroSync::addSyncOnStream(const std::shared_ptr<TavroStream>& stream, TavroSyncKind kind, uint64_t param,
                                    TavroSyncBlock block) {
    if (!stream) return 0;
    auto reg = std::make_unique<TavroSyncRegistration>();
    reg->stream = stream;
    reg->block = std::move(block);
    DWORD type = bassSyncTypeFromKind(kind);
    if (kind == TavroSyncKindEnd || kind == TavroSyncKindFree) type |= BASS_SYNC_MIXTIME;
    const HSYNC sync = BASS_ChannelSetSync(stream->handle(), type, param, &TavroSyncProc, reg.get());
    if (!sync) return 0;
    reg->handle = sync;
    Registry& r = registry();
    r.queue.sync([&] { r.entries[sync] = std::move(reg); });
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
    // registration may go right after.
    if (stream) BASS_ChannelRemoveSync(stream->handle(), static_cast<HSYNC>(sync));
    Registry& r = registry();
    std::unique_ptr<TavroSyncRegistration> gone;
    r.queue.sync([&] {
        auto it = r.entries.find(static_cast<uint32_t>(sync));
        if (it == r.entries.end()) return;
        gone = std::move(it->second);
        r.entries.erase(it);
    });
}

size_t TavroSync::registeredCount() {
    size_t n = 0;
    registry().queue.sync([&] { n = registry().entries.size(); });
    return n;
}
