#include "channel/UserStream.hpp"

#include "channel/SampleFormat.hpp"
#include "core/Error.hpp"

#include <cstring>

namespace tavro::platform {

UserStream::UserStream(DWORD freq, DWORD chans, DWORD flags, STREAMPROC* proc, void* user,
                       std::shared_ptr<Device> device)
    : Channel(freq, chans, flags, BASS_CTYPE_STREAM, std::move(device)), proc_(proc), user_(user) {
    if (!isPush() && proc_ != STREAMPROC_DUMMY) procBuffer_.resize(kMaxBlockFrames * chans * 4);
}

DWORD UserStream::putData(const void* buffer, DWORD length) {
    const bool end = length & BASS_STREAMPROC_END;
    const DWORD bytes = length & ~BASS_STREAMPROC_END;
    if (bytes && !buffer) return failWith<DWORD>(BASS_ERROR_ILLPARAM, 0xFFFFFFFF);
    if (bytes % bytesPerFrame() != 0) return failWith<DWORD>(BASS_ERROR_ILLPARAM, 0xFFFFFFFF);
    std::lock_guard lock(queueMutex_);
    if (queueEnded_ && bytes) return failWith<DWORD>(BASS_ERROR_ENDED, 0xFFFFFFFF);
    // Reclaim the consumed front before growing, so the queue does not creep.
    if (queueRead_ > 0 && queueRead_ * 2 >= queue_.size()) {
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(queueRead_));
        queueRead_ = 0;
    }
    const auto* p = static_cast<const uint8_t*>(buffer);
    if (bytes) queue_.insert(queue_.end(), p, p + bytes);
    if (end) queueEnded_ = true;
    return succeedWith(static_cast<DWORD>(queue_.size() - queueRead_));
}

size_t UserStream::produce(float* out, size_t frames) {
    const unsigned bps = bytesPerSample();
    const DWORD ch = chans();
    if (isPush()) {
        std::lock_guard lock(queueMutex_);
        const size_t avail = (queue_.size() - queueRead_) / (bps * ch);
        const size_t n = std::min(frames, avail);
        decodeSamples(queue_.data() + queueRead_, out, n * ch, bps);
        queueRead_ += n * bps * ch;
        sourceEnded_ = queueEnded_ && n == avail;
        return n;
    }
    if (proc_ == STREAMPROC_DUMMY) {
        // Data comes only from DSPs on the stream: hand them silence.
        std::memset(out, 0, frames * ch * sizeof(float));
        return frames;
    }
    if (sourceEnded_) return 0;
    const DWORD want = static_cast<DWORD>(frames * ch * bps);
    const DWORD r = proc_(handle(), procBuffer_.data(), want, user_);
    const DWORD got = std::min<DWORD>(r & ~BASS_STREAMPROC_END, want) / (bps * ch);
    decodeSamples(procBuffer_.data(), out, got * ch, bps);
    if (r & BASS_STREAMPROC_END) sourceEnded_ = true;
    return got;
}

void UserStream::onRestart() {
    if (!isPush()) sourceEnded_ = false;
}

} // namespace tavro::platform
