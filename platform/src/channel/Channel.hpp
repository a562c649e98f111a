// A channel: one source of float frames with its DSP chain, syncs, attributes
// and transport.
//
// Threading contract:
// - Application threads call the public operations. Operations that touch the
//   render state (position, DSP and sync lists, transport) take renderMutex,
//   which a renderer holds for one block at most.
// - read() runs on the thread that pulls the channel: the update thread for
//   playing channels, the caller of BASS_ChannelGetData (or the channel above)
//   for decoding ones. DSP callbacks and mixtime syncs run there, inside
//   renderMutex; renderMutex is recursive so that they may call back into the
//   channel (a loop sync seeking its own channel, a DSP removing itself).
// - The device thread touches only the Voice (playback ring and its queues)
//   and the atomics of the attributes; it never takes a lock.
// - A stage (a channel that reads another one, such as the tempo stage) pulls
//   its source inside its own read(), so the source's renderMutex is taken
//   inside the stage's: always in that order.
#pragma once

#include "bass.h"
#include "core/Handles.hpp"
#include "core/LockFree.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace tavro::platform {

class Device;
class Voice;
struct SpectrumRequest;

// Frames a renderer processes at most in one go; scratch buffers are sized by it.
constexpr size_t kMaxBlockFrames = 4096;

// The largest formats a channel takes. They bound what a declared header can
// make the platform allocate: a playing channel buffers up to five seconds
// plus its history, so the sample rate times the channel count is capped too
// (384 kHz x 8, 192 kHz x 16 or 96 kHz x 32 channels at most).
constexpr DWORD kMaxChannels = 32;
constexpr DWORD kMinRate = 1000, kMaxRate = 768000;
constexpr uint64_t kMaxSamplesPerSecond = 3072000;
inline bool formatWithinLimits(uint64_t freq, uint64_t chans) {
    return chans >= 1 && chans <= kMaxChannels && freq >= kMinRate && freq <= kMaxRate && freq * chans <= kMaxSamplesPerSecond;
}

int64_t monotonicNs();

struct Slide {
    float from = 0, to = 0;
    int64_t startNs = 0, durNs = 0;
    bool log = false;
    float valueAt(int64_t now) const;
    bool activeAt(int64_t now) const { return durNs > 0 && now < startNs + durNs; }
};

struct DspEntry {
    HDSP handle = 0;
    DSPPROC* proc = nullptr;
    void* user = nullptr;
    int priority = 0;
    DWORD flags = 0;
    uint64_t order = 0;
    std::atomic<bool> removed{false};
    // An effect of the platform's own runs through the same chain; it
    // processes float frames directly instead of calling a procedure.
    virtual void process(class Channel& ch, float* frames, size_t count);
    virtual ~DspEntry() = default;
};

struct SyncEntry {
    HSYNC handle = 0;
    DWORD type = 0; // without the flag bits
    bool mixtime = false;
    bool onetime = false;
    QWORD param = 0;
    SYNCPROC* proc = nullptr;
    void* user = nullptr;
    std::atomic<bool> removed{false};
};

enum class ChannelState { Stopped, Playing, Paused };

class Channel : public Object, public std::enable_shared_from_this<Channel> {
  public:
    Channel(DWORD freq, DWORD chans, DWORD flags, DWORD ctype, std::shared_ptr<Device> device);
    ~Channel() override;
    ObjectKind objectKind() const override { return ObjectKind::Channel; }

    // ---- format ----
    DWORD freq() const { return freq_; }
    DWORD chans() const { return chans_; }
    DWORD flags() const { return flags_.load(std::memory_order_relaxed); }
    DWORD ctype() const { return ctype_; }
    bool isDecoding() const { return flags() & BASS_STREAM_DECODE; }
    unsigned bytesPerSample() const;
    uint64_t bytesPerFrame() const { return uint64_t(bytesPerSample()) * chans_; }
    const std::shared_ptr<Device>& device() const { return device_; }
    virtual void fillInfo(BASS_CHANNELINFO& info) const;
    DWORD changeFlags(DWORD flags, DWORD mask);

    // ---- rendering ----
    // Pulls up to `frames` frames through source, DSP chain and syncs.
    // Returns fewer at the end or while the source has no data (stalled).
    size_t read(float* out, size_t frames);
    bool ended() const { return ended_.load(std::memory_order_acquire); }
    // The source had nothing to give at the last render (a push stream not
    // fed yet): an empty ring then is not the engine falling behind.
    bool sourceStalled() const { return stalled_.load(std::memory_order_relaxed); }
    // Whether any audio has been rendered yet: what is added to the chain
    // after that fades in rather than cutting in.
    bool hasFlowed() const { return flowed_.load(std::memory_order_relaxed); }
    // Tops up the playback ring (update thread). Returns frames written.
    size_t fillRing(size_t targetFrames);
    // Frames the update thread keeps in the ring.
    size_t ringTarget() const;

