#include "file/MediaInput.hpp"

#include "core/Error.hpp"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace tavro::platform {

std::unique_ptr<MediaInput> MediaInput::openFile(const char* path, QWORD offset, QWORD length) {
    struct stat st {};
    if (!path || stat(path, &st) != 0 || !S_ISREG(st.st_mode))
        return failWith<std::unique_ptr<MediaInput>>(BASS_ERROR_FILEOPEN, nullptr);
    FILE* f = std::fopen(path, "rb");
    if (!f) return failWith<std::unique_ptr<MediaInput>>(BASS_ERROR_FILEOPEN, nullptr);
    std::unique_ptr<MediaInput> in(new MediaInput());
    in->file_ = f;
    const auto total = static_cast<int64_t>(st.st_size);
    if (static_cast<int64_t>(offset) > total) return failWith<std::unique_ptr<MediaInput>>(BASS_ERROR_FILEFORM, nullptr);
    in->base_ = static_cast<int64_t>(offset);
    in->size_ = total - in->base_;
    if (length > 0 && static_cast<int64_t>(length) < in->size_) in->size_ = static_cast<int64_t>(length);
    return in;
}

std::unique_ptr<MediaInput> MediaInput::openMemory(const void* data, QWORD length) {
    if (!data) return failWith<std::unique_ptr<MediaInput>>(BASS_ERROR_ILLPARAM, nullptr);
    // Empty input is no format, whether it comes from memory or from a file.
    if (length == 0) return failWith<std::unique_ptr<MediaInput>>(BASS_ERROR_FILEFORM, nullptr);
    std::unique_ptr<MediaInput> in(new MediaInput());
    in->mem_ = static_cast<const uint8_t*>(data);
    in->size_ = static_cast<int64_t>(length);
    return in;
}

MediaInput::~MediaInput() {
    if (avio_) {
        av_freep(&avio_->buffer);
        avio_context_free(&avio_);
    }
    if (file_) std::fclose(file_);
}

int MediaInput::read(uint8_t* buf, int n) {
    const int64_t left = size_ - view_ - pos_;
    if (left <= 0) return AVERROR_EOF;
    n = static_cast<int>(std::min<int64_t>(n, left));
    if (mem_) {
        std::memcpy(buf, mem_ + view_ + pos_, static_cast<size_t>(n));
    } else {
        if (fseeko(file_, base_ + view_ + pos_, SEEK_SET) != 0) return AVERROR(EIO);
        n = static_cast<int>(std::fread(buf, 1, static_cast<size_t>(n), file_));
        if (n <= 0) return AVERROR_EOF;
    }
    pos_ += n;
    return n;
}

int64_t MediaInput::seek(int64_t pos, int whence) {
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) return size_ - view_;
    int64_t next = pos;
    if (whence == SEEK_CUR) next = pos_ + pos;
    else if (whence == SEEK_END) next = size_ - view_ + pos;
    if (next < 0) return AVERROR(EINVAL);
    pos_ = next;
    return pos_;
}

std::vector<uint8_t> MediaInput::readAt(int64_t pos, size_t n) {
    std::vector<uint8_t> out;
    if (pos < 0 || pos >= size_ || n == 0) return out;
    n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(n), size_ - pos));
    out.resize(n);
    if (mem_) {
        std::memcpy(out.data(), mem_ + pos, n);
    } else if (fseeko(file_, base_ + pos, SEEK_SET) != 0 || std::fread(out.data(), 1, n, file_) != n) {
        out.clear();
    }
    return out;
}

void MediaInput::setView(int64_t start) {
    view_ = std::clamp<int64_t>(start, 0, size_);
    pos_ = 0;
    if (avio_) {
        av_freep(&avio_->buffer);
        avio_context_free(&avio_);
    }
}

AVIOContext* MediaInput::avio() {
    if (avio_) return avio_;
    constexpr int kBuffer = 64 * 1024;
    auto* buf = static_cast<uint8_t*>(av_malloc(kBuffer));
    if (!buf) return nullptr;
    avio_ = avio_alloc_context(
        buf, kBuffer, 0, this,
        [](void* o, uint8_t* b, int n) { return static_cast<MediaInput*>(o)->read(b, n); }, nullptr,
        [](void* o, int64_t p, int w) { return static_cast<MediaInput*>(o)->seek(p, w); });
    if (!avio_) av_free(buf);
    return avio_;
}

} // namespace tavro::platform
