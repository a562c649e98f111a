#include "fx/Stage.hpp"

#include "core/Error.hpp"

#include <cmath>

namespace tavro::platform {

namespace {
// A stage plays what its source decodes; only these creation flags describe the stage itself.
constexpr DWORD kStageFlags = BASS_SAMPLE_LOOP | BASS_STREAM_AUTOFREE | BASS_STREAM_DECODE;
} // namespace

std::shared_ptr<Channel> liveChannel(DWORD chan) {
    auto ch = Handles::get<Channel>(chan);
    if (!ch || ch->isFreed()) return failWith<std::shared_ptr<Channel>>(BASS_ERROR_HANDLE, nullptr);
    return ch;
}

// The stage reports its source's channel type, so that the global volume that
// applies to the content (music or stream) still applies above it.
Stage::Stage(std::shared_ptr<Channel> source, DWORD flags, bool freeSource)
    : Channel(source->freq(), source->chans(), (flags & kStageFlags) | BASS_SAMPLE_FLOAT, source->ctype(),
              source->device()),
      source_(std::move(source)), freeSource_(freeSource) {
    resetTimeline(static_cast<uint64_t>(std::max(0.0, source_->outputPosition())));
}

bool Stage::setAttribute(DWORD attrib, float value) {
    switch (attrib) {
    case BASS_ATTRIB_FREQ:
    case BASS_ATTRIB_VOL:
    case BASS_ATTRIB_PAN:
        return Channel::setAttribute(attrib, value);
    default:
        return source_->isFreed() ? fail(BASS_ERROR_HANDLE) : source_->setAttribute(attrib, value);
    }
}

bool Stage::getAttribute(DWORD attrib, float& value) {
    switch (attrib) {
    case BASS_ATTRIB_FREQ:
    case BASS_ATTRIB_VOL:
    case BASS_ATTRIB_PAN:
        return Channel::getAttribute(attrib, value);
    default:
        return source_->isFreed() ? fail(BASS_ERROR_HANDLE) : source_->getAttribute(attrib, value);
    }
}

Channel::Span Stage::passThrough(float* out, size_t frames, uint64_t maxTimeline) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(frames, maxTimeline));
    const double before = source_->outputPosition();
    const size_t got = source_->read(out, n);
    const double after = source_->outputPosition();
    return {got, static_cast<uint64_t>(std::llround(std::max(0.0, after))), before,
            static_cast<double>(source_->timelineDirection()), got < n};
}

bool Stage::seekSource(uint64_t frame, DWORD mode) {
    if (source_->isFreed()) return fail(BASS_ERROR_HANDLE);
    // The mode's flag bits (decode-to, scan) mean the same one level down.
    return source_->setPosition(frame * source_->bytesPerFrame(), (mode & ~0xFFu) | BASS_POS_BYTE);
}

void Stage::onFree() {
    if (!freeSource_) return;
    if (Handles::find(source_->handle()) == source_) Handles::remove(source_->handle());
    source_->free();
}

} // namespace tavro::platform
