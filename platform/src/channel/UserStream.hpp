// Streams whose data comes from the application: pushed with
// BASS_StreamPutData, or pulled from a STREAMPROC.
//
// Threading: putData() on any application thread; produce() on the render
// thread. The pushed queue is guarded by a mutex held only for a copy.
#pragma once

#include "channel/Channel.hpp"

#include <mutex>
#include <vector>

namespace tavro::platform {

class UserStream final : public Channel {
  public:
    UserStream(DWORD freq, DWORD chans, DWORD flags, STREAMPROC* proc, void* user, std::shared_ptr<Device> device);

    bool isPush() const { return proc_ == STREAMPROC_PUSH; }
    // Queues data (bytes in the stream's format); returns the bytes queued, or -1.
    DWORD putData(const void* buffer, DWORD length);

  protected:
    size_t produce(float* out, size_t frames) override;
    bool sourceEnded() const override { return sourceEnded_; }
    void onRestart() override;

  private:
    STREAMPROC* proc_;
    void* user_;
    bool sourceEnded_ = false;
    std::vector<uint8_t> procBuffer_;

    std::mutex queueMutex_;
    std::vector<uint8_t> queue_; // pushed bytes not yet rendered, from queueRead_
    size_t queueRead_ = 0;
    bool queueEnded_ = false;
};

} // namespace tavro::platform
