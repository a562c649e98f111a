// The tempo stage: tempo, pitch and rate of a decoding source changed with
// SoundTouch, reported in the source's time.
//
// Threading contract:
// - setAttribute/getAttribute run on application threads. Values live in
//   atomics, so getters never wait. SoundTouch is reconfigured by the calling
//   thread under settingsMutex_, which the renderer holds while SoundTouch
//   runs (at most one block, and never while it reads the source, whose
//   callbacks may change these settings). SoundTouch allocates when
//   reconfigured (it redesigns its anti-alias filter on every rate change);
//   this keeps that off the render thread, and neither side holds the lock
//   for long. A change the instance in the path cannot take without a cut is
//   set up on an idle instance, and the renderer crossfades to it at its next
//   block.
// - Everything else (mode, accounting, the queue, the source) belongs to the
//   render thread, under the channel's renderMutex.
#pragma once

#include "fx/Stage.hpp"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace soundtouch {
class SoundTouch;
}

namespace tavro::platform {

class TempoStage final : public Stage {
  public:
    // `chan` must be a live decoding channel (the caller checks); flags as
    // BASS_FX_TempoCreate takes them.
    static std::shared_ptr<TempoStage> create(std::shared_ptr<Channel> source, DWORD flags);
    ~TempoStage() override;

    bool setAttribute(DWORD attrib, float value) override;
    bool getAttribute(DWORD attrib, float& value) override;
    // The transposer's ratio: pitch and TEMPO_FREQ together.
    float rateRatio() const;

  protected:
    void beginBlock() override;
    Span produceSpan(float* out, size_t frames, uint64_t maxTimeline) override;
    bool sourceEnded() const override;
    bool seekSource(uint64_t frame, DWORD mode) override;

  private:
    TempoStage(std::shared_ptr<Channel> source, DWORD flags);
    // The highest rate SoundTouch is told (its own limit).
    static constexpr DWORD kMaxTempoRate = 192000;
    // Paths the audio can take: an instance of pool_, or these.
    static constexpr int kPassThrough = -1, kNone = -2;
    bool applyAttribute(DWORD attrib, float value);

    enum class Mode {
        Direct, // pass-through reading the source straight into the output
        Queued, // through the queue of source frames: SoundTouch, or pass-through that lags behind the reads
    };
    // Frames of the queue from fedStart on continue the source from
    // srcStart in direction dir (a new segment starts at every jump).
    struct Segment {
        uint64_t fedStart;
        double srcStart;
        int dir;
    };

    bool neutral() const;
    double ratioOf(int path) const;
    void setRatesLocked(int inst);
    bool needsFadeLocked(int inst) const;
    void configureLocked(int inst);
    void retargetLocked();
    void prime(soundtouch::SoundTouch& st);
    void resetAccounting();
    void endFade();
    Span process(float* out, size_t frames, uint64_t maxTimeline);
    void rebaseLocked();
    double outputIndex() const;
    const Segment* segmentAt(double index) const;
    const Segment* segmentAfter(double index) const;
    void noteFed(double before, double after);
    int64_t owed() const;
    void record(const float* frames, size_t n);
    void copyQueued(float* out, uint64_t from, size_t n) const;
    size_t feedQueued(int inst, uint64_t& next);
    void mixFade(float* out, size_t n);
    size_t fadingAvailable() const;

    // Three, so that a change can always be prepared on an idle one while
    // two are being crossfaded.
    std::array<std::unique_ptr<soundtouch::SoundTouch>, 3> pool_;
    mutable std::mutex settingsMutex_;
    // settingsMutex_: how each instance is set. side_ is the side of 1 its
    // transposer's rate stays on; used_ that it has been fed since cleared.
    std::array<double, 3> stRatio_{1, 1, 1}; // source frames per output frame
    std::array<double, 3> stRate_{1, 1, 1};  // the transposer's rate
    std::array<int, 3> side_{-1, -1, -1};
    std::array<bool, 3> used_{};
    // settingsMutex_: the path the audio takes (cur_), the one fading out
    // (old_, while fading_) and the one to switch to at the next block.
    int cur_ = kPassThrough, old_ = kNone, pending_ = kNone;
    bool fading_ = false;

    std::atomic<float> tempo_{0}, pitch_{0}, tempoFreq_{0};
    std::atomic<int> aaFilter_{1}, aaLength_{64}, quickSeek_{0}, sequenceMs_{0}, seekWindowMs_{0},
        overlapMs_{8}, preventClick_{0};

    // Render state.
    Mode mode_ = Mode::Direct;
    bool flowing_ = false;    // the source has been read since creation or the last seek
    bool srcEnded_ = false;   // the source has nothing more: paths are fed silence
    bool drained_ = false;    // the source ended and the path gave back everything
    uint64_t readTotal_ = 0;  // queue index of the next frame read from the source
    uint64_t fed_ = 0;        // queue index of the next frame the current path takes
    double expectedOut_ = 0;  // output frames what SoundTouch was fed stands for
    uint64_t received_ = 0;   // output frames taken from SoundTouch
    double ratio_ = 1;        // the ratio expectedOut_ is counted in
    uint64_t drainZeros_ = 0; // silence fed at the end
    uint64_t oldNext_ = 0;    // queue index of the next frame the fading path takes
    size_t fadePos_ = 0, fadeLen_ = 1;
    double nextSrc_ = -1; // where the last segment expects the source next
    std::array<Segment, 64> segments_{};
    size_t segHead_ = 0, segCount_ = 0;
    size_t queueFrames_ = 0; // frames the queue holds: recent source, for a new path to start from
    std::vector<float> queue_, feed_, zeros_, fade_;
};

} // namespace tavro::platform
