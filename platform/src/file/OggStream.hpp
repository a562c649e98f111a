// Ogg Vorbis and Ogg Opus streams, decoded by the reference libraries.
//
// They seek to the exact sample by bisecting the pages' granule positions,
// which a general demuxer cannot do reliably for these codecs.
//
// Threading: decoder access only under the channel's render lock.
#pragma once

#include "channel/Channel.hpp"
#include "file/MediaInput.hpp"

#include <memory>
#include <string>

namespace tavro::platform {

class OggStream final : public Channel {
  public:
    // Null without an error when the input is not Ogg Vorbis or Ogg Opus (the
    // general decoder then tries); null with an error when it is but cannot
    // be opened here.
    static std::shared_ptr<OggStream> open(std::unique_ptr<MediaInput>& input, DWORD flags,
                                           std::shared_ptr<Device> device, bool& handled);
    ~OggStream() override;

    void fillInfo(BASS_CHANNELINFO& info) const override;
    const char* tags(DWORD type) const;

  protected:
    size_t produce(float* out, size_t frames) override;
    bool sourceEnded() const override { return eof_; }
    bool seekSource(uint64_t frame, DWORD mode) override;
    int64_t lengthFrames() const override { return length_; }
    bool seekable() const override { return true; }
    void onFree() override;

  private:
    struct Impl;
    OggStream(std::unique_ptr<Impl> impl, DWORD freq, DWORD chans, DWORD flags, DWORD ctype, std::shared_ptr<Device> device);
    std::unique_ptr<Impl> impl_;
    int64_t length_ = -1;
    bool eof_ = false;
    std::string tags_;
};

} // namespace tavro::platform
