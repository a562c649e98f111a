// A library source made by the test: pushed float data on a decoding channel,
// or (no data) an endless playing ramp whose every sample is its frame number.
#pragma once

#include "PlatformFixture.hpp"
#include "RampChannel.hpp"

#include <tavro/sources/TavroSource.hpp>
#include <tavro/stream/TavroStream.hpp>

namespace tavro::test {

class TestSource final : public TavroSource {
  public:
    explicit TestSource(std::vector<float> data = {}, DWORD rate = 44100, DWORD chans = 2)
        : data_(std::move(data)), rate_(rate), chans_(chans) {}
    uint32_t createStreamWithFlags(TavroSourceFlags, TavroError*) override {
        return data_.empty() ? RampChannel::create(rate_, chans_, 0, -1)
                             : pushStream(rate_, chans_, BASS_STREAM_DECODE, data_, true);
    }
    std::string displayName() const override { return "test"; }

  private:
    std::vector<float> data_;
    DWORD rate_, chans_;
};

inline std::shared_ptr<TavroStream> testStream(std::vector<float> data = {}, DWORD rate = 44100, DWORD chans = 2,
                                               TavroStreamOptions options = 0) {
    return TavroStream::streamWithSource(std::make_shared<TestSource>(std::move(data), rate, chans),
                                         TavroSourceFlagFloat, options);
}

// The next `samples` samples of a stream, through its DSP chain.
inline std::vector<float> pull(const std::shared_ptr<TavroStream>& s, size_t samples) {
    std::vector<float> v(samples);
    v.resize(BASS_ChannelGetData(s->handle(), v.data(), static_cast<DWORD>(samples * 4)) / 4);
    return v;
}

} // namespace tavro::test
