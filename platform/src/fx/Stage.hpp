// A stage: a channel that reads another, decoding channel (its source) and
// lives on the source's timeline, so positions, lengths and position syncs of
// the stage are frames of the source.
//
// Threading contract: as Channel. The source is read, sought and asked for its
// position only from inside this channel's render (read(), seeks), so with
// this channel's renderMutex held first and the source's taken inside it.
// Attributes a stage does not know go down to its source, so in a chain each
// is answered by the stage that owns it.
#pragma once

#include "channel/Channel.hpp"

#include <memory>

namespace tavro::platform {

class Stage : public Channel {
  public:
    Stage(std::shared_ptr<Channel> source, DWORD flags, bool freeSource);

    const std::shared_ptr<Channel>& source() const { return source_; }

    bool setAttribute(DWORD attrib, float value) override;
    bool getAttribute(DWORD attrib, float& value) override;
    int timelineDirection() const override { return source_->timelineDirection(); }
    uint64_t startFrame() const override { return source_->startFrame(); }

  protected:
    // One to one: the source's frames as they come.
    size_t produce(float* out, size_t frames) override { return source_->read(out, frames); }
    // produce() as a span of the source's own timeline, whichever way it runs.
    Span passThrough(float* out, size_t frames, uint64_t maxTimeline);
    bool seekSource(uint64_t frame, DWORD mode) override;
    int64_t lengthFrames() const override { return source_->frameLength(); }
    bool seekable() const override { return source_->canSeek(); }
    void onFree() override;
    // The source has nothing more to give: it ended, or was freed under us.
    bool sourceDone() const { return source_->isFreed() || source_->ended(); }

    const std::shared_ptr<Channel> source_;

  private:
    const bool freeSource_;
};

// Where `chan` is a live channel, else null with BASS_ERROR_HANDLE set.
std::shared_ptr<Channel> liveChannel(DWORD chan);

} // namespace tavro::platform
