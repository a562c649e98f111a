#include <tavro/dsp/TavroDSP.hpp>

#include <tavro/dsp/TavroDSPBiquad.hpp>
#include <tavro/dsp/TavroDSPBitCrusher.hpp>
#include <tavro/dsp/TavroDSPDelay.hpp>
#include <tavro/dsp/TavroDSPGain.hpp>
#include <tavro/dsp/TavroDSPRingModulator.hpp>
#include <tavro/dsp/TavroDSPSoftClip.hpp>
#include <tavro/dsp/TavroDSPStereoWidth.hpp>
#include <tavro/dsp/TavroDSPTremolo.hpp>

#include <bass.h>

#include <algorithm>
#include <utility>

std::shared_ptr<TavroDSP> TavroDSP::initWithStream(const std::shared_ptr<TavroStream>& stream) {
    std::shared_ptr<TavroDSP> dsp(new TavroDSP());
    dsp->stream_ = stream;
    dsp->published_ = std::make_unique<Snapshot>();
    dsp->attach();
    return dsp;
}

TavroDSP::~TavroDSP() {
    detach();
}

void TavroDSP::attach() {
    std::lock_guard guard(registrationLock_);
    attachLocked();
}

void TavroDSP::detach() {
    std::lock_guard guard(registrationLock_);
    detachLocked();
}

void TavroDSP::attachLocked() {
    if (dspHandle_.load(std::memory_order_relaxed) != 0) return;
    const auto stream = stream_.lock();
    const uint32_t channel = stream ? stream->handle() : 0;
    channel_.store(channel, std::memory_order_relaxed);
    const uint64_t target = targetChannel_.load(std::memory_order_relaxed);
    const HDSP handle = target == 0
                            ? BASS_ChannelSetDSP(channel, &TavroDSPCallback, this, 0)
                            : BASS_ChannelSetDSPEx(channel, &TavroDSPCallback, this, 0,
                                                   static_cast<DWORD>((target << 24) | BASS_DSP_FLOAT));
    dspHandle_.store(handle, std::memory_order_relaxed);
}

void TavroDSP::detachLocked() {
    const uint32_t handle = dspHandle_.load(std::memory_order_relaxed);
    if (handle == 0) return;
    const auto stream = stream_.lock();
    // Returns only once no block can still be running in this chain.
    BASS_ChannelRemoveDSP(stream ? stream->handle() : 0, handle);
    dspHandle_.store(0, std::memory_order_relaxed);
}

void TavroDSP::setTargetChannel(uint64_t targetChannel) {
    std::lock_guard guard(registrationLock_);
    if (targetChannel == targetChannel_.load(std::memory_order_relaxed)) return;
    // Removed before the new value is stored: a block still in flight under
    // the old registration must not be split by the new channel count.
    detachLocked();
    targetChannel_.store(targetChannel, std::memory_order_relaxed);
    attachLocked();
}

std::vector<std::shared_ptr<TavroDSPNode>> TavroDSP::nodes() const {
    std::lock_guard guard(internalNodesLock_);
    return internalNodes_;
}

bool TavroDSP::appendNode(std::shared_ptr<TavroDSPNode> node) {
    if (!node) return false;
    std::lock_guard guard(internalNodesLock_);
    internalNodes_.push_back(std::move(node));
    publishLocked();
    return true;
}

bool TavroDSP::insertNode(std::shared_ptr<TavroDSPNode> node, uint64_t atIndex) {
    if (!node) return false;
    std::lock_guard guard(internalNodesLock_);
    const uint64_t index = std::min<uint64_t>(atIndex, internalNodes_.size());
    internalNodes_.insert(internalNodes_.begin() + static_cast<std::ptrdiff_t>(index), std::move(node));
    publishLocked();
    return true;
}

void TavroDSP::removeNode(const std::shared_ptr<TavroDSPNode>& node) {
    std::lock_guard guard(internalNodesLock_);
    // Held apart from the argument: it may be a reference into the list.
    const TavroDSPNode* target = node.get();
    std::erase_if(internalNodes_, [target](const auto& n) { return n.get() == target; });
    publishLocked();
}

