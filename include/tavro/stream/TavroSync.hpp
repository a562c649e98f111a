/// @file
/// Callbacks on a stream's platform events (end, position, metadata, ...).
///
/// Threading: add and remove from any thread, also from inside a callback.
/// Callbacks of addSyncOnStream run on platform threads: end and free on the
/// mixing thread or the freeing thread (return quickly, never block), the rest
/// on the sync thread. Callbacks of addEndSyncOnStream and
/// addPositionSyncOnStream run on the main queue, after the event; the stream
/// may be gone by then.
///
/// Lifetime: a registration lives until removeSync or until the stream's
/// channel is freed (a FREE sync, after it has fired), whichever comes first; a
/// callback already running keeps its registration until it returns.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/stream/TavroStream.hpp>

#include <cstdint>
#include <functional>
#include <memory>

using TavroSyncKind = int64_t;
constexpr TavroSyncKind TavroSyncKindPosition = 0;
constexpr TavroSyncKind TavroSyncKindEnd = 1;
constexpr TavroSyncKind TavroSyncKindMeta = 2;
constexpr TavroSyncKind TavroSyncKindOggChange = 3;
constexpr TavroSyncKind TavroSyncKindSlide = 4;
constexpr TavroSyncKind TavroSyncKindStall = 5;
constexpr TavroSyncKind TavroSyncKindDownload = 6;
constexpr TavroSyncKind TavroSyncKindFree = 7;

using TavroSyncBlock = std::function<void(std::shared_ptr<TavroStream> stream, uint64_t data)>;

/// One registered sync.
struct TAVRO_API TavroSyncRegistration {
    std::weak_ptr<TavroStream> stream;
    TavroSyncBlock block;
    uint32_t handle = 0;
};

class TAVRO_API TavroSync {
  public:
    TavroSync() = delete;
    static uint32_t bassSyncTypeFromKind(TavroSyncKind kind);
    static uint64_t addSyncOnStream(const std::shared_ptr<TavroStream>& stream, TavroSyncKind kind, uint64_t param,
                                    TavroSyncBlock block);
    static uint64_t addEndSyncOnStream(const std::shared_ptr<TavroStream>& stream, std::function<void()> block);
    static uint64_t addPositionSyncOnStream(const std::shared_ptr<TavroStream>& stream, double seconds,
                                            std::function<void()> block);
    static void removeSync(uint64_t sync, const std::shared_ptr<TavroStream>& stream);
    /// Registered syncs, and channels carrying them, for tests and diagnostics.
    static size_t registeredCount();
    static size_t watchedChannelCount();

    static void TavroSyncProc(uint32_t handle, uint32_t channel, uint32_t data, void* user);
};
