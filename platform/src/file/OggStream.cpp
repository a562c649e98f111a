#include "file/OggStream.hpp"

#include "core/Error.hpp"
#include "output/Device.hpp"
#include "plugin/Plugins.hpp"

#include <opus/opusfile.h>
#include <vorbis/vorbisfile.h>

#include <cstring>
#include <vector>

namespace tavro::platform {

struct OggStream::Impl {
    std::unique_ptr<MediaInput> input;
    bool opus = false;
    OggVorbis_File vf{};
    OggOpusFile* of = nullptr;
    int srcChans = 0;
    bool mono = false;
    HPLUGIN plugin = 0;
    std::vector<float> buf;

    ~Impl() {
        if (of) op_free(of);
        else if (input && !opus) ov_clear(&vf);
    }

    // Interleaved float frames in the source's channel count; 0 at the end.
    long readFrames(float* out, int frames) {
        if (opus) {
            int li = 0;
            const int n = op_read_float(of, out, frames * srcChans, &li);
            return n < 0 ? (n == OP_HOLE ? readFrames(out, frames) : 0) : n;
        }
        float** pcm = nullptr;
        int bitstream = 0;
        long n = ov_read_float(&vf, &pcm, frames, &bitstream);
        if (n == OV_HOLE) return readFrames(out, frames); // a gap in the data: go on after it
        if (n <= 0) return 0;
        for (long i = 0; i < n; ++i)
            for (int c = 0; c < srcChans; ++c) out[i * srcChans + c] = pcm[c][i];
        return n;
    }
};

namespace {
size_t vRead(void* ptr, size_t size, size_t n, void* ds) {
    const int got = static_cast<MediaInput*>(ds)->read(static_cast<uint8_t*>(ptr), static_cast<int>(size * n));
    return got > 0 ? static_cast<size_t>(got) / size : 0;
}
int vSeek(void* ds, ogg_int64_t off, int whence) { return static_cast<MediaInput*>(ds)->seek(off, whence) < 0 ? -1 : 0; }
long vTell(void* ds) { return static_cast<long>(static_cast<MediaInput*>(ds)->seek(0, SEEK_CUR)); }

int oRead(void* ds, unsigned char* ptr, int n) {
    const int got = static_cast<MediaInput*>(ds)->read(ptr, n);
    return got > 0 ? got : 0;
}
int oSeek(void* ds, opus_int64 off, int whence) { return static_cast<MediaInput*>(ds)->seek(off, whence) < 0 ? -1 : 0; }
opus_int64 oTell(void* ds) { return static_cast<MediaInput*>(ds)->seek(0, SEEK_CUR); }

std::string commentBlock(char** comments, const int* lengths, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) {
        out.append(comments[i], static_cast<size_t>(lengths[i]));
        out += '\0';
    }
    if (!out.empty()) out += '\0';
    return out;
}
} // namespace

