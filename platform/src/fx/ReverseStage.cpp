#include "fx/ReverseStage.hpp"

#include "bass_fx.h"
#include "core/Error.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tavro::platform {

ReverseStage::ReverseStage(std::shared_ptr<Channel> source, size_t blockFrames, DWORD flags)
    : Stage(std::move(source), flags, flags & BASS_FX_FREESOURCE),
      block_(std::max<size_t>(1, blockFrames) * chans()) {
    // Backwards from the end.
    cursor_ = static_cast<uint64_t>(std::max<int64_t>(0, lengthFrames()));
    resetTimeline(cursor_);
}

bool ReverseStage::setAttribute(DWORD attrib, float value) {
    if (attrib != BASS_ATTRIB_REVERSE_DIR) return Stage::setAttribute(attrib, value);
    if (value != BASS_FX_RVS_REVERSE && value != BASS_FX_RVS_FORWARD) return fail(BASS_ERROR_ILLPARAM);
    wanted_.store(static_cast<int>(value), std::memory_order_relaxed);
    return succeed();
}

bool ReverseStage::getAttribute(DWORD attrib, float& value) {
    if (attrib != BASS_ATTRIB_REVERSE_DIR) return Stage::getAttribute(attrib, value);
    value = static_cast<float>(wanted_.load(std::memory_order_relaxed));
    return succeed();
}

uint64_t ReverseStage::startFrame() const {
    return wanted_.load(std::memory_order_relaxed) < 0
               ? static_cast<uint64_t>(std::max<int64_t>(0, lengthFrames()))
               : 0;
}

bool ReverseStage::sourceEnded() const {
    if (failed_ || source_->isFreed()) return true;
    if (timelineDirection() < 0) return cursor_ == 0;
    return forwardEnded_ || static_cast<int64_t>(cursor_) >= lengthFrames();
}

// The source is moved only when a block is read, so a seek here costs nothing.
bool ReverseStage::seekSource(uint64_t frame, DWORD) {
    cursor_ = frame;
    forwardEnded_ = false;
    failed_ = false;
    return true;
}

bool ReverseStage::moveSourceTo(uint64_t frame) {
    if (source_->outputPosition() == static_cast<double>(frame) && source_->timelineDirection() > 0)
        return true;
    if (source_->setPosition(frame * source_->bytesPerFrame(), BASS_POS_BYTE)) return true;
    failed_ = true;
    return false;
}

size_t ReverseStage::produce(float* out, size_t frames) {
    return timelineDirection() < 0 ? backwards(out, frames) : forwards(out, frames);
}

size_t ReverseStage::backwards(float* out, size_t frames) {
    const unsigned ch = chans();
    const size_t blockFrames = block_.size() / ch;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(frames, cursor_));
    size_t done = 0;
    while (done < n) {
        if (cursor_ <= blockStart_ || cursor_ > blockEnd_) {
            // Read the block that ends here.
            const uint64_t start = cursor_ > blockFrames ? cursor_ - blockFrames : 0;
            if (!moveSourceTo(start)) break;
            const auto want = static_cast<size_t>(cursor_ - start);
            const size_t got = source_->read(block_.data(), want);
            // A source shorter than it said leaves silence rather than a hole in time.
            std::memset(block_.data() + got * ch, 0, (want - got) * ch * sizeof(float));
            blockStart_ = start;
            blockEnd_ = cursor_;
        }
        const auto take = static_cast<size_t>(std::min<uint64_t>(n - done, cursor_ - blockStart_));
        const float* src = block_.data() + (cursor_ - blockStart_) * ch;
        for (size_t i = 0; i < take; ++i) {
            src -= ch;
            std::memcpy(out + (done + i) * ch, src, ch * sizeof(float));
        }
        cursor_ -= take;
        done += take;
    }
    return done;
}

size_t ReverseStage::forwards(float* out, size_t frames) {
    if (!moveSourceTo(cursor_)) return 0;
    const size_t got = source_->read(out, frames);
    cursor_ += got;
    forwardEnded_ = got < frames && sourceDone();
    return got;
}

} // namespace tavro::platform