void TavroDSP::moveNodeAtIndex(uint64_t index, uint64_t toIndex) {
    std::lock_guard guard(internalNodesLock_);
    if (index >= internalNodes_.size()) return;
    auto node = std::move(internalNodes_[index]);
    internalNodes_.erase(internalNodes_.begin() + static_cast<std::ptrdiff_t>(index));
    const uint64_t to = std::min<uint64_t>(toIndex, internalNodes_.size());
    internalNodes_.insert(internalNodes_.begin() + static_cast<std::ptrdiff_t>(to), std::move(node));
    publishLocked();
}

void TavroDSP::removeAllNodes() {
    std::lock_guard guard(internalNodesLock_);
    internalNodes_.clear();
    publishLocked();
}

void TavroDSP::publishLocked() {
    auto next = std::make_unique<Snapshot>(Snapshot{internalNodes_});
    auto previous = std::exchange(published_, std::move(next));
    // Blocks pick up the snapshot and raise the count under this lock, so an
    // even count means no block holds the previous one; an odd count means the
    // running block may, until the count moves on.
    const uint64_t seq = blockSeq_.load(std::memory_order_acquire);
    if (seq & 1) retired_.push_back({seq, std::move(previous)});
    reclaimLocked();
}

void TavroDSP::reclaimLocked() {
    if (retired_.empty()) return;
    const uint64_t seq = blockSeq_.load(std::memory_order_acquire);
    std::erase_if(retired_, [seq](const Retired& r) { return r.blockSeq != seq; });
}

std::shared_ptr<TavroDSPNode> TavroDSP::defaultNodeOfKind(TavroDSPNodeKind kind) {
    switch (kind) {
    case TavroDSPNodeKindLowPass:
        return TavroDSPLowPass::init();
    case TavroDSPNodeKindHighPass:
        return TavroDSPHighPass::init();
    case TavroDSPNodeKindBandPass:
        return TavroDSPBandPass::init();
    case TavroDSPNodeKindNotch:
        return TavroDSPNotch::init();
    case TavroDSPNodeKindSoftClip:
        return TavroDSPSoftClip::init();
    case TavroDSPNodeKindBitCrusher:
        return TavroDSPBitCrusher::init();
    case TavroDSPNodeKindRingModulator:
        return TavroDSPRingModulator::init();
    case TavroDSPNodeKindTremolo:
        return TavroDSPTremolo::init();
    case TavroDSPNodeKindDelay:
        return TavroDSPDelay::init();
    case TavroDSPNodeKindLowShelf:
        return TavroDSPLowShelf::init();
    case TavroDSPNodeKindHighShelf:
        return TavroDSPHighShelf::init();
    case TavroDSPNodeKindPeaking:
        return TavroDSPPeaking::init();
    case TavroDSPNodeKindStereoWidth:
        return TavroDSPStereoWidth::init();
    default:
        return TavroDSPGain::init();
    }
}

void TavroDSP::processBuffer(void* buffer, uint32_t length) {
    BASS_CHANNELINFO info;
    if (!BASS_ChannelGetInfo(channel_.load(std::memory_order_relaxed), &info)) return;
    const uint64_t channels = targetChannel_.load(std::memory_order_relaxed) != 0 ? 1 : info.chans;
    if (channels == 0) return;

    const Snapshot* snapshot;
    {
        std::lock_guard guard(internalNodesLock_);
        snapshot = published_.get();
        blockSeq_.fetch_add(1, std::memory_order_relaxed);
    }
    const uint64_t frames = length / (channels * 4);
    auto* samples = static_cast<float*>(buffer);
    for (const auto& node : snapshot->nodes)
        if (node->enabled()) node->processInterleavedFloat(samples, frames, channels, info.freq);
    // Release: the editor that sees the count move on may free the snapshot.
    blockSeq_.fetch_add(1, std::memory_order_release);
}

void TavroDSP::TavroDSPCallback(uint32_t, uint32_t, void* buffer, uint32_t length, void* user) {
    static_cast<TavroDSP*>(user)->processBuffer(buffer, length);
}
