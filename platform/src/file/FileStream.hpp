// A stream decoded from a file or a block of memory.
//
// The format is recognised by content. Built-in formats open at once; the
// families that plug-ins add open only while their module is loaded.
// Positions are exact: timestamps of the container, or for MPEG audio (whose
// timestamps after a seek are estimates) an index of every frame built by a
// prescan.
//
// Threading: produce/seekSource run under the channel's render lock, like all
// decoder access; tags are built at open and read-only afterwards.
#pragma once

#include "channel/Channel.hpp"
#include "file/MediaInput.hpp"

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tavro::platform {

struct Decoder;

class FileStream final : public Channel {
  public:
    // Opens the input; sets the error and returns null on failure.
    static std::shared_ptr<FileStream> open(std::unique_ptr<MediaInput> input, DWORD flags, std::shared_ptr<Device> device);
    ~FileStream() override;

    void fillInfo(BASS_CHANNELINFO& info) const override;
    // A tag block of the given type, or null when the file has none.
    const char* tags(DWORD type) const;

  protected:
    size_t produce(float* out, size_t frames) override;
    bool sourceEnded() const override { return eof_; }
    bool seekSource(uint64_t frame, DWORD mode) override;
    int64_t lengthFrames() const override { return length_.load(std::memory_order_acquire); }
    bool seekable() const override { return true; }
    void onFree() override;

  private:
    FileStream(std::unique_ptr<Decoder> dec, DWORD flags, std::shared_ptr<Device> device);
    bool decodeFrame();
    bool scan();
    void restartAt(uint64_t frame);
    size_t pendingFrames() const {
        const size_t have = pending_.size() / chans();
        return have > pendingPos_ ? have - pendingPos_ : 0;
    }

    std::unique_ptr<Decoder> dec_;
    // Grown before the converter writes into it: left uninitialised, as
    // zeroing it first would be one more pass over every decoded sample.
    template <class T> struct Uninitialised : std::allocator<T> {
        template <class U> struct rebind { using other = Uninitialised<U>; };
        template <class U> void construct(U* p) noexcept { ::new (static_cast<void*>(p)) U; }
        template <class U, class... A> void construct(U* p, A&&... a) { ::new (static_cast<void*>(p)) U(std::forward<A>(a)...); }
    };
    std::vector<float, Uninitialised<float>> pending_; // decoded frames not yet handed out
    size_t pendingPos_ = 0;      // in frames
    uint64_t nextSample_ = 0;    // sample index of the next decoded frame's start
    bool knowPosition_ = true;   // false until a frame after a seek tells its index
    uint64_t discardUntil_ = 0;  // frames before this index are dropped (exact seeks)
    bool eof_ = false;
    bool fromStart_ = false;      // the next frame is the stream's first: its encoder delay is trimmed
    int64_t containerLength_ = -1; // the container's declared end, when it declares one
    std::atomic<int64_t> length_{-1};
    std::map<DWORD, std::string> tags_;
};

} // namespace tavro::platform
