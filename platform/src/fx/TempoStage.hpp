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
//   for long.
// - Everything else (mode, accounting, the source) belongs to the render
//   thread, under the channel's renderMutex.
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
    bool applyAttribute(DWORD attrib, float value);

    enum class Mode {
        PassThrough, // neutral settings: the source's frames as they are
        Processing,  // through SoundTouch
        Draining,    // SoundTouch gives back what it holds (before pass-through, or at the end)
    };
    // Source frames fed to SoundTouch from fedStart on continue the source
    // from srcStart in direction dir (a new segment starts at every jump).
    struct Segment {
        uint64_t fedStart;
        double srcStart;
        int dir;
    };

    bool neutral() const;
    void applyRatioLocked();
    void prime();
    void resetAccounting();
    void startDrain(bool toEnd);
    Span process(float* out, size_t frames, uint64_t maxTimeline);
    void rebaseLocked();
    double outputIndex() const;
    const Segment* segmentAt(double index) const;
    const Segment* segmentAfter(double index) const;
    void noteFed(double before, double after);
    int64_t owed() const;

    std::unique_ptr<soundtouch::SoundTouch> st_;
    mutable std::mutex settingsMutex_;
    double stRatio_ = 1; // settingsMutex_: source frames per output frame as SoundTouch is set

    std::atomic<float> tempo_{0}, pitch_{0}, tempoFreq_{0};
    std::atomic<int> aaFilter_{1}, aaLength_{64}, quickSeek_{0}, sequenceMs_{0}, seekWindowMs_{0},
        overlapMs_{8}, preventClick_{0};

    // Render state.
    Mode mode_ = Mode::PassThrough;
    bool drainToEnd_ = false;
    bool drained_ = false;    // the source ended and SoundTouch gave back everything
    uint64_t fed_ = 0;        // source frames fed since SoundTouch was last cleared
    double expectedOut_ = 0;  // output frames those stand for
    uint64_t received_ = 0;   // output frames taken
    double ratio_ = 1;        // the ratio expectedOut_ is counted in
    uint64_t drainZeros_ = 0; // silence fed while draining
    double nextSrc_ = -1;     // where the last segment expects the source next
    std::array<Segment, 64> segments_{};
    size_t segHead_ = 0, segCount_ = 0;
    std::vector<float> feed_, zeros_;
};

} // namespace tavro::platform
