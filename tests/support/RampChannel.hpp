// A seekable channel whose every sample is its own frame number: lets tests
// see exactly which frame was rendered where.
#pragma once

#include "channel/Channel.hpp"
#include "core/Handles.hpp"
#include "output/Device.hpp"

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

} // namespace tavro::test
