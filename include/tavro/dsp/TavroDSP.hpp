/// @file
/// An ordered chain of sample-level nodes run in place on one stream's audio,
/// registered as a platform DSP at priority 0 (after the normaliser and the
/// crossfeed).
///
/// Threading: list operations, attach, detach and setTargetChannel may be
/// called from any application thread; list operations hold the chain's
/// recursive lock for their whole duration and may be nested inside each other.
/// processBuffer (through TavroDSPCallback) runs on the platform thread that
/// renders or decodes the stream and holds the lock only to pick up the list as
/// it stands, so an edit is heard from the next block. A node removed during a
/// block finishes that block; its last reference held by the chain is dropped
/// later on an application thread (at a following list operation or when the
/// chain is destroyed), never on the audio thread. Do not destroy the chain or
/// call detach/setTargetChannel from inside a node.
#pragma once

#include <tavro/Export.hpp>

#include <tavro/dsp/TavroDSPNode.hpp>
#include <tavro/stream/TavroStream.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class TAVRO_API TavroDSP {
  public:
    static std::shared_ptr<TavroDSP> initWithStream(const std::shared_ptr<TavroStream>& stream);
    ~TavroDSP();
    TavroDSP(const TavroDSP&) = delete;
    TavroDSP& operator=(const TavroDSP&) = delete;

    std::weak_ptr<TavroStream> stream() const { return stream_; }
    uint64_t targetChannel() const { return targetChannel_.load(std::memory_order_relaxed); }
    void setTargetChannel(uint64_t targetChannel);
    uint32_t dspHandle() const { return dspHandle_.load(std::memory_order_relaxed); }

    void attach();
    void detach();

    std::vector<std::shared_ptr<TavroDSPNode>> nodes() const;
    /// Null nodes are refused (false); the list never holds one.
    bool appendNode(std::shared_ptr<TavroDSPNode> node);
    bool insertNode(std::shared_ptr<TavroDSPNode> node, uint64_t atIndex);
    void removeNode(const std::shared_ptr<TavroDSPNode>& node);
    void moveNodeAtIndex(uint64_t index, uint64_t toIndex);
    void removeAllNodes();

    static std::shared_ptr<TavroDSPNode> defaultNodeOfKind(TavroDSPNodeKind kind);

    /// Runs the enabled nodes over one block of interleaved floats; `length`
    /// is in bytes.
    void processBuffer(void* buffer, uint32_t length);
    static void TavroDSPCallback(uint32_t handle, uint32_t channel, void* buffer, uint32_t length,
                                 void* user);

  private:
    // What blocks run: an immutable copy of the list, made by the editing
    // thread. Blocks take it by pointer, so the audio thread neither allocates
    // nor ever holds the last reference to a node.
    struct Snapshot {
        std::vector<std::shared_ptr<TavroDSPNode>> nodes;
    };
    struct Retired {
        uint64_t blockSeq;
        std::unique_ptr<Snapshot> snapshot;
    };

    TavroDSP() = default;
    void attachLocked();
    void detachLocked();
    void publishLocked();
    void reclaimLocked();

    std::weak_ptr<TavroStream> stream_;
    // The channel the DSP was registered on, for the audio thread, which must
    // not touch the stream object itself.
    std::atomic<uint32_t> channel_{0};
    std::atomic<uint64_t> targetChannel_{0};
    std::atomic<uint32_t> dspHandle_{0};
    // Serialises attach, detach and retargeting between application threads.
    // Never taken by the audio thread: removing the DSP waits for a block in
    // flight, and that block takes the list lock, not this one.
    std::mutex registrationLock_;

    mutable std::recursive_mutex internalNodesLock_;
    std::vector<std::shared_ptr<TavroDSPNode>> internalNodes_;
    std::unique_ptr<Snapshot> published_;
    std::vector<Retired> retired_;
    // Odd while a block runs. Raised under the lock together with picking up
    // the snapshot, so an editor holding the lock knows whether the snapshot it
    // replaces may still be in use, and by which block.
    std::atomic<uint64_t> blockSeq_{0};
};
