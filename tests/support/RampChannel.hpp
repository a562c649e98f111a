// A seekable channel whose every sample is its own frame number: lets tests
// see exactly which frame was rendered where.
#pragma once

#include "channel/Channel.hpp"
#include "core/Handles.hpp"
#include "output/Device.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace tavro::test {

class RampChannel final : public platform::Channel {
  public:
    RampChannel(DWORD freq, DWORD chans, DWORD flags, int64_t length)
        : Channel(freq, chans, flags | BASS_SAMPLE_FLOAT, BASS_CTYPE_STREAM, platform::Device::current()),
          length_(length) {}

    static DWORD create(DWORD freq, DWORD chans, DWORD flags, int64_t length) {
        return platform::Handles::add(std::make_shared<RampChannel>(freq, chans, flags, length));
    }

  protected:
    size_t produce(float* out, size_t frames) override {
        size_t n = frames;
        if (length_ >= 0) n = std::min<size_t>(frames, static_cast<size_t>(length_ - static_cast<int64_t>(next_)));
        for (size_t i = 0; i < n; ++i, ++next_)
            for (DWORD c = 0; c < chans(); ++c) out[i * chans() + c] = static_cast<float>(next_);
        return n;
    }
    bool sourceEnded() const override { return length_ >= 0 && static_cast<int64_t>(next_) >= length_; }
    bool seekSource(uint64_t frame, DWORD) override {
        next_ = frame;
        return true;
    }
    int64_t lengthFrames() const override { return length_; }
    bool seekable() const override { return true; }

  private:
    int64_t length_;
    uint64_t next_ = 0;
};

// A mixtime position sync's procedure (`back`) that jumps its channel back to
// `startBytes`, noting where `source` (when given) had been read to.
struct Loop {
    DWORD source = 0;
    QWORD startBytes = 0;
    std::atomic<int> jumps{0};
    std::atomic<QWORD> sourceAt{0};
    static void back(HSYNC, DWORD channel, DWORD, void* user) {
        auto* l = static_cast<Loop*>(user);
        if (l->source) l->sourceAt = BASS_ChannelGetPosition(l->source, BASS_POS_BYTE);
        BASS_ChannelSetPosition(channel, l->startBytes, BASS_POS_BYTE | BASS_POS_FLUSH);
        l->jumps++;
    }
};

// The first channel of every stereo block leaving a channel's DSP chain.
struct FrameTrace {
    std::mutex m;
    std::vector<float> frames;
    explicit FrameTrace(DWORD h) {
        BASS_ChannelSetDSP(
            h,
            [](HDSP, DWORD, void* buf, DWORD len, void* u) {
                auto* t = static_cast<FrameTrace*>(u);
                std::lock_guard lock(t->m);
                for (DWORD i = 0; i < len / 8; ++i) t->frames.push_back(static_cast<const float*>(buf)[2 * i]);
            },
            this, 0);
    }
    size_t size() {
        std::lock_guard lock(m);
        return frames.size();
    }
};

// Frames 0 .. end-1, then start .. end-1 over and over (times `scale`): a
// loop that jumped back on the exact frame every time.
inline void expectLoopedRamp(const std::vector<float>& frames, size_t count, size_t start, size_t end,
                             float scale = 1) {
    ASSERT_GE(frames.size(), count);
    for (size_t i = 0; i < count; ++i)
        ASSERT_EQ(frames[i], static_cast<float>(i < end ? i : start + (i - end) % (end - start)) * scale)
            << "at frame " << i;
}

} // namespace tavro::test
