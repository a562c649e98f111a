// Bytes of a media file for the demuxer: a region of a file on disk, or a
// block of memory the caller handed over, behind one seekable reader.
//
// Threading: owned by one stream; used only with that stream's render lock.
#pragma once

#include "bass.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

struct AVIOContext;

namespace tavro::platform {

class MediaInput {
  public:
    // Opens a region of a file (length 0 = to the end). Sets the error and
    // returns null when the file cannot be read.
    static std::unique_ptr<MediaInput> openFile(const char* path, QWORD offset, QWORD length);
    // Reads straight from caller memory (the caller keeps it alive, as the
    // API requires for memory streams).
    static std::unique_ptr<MediaInput> openMemory(const void* data, QWORD length);
    ~MediaInput();

    int64_t size() const { return size_; }
    int read(uint8_t* buf, int n);
    int64_t seek(int64_t pos, int whence);
    // Reads bytes at an absolute offset without moving the demuxer's position.
    std::vector<uint8_t> readAt(int64_t pos, size_t n);

    // A demuxer context reading this input (owned here).
    AVIOContext* avio();
    // Shows the demuxer the input from `start` on, as if it began there
    // (readAt keeps absolute offsets). The demuxer context is made anew: one
    // made before may hold bytes of the old view. Close any demuxer reading
    // through it first.
    void setView(int64_t start);
    int64_t view() const { return view_; }

  private:
    MediaInput() = default;
    FILE* file_ = nullptr;
    const uint8_t* mem_ = nullptr;
    int64_t base_ = 0, size_ = 0, pos_ = 0; // pos_ is within the view
    int64_t view_ = 0;
    AVIOContext* avio_ = nullptr;
};

} // namespace tavro::platform