    // ---- transport ----
    bool play(bool restart);
    bool pause();
    bool stop();
    // The output broke and is back: what was rendered after the frame heard
    // when it broke never reached the listener, so a seekable channel goes
    // on from that frame. (Others go on from where the device took them.)
    void rewindToHeard();
    DWORD activeState() const;
    ChannelState state() const { return state_.load(std::memory_order_acquire); }

    // ---- position ----
    bool setPosition(QWORD pos, DWORD mode);
    QWORD position(DWORD mode);
    QWORD length(DWORD mode);
    uint64_t decodePositionFrames() const { return pos_.load(std::memory_order_acquire); }

    // ---- timeline ----
    // Positions, lengths and position syncs are frames of the channel's
    // timeline. For a plain channel that is its own output; a stage reports
    // its source's timeline, which may run at another rate than its output
    // (tempo) or backwards (reverse).
    // Where the next frame that leaves read() lies on the timeline.
    double outputPosition() const { return outPos_.load(std::memory_order_acquire); }
    // +1 while the timeline runs forwards, -1 backwards.
    virtual int timelineDirection() const { return 1; }
    // Where play(restart) and looping start.
    virtual uint64_t startFrame() const { return 0; }
    bool canSeek() const { return seekable(); }
    // For DSP entries, during their call: the timeline position of the block's
    // first frame and the timeline frames per output frame.
    double blockTimelineStart() const { return blockStart_; }
    double blockTimelineRate() const { return blockRate_; }
    // For DSP entries, during their call: the playback ring index the block's
    // first frame will have, or UINT64_MAX when the block is not going into
    // the ring (decoding, or pulled by a channel above).
    uint64_t blockRingIndex() const;
    int64_t frameLength() const { return lengthFrames(); }

    // ---- attributes ----
    virtual bool setAttribute(DWORD attrib, float value);
    virtual bool getAttribute(DWORD attrib, float& value);
    bool slideAttribute(DWORD attrib, float value, DWORD ms);
    bool isSliding(DWORD attrib) const;
    float volumeNow(int64_t now) const { return volume_.load().valueAt(now); }
    float panNow(int64_t now) const { return pan_.load().valueAt(now); }
    // Playback rate in Hz (the FREQ attribute, or the channel's own rate).
    double rateNow(int64_t now) const;
    // Called by the sync thread when a slide may have finished.
    void checkSlides(int64_t now);

    // ---- DSP and syncs ----
    HDSP addDsp(DSPPROC* proc, void* user, int priority, DWORD flags);
    HDSP addDspEntry(std::shared_ptr<DspEntry> entry);
    bool removeDsp(HDSP dsp);
    HSYNC addSync(DWORD type, QWORD param, SYNCPROC* proc, void* user);
    bool removeSync(HSYNC sync);
    std::shared_ptr<SyncEntry> findSync(HSYNC sync) const;
    // Fires every sync of a type now, on this thread (FREE, SLIDE).
    void fireSyncsNow(DWORD type, DWORD data);

    // ---- data ----
    DWORD getData(void* buffer, DWORD length);
    DWORD getSpectrum(float* out, const SpectrumRequest& req);
    bool getLevels(float* levels, float seconds, DWORD flags);

    // ---- lifetime ----
    // Stops, detaches from the device and fires FREE syncs; waits until no
    // callback of this channel can run any more.
    void free();
    bool isFreed() const { return freed_.load(std::memory_order_acquire); }
    Voice* voice() const { return voice_.load(std::memory_order_acquire); }
    // Scratch space for one block (kMaxBlockFrames frames); render thread only.
    float* scratch() { return scratch_.data(); }

    // Called by the device thread when the voice has played everything.
    void markDrained();