std::shared_ptr<OggStream> OggStream::open(std::unique_ptr<MediaInput>& input, DWORD flags, std::shared_ptr<Device> device,
                                           bool& handled) {
    using Result = std::shared_ptr<OggStream>;
    handled = false;
    const auto head = input->readAt(0, 64);
    if (head.size() < 36 || std::memcmp(head.data(), "OggS", 4) != 0) return nullptr;
    const bool isVorbis = std::memcmp(head.data() + 29, "vorbis", 6) == 0;
    const bool isOpus = std::memcmp(head.data() + 28, "OpusHead", 8) == 0;
    if (!isVorbis && !isOpus) return nullptr;
    handled = true;
    auto impl = std::make_unique<Impl>();
    impl->opus = isOpus;
    impl->mono = flags & BASS_SAMPLE_MONO;
    if (isOpus) {
        impl->plugin = Plugins::providerOf("opus");
        if (!impl->plugin) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    }
    input->seek(0, SEEK_SET);
    impl->input = std::move(input);
    MediaInput* ds = impl->input.get();
    DWORD rate = 0, ctype = 0;
    std::string tags;
    int64_t length = -1;
    if (isOpus) {
        const OpusFileCallbacks cb{oRead, oSeek, oTell, nullptr};
        int err = 0;
        impl->of = op_open_callbacks(ds, &cb, nullptr, 0, &err);
        if (!impl->of) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
        impl->srcChans = op_channel_count(impl->of, -1);
        rate = 48000; // Opus always decodes at 48 kHz
        ctype = BASS_CTYPE_STREAM_OPUS;
        length = op_pcm_total(impl->of, -1);
        if (const OpusTags* t = op_tags(impl->of, -1)) tags = commentBlock(t->user_comments, t->comment_lengths, t->comments);
    } else {
        const ov_callbacks cb{vRead, vSeek, nullptr, vTell};
        if (ov_open_callbacks(ds, &impl->vf, nullptr, 0, cb) != 0) {
            impl->input.reset(); // nothing to clear
            return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
        }
        const vorbis_info* vi = ov_info(&impl->vf, -1);
        impl->srcChans = vi->channels;
        rate = static_cast<DWORD>(vi->rate);
        ctype = BASS_CTYPE_STREAM_OGG;
        length = ov_pcm_total(&impl->vf, -1);
        if (const vorbis_comment* vc = ov_comment(&impl->vf, -1)) tags = commentBlock(vc->user_comments, vc->comment_lengths, vc->comments);
    }
    if (impl->srcChans < 1 || impl->srcChans > 32 || rate < 1000) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    impl->buf.resize(kMaxBlockFrames * static_cast<size_t>(impl->srcChans));
    const DWORD chans = impl->mono ? 1 : static_cast<DWORD>(impl->srcChans);
    std::shared_ptr<OggStream> s(new OggStream(std::move(impl), rate, chans, flags, ctype, std::move(device)));
    s->length_ = length < 0 ? -1 : length;
    s->tags_ = std::move(tags);
    return succeedWith(s);
}

OggStream::OggStream(std::unique_ptr<Impl> impl, DWORD freq, DWORD chans, DWORD flags, DWORD ctype, std::shared_ptr<Device> device)
    : Channel(freq, chans, flags, ctype, std::move(device)), impl_(std::move(impl)) {}

OggStream::~OggStream() = default;

void OggStream::fillInfo(BASS_CHANNELINFO& info) const {
    Channel::fillInfo(info);
    info.origres = 0; // lossy: no original resolution
    if (impl_) info.plugin = impl_->plugin;
}

const char* OggStream::tags(DWORD type) const { return type == BASS_TAG_OGG && !tags_.empty() ? tags_.c_str() : nullptr; }

size_t OggStream::produce(float* out, size_t frames) {
    if (!impl_) return 0;
    Impl& d = *impl_;
    const size_t sc = static_cast<size_t>(d.srcChans);
    size_t done = 0;
    while (done < frames && !eof_) {
        const int want = static_cast<int>(std::min(frames - done, kMaxBlockFrames));
        float* dst = d.mono ? d.buf.data() : out + done * sc;
        const long n = d.readFrames(dst, want);
        if (n <= 0) {
            eof_ = true;
            break;
        }
        if (d.mono) {
            const float k = 1.0f / static_cast<float>(sc);
            for (long i = 0; i < n; ++i) {
                float sum = 0;
                for (size_t c = 0; c < sc; ++c) sum += d.buf[static_cast<size_t>(i) * sc + c];
                out[done + static_cast<size_t>(i)] = sum * k;
            }
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

bool OggStream::seekSource(uint64_t frame, DWORD) {
    if (!impl_) return fail(BASS_ERROR_HANDLE);
    const int r = impl_->opus ? op_pcm_seek(impl_->of, static_cast<ogg_int64_t>(frame))
                              : ov_pcm_seek(&impl_->vf, static_cast<ogg_int64_t>(frame));
    if (r != 0) return fail(BASS_ERROR_POSITION);
    eof_ = false;
    return true;
}

void OggStream::onFree() {
    std::lock_guard lock(renderMutex_);
    impl_.reset();
}

} // namespace tavro::platform
