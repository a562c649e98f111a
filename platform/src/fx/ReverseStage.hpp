// The reverse stage: a seekable decoding source played backwards, a block at
// a time (read the block that ends at the current position, hand it out
// reversed), or forwards; the direction may change while it plays.
//
// Threading contract: as Stage. The direction is published by application
// threads through an atomic and taken up at the start of the next block; the
// block buffer and the cursor belong to the render thread.
#pragma once

#include "fx/Stage.hpp"

#include <atomic>
#include <vector>

namespace tavro::platform {

class ReverseStage final : public Stage {
  public:
    // The source must be seekable with a known length (the caller checks).
    ReverseStage(std::shared_ptr<Channel> source, size_t blockFrames, DWORD flags);

    bool setAttribute(DWORD attrib, float value) override;
    bool getAttribute(DWORD attrib, float& value) override;
    int timelineDirection() const override { return dir_.load(std::memory_order_relaxed); }
    uint64_t startFrame() const override;

  protected:
    void beginBlock() override {
        dir_.store(wanted_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
    size_t produce(float* out, size_t frames) override;
    bool sourceEnded() const override;
    bool seekSource(uint64_t frame, DWORD mode) override;

  private:
    size_t backwards(float* out, size_t frames);
    size_t forwards(float* out, size_t frames);
    bool moveSourceTo(uint64_t frame);

    std::atomic<int> wanted_{-1}; // what the application asked for
    std::atomic<int> dir_{-1};    // what the render runs with
    uint64_t cursor_ = 0;         // the timeline position: the next frame out is cursor_ - 1 going backwards
    std::vector<float> block_;    // source frames [blockStart_, blockEnd_)
    uint64_t blockStart_ = 0, blockEnd_ = 0;
    bool forwardEnded_ = false;
    bool failed_ = false; // the source refused to move: nothing more can come
};

} // namespace tavro::platform