  protected:
    // What one step of the source rendered.
    struct Span {
        size_t frames = 0;     // frames written to the output
        uint64_t timeline = 0; // timeline position after the step
        double outStart = 0;   // timeline position of the first frame written
        double rate = 1;       // timeline frames per output frame (negative backwards)
        bool starved = false;  // the source could give no more now: stalled or at its end
    };
    // The source: produce up to `frames` frames. Called with renderMutex held.
    virtual size_t produce(float* out, size_t frames) = 0;
    // One step of the source, moving the timeline at most `maxTimeline` frames
    // (the distance to the next position sync, so that it fires on its exact
    // frame). The default maps produce() one to one onto the timeline; a stage
    // whose output and timeline differ overrides this.
    virtual Span produceSpan(float* out, size_t frames, uint64_t maxTimeline);
    // Called at the start of every read(), before anything is rendered: the
    // place to pick up parameters published by application threads.
    virtual void beginBlock() {}
    // Puts the timeline at a frame without touching the source (set-up of a stage).
    void resetTimeline(uint64_t frame);
    // After a short produce: true at the real end, false when merely stalled.
    virtual bool sourceEnded() const = 0;
    // Moves the source to a frame. Default: not seekable.
    virtual bool seekSource(uint64_t frame, DWORD mode);
    virtual int64_t lengthFrames() const { return -1; }
    virtual bool seekable() const { return false; }
    // Play with restart on a stream without a position to go back to.
    virtual void onRestart() {}
    virtual void onFree() {}

    std::recursive_mutex renderMutex_;

  private:
    void renderLocked(float* out, size_t frames, size_t& done);
    // Renders into the ring until `target` frames lie ahead of ring index
    // `from` (or, by default, ahead of what is heard once a pending flush is
    // taken). Render lock held.
    size_t renderAhead(size_t target, uint64_t from = UINT64_MAX);
    // A jump of a playing channel: its new audio goes into the ring before
    // the flush of the old is published, so the device never finds it empty.
    void flushBehindNewAudio(uint64_t heardFrame, uint64_t from);
    void runDsps(const std::vector<std::shared_ptr<DspEntry>>& dsps, float* buf, size_t frames);
    void fireSync(SyncEntry& s, DWORD data, uint64_t heardAhead = 0);
    bool judgePositionSyncs(const std::vector<std::shared_ptr<SyncEntry>>& syncs);
    void firePositionSyncs(const std::vector<std::shared_ptr<SyncEntry>>& syncs);
    uint64_t framesToNextSync(const std::vector<std::shared_ptr<SyncEntry>>& syncs) const;
    void noteOutput(const Span& span);
    bool handleEnd(const std::vector<std::shared_ptr<SyncEntry>>& syncs);
    void markEnded();
    bool seekFramesLocked(uint64_t frame, DWORD mode);
    void ensureVoice();
    void requestFlush(uint64_t heardFrame);
    std::shared_ptr<const std::vector<std::shared_ptr<DspEntry>>> dspSnapshot() const;
    std::shared_ptr<const std::vector<std::shared_ptr<SyncEntry>>> syncSnapshot() const;

    const DWORD freq_, chans_, ctype_;
    std::atomic<DWORD> flags_;
    std::shared_ptr<Device> device_;

    // Render state (renderMutex_).
    std::atomic<uint64_t> pos_{0};  // timeline position of the source: where syncs are judged
    std::atomic<double> outPos_{0}; // timeline position of the next output frame
    bool judged_ = false;           // position syncs up to lastJudged_ have been judged
    int64_t lastJudged_ = 0;
    bool markerDue_ = true;         // the next output starts a new heard-position marker
    double markNext_ = 0;           // where the current marker's mapping puts the next frame
    double markRate_ = 1;           // and its rate
    double blockStart_ = 0;       // the block the DSP chain is running on
    double blockRate_ = 1;
    bool renderingToRing_ = false;
    uint64_t ringBase_ = 0;       // ring write index of the block being rendered
    size_t renderDone_ = 0;       // frames of that block done so far
    std::atomic<bool> ended_{false};
    std::atomic<bool> stalled_{false}; // the source had no data at the last render
    std::atomic<bool> flowed_{false};
    std::vector<float> scratch_;  // DSP format conversion and single-channel blocks

    mutable std::mutex listMutex_;
    std::shared_ptr<const std::vector<std::shared_ptr<DspEntry>>> dsps_;
    std::shared_ptr<const std::vector<std::shared_ptr<SyncEntry>>> syncs_;
    uint64_t dspOrder_ = 0;

    SeqLocked<Slide> volume_, pan_, freqAttr_;
    std::atomic<ChannelState> state_{ChannelState::Stopped};
    std::atomic<bool> freed_{false};
    std::atomic<bool> stopAfterSlide_{false};
    std::atomic<uint32_t> slidesPending_{0}; // attributes whose SLIDE syncs are still to fire
    std::unique_ptr<Voice> voiceOwner_; // made once, at the first play
    std::atomic<Voice*> voice_{nullptr};

    friend class Voice;
};

// The channel currently rendered on this thread (for re-entrant calls).
Channel* currentRenderChannel();

} // namespace tavro::platform
