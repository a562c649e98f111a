// Tracker-module music (MOD, S3M, XM, IT, MTM, UMX, MO3 and the rest that
// libopenmpt reads), rendered by libopenmpt at the channel's rate.
//
// Threading contract:
// - load() runs on the caller's thread. What it works out (format, length,
//   tags, file name) is fixed before the channel is published and read-only
//   afterwards, so any thread may read it.
// - The libopenmpt module is touched only under the channel's render lock:
//   produce() and seekSource() are called with it held by the base class, and
//   onFree() takes it to drop the module.
// - Rendering and looping allocate nothing here. libopenmpt's own render is
//   allocation-free except for its row bookkeeping when a pass reaches the
//   song's end (a couple of small blocks per pass). A seek asks libopenmpt to
//   work the song out up to the new place, which allocates: seeks belong on
//   application threads; one made from a mixtime sync works but is not free of
//   allocation.
#pragma once

#include "channel/Channel.hpp"

#include <map>
#include <memory>
#include <string>
#include <vector>

struct openmpt_module;

namespace tavro::platform {

class MusicChannel final : public Channel {
  public:
    // Loads a module from a region of a file (length 0 = to the end). Sets the
    // error and returns null on failure.
    static std::shared_ptr<MusicChannel> loadFile(const char* path, QWORD offset, QWORD length, DWORD flags,
                                                  DWORD freq, std::shared_ptr<Device> device);
    // Loads a module from memory; libopenmpt copies what it keeps, so the
    // caller's block is not referenced after this returns.
    static std::shared_ptr<MusicChannel> loadMemory(const void* data, size_t size, DWORD flags, DWORD freq,
                                                    std::shared_ptr<Device> device);
    ~MusicChannel() override;

    void fillInfo(BASS_CHANNELINFO& info) const override;
    // Module texts, keyed by BASS_TAG_MUSIC_NAME, _MESSAGE, _AUTH, _INST + n
    // and _SAMPLE + n; null when the module has no such text.
    const char* tags(DWORD type) const;

  protected:
    size_t produce(float* out, size_t frames) override;
    bool sourceEnded() const override { return songEnded_ || !mod_; }
    bool seekSource(uint64_t frame, DWORD mode) override;
    int64_t lengthFrames() const override { return length_; }
    bool seekable() const override { return true; }
    void onFree() override;

  private:
    struct ModuleDeleter {
        void operator()(openmpt_module* m) const;
    };
    using ModulePtr = std::unique_ptr<openmpt_module, ModuleDeleter>;

    MusicChannel(ModulePtr mod, DWORD freq, DWORD flags, DWORD ctype, std::shared_ptr<Device> device);
    static std::shared_ptr<MusicChannel> load(const uint8_t* data, size_t size, std::string path, DWORD flags,
                                              DWORD freq, std::shared_ptr<Device> device);
    size_t render(float* out, size_t frames);
    bool seekExact(uint64_t frame);

    ModulePtr mod_;
    const int32_t rate_;
    int64_t length_ = -1;
    std::string path_;
    std::map<DWORD, std::string> tags_;
    std::vector<float> discard_; // frames rendered and dropped on the way to a seek target

    // Render state (render lock).
    bool songEnded_ = false;  // libopenmpt reported the end of the song
    uint64_t passFrames_ = 0; // frames rendered since the last start, seek or loop
    int idleLoops_ = 0;       // loops in a row that rendered nothing
};

} // namespace tavro::platform
