#include "file/OggStream.hpp"

#include "core/Error.hpp"
#include "output/Device.hpp"
#include "plugin/Plugins.hpp"

#include <opus/opusfile.h>
#include <vorbis/vorbisfile.h>

extern "C" {
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstring>
#include <vector>

namespace tavro::platform {

// Spreads frames of one channel count over another: the same channels where
// both have them, a mono link on the first two channels, extra channels
// dropped; one output channel is the average of all inputs. `in(i, c)` reads
// input channel c of frame i.
template <class In>
void mapChannels(In in, int inCh, float* out, int outCh, size_t frames) {
    for (size_t i = 0; i < frames; ++i) {
        float* o = out + i * static_cast<size_t>(outCh);
        if (outCh == 1) {
            float sum = 0;
            for (int c = 0; c < inCh; ++c) sum += in(i, c);
            o[0] = sum / static_cast<float>(inCh);
            continue;
        }
        for (int c = 0; c < outCh; ++c) o[c] = c < inCh ? in(i, c) : (inCh == 1 && c == 1 ? in(i, 0) : 0.0f);
    }
}

struct OggStream::Impl {
    std::unique_ptr<MediaInput> input;
    bool opus = false;
    OggVorbis_File vf{};
    OggOpusFile* of = nullptr;
    int outChans = 0, outRate = 0; // what the stream announced at open
    HPLUGIN plugin = 0;
    // Opus: decoded frames in their link's own layout, not yet handed out.
    std::vector<float> buf;
    size_t bufPos = 0, bufFrames = 0;
    int bufChans = 0;
    // Vorbis: a chained link at another rate is resampled to the announced one.
    SwrContext* swr = nullptr;
    int swrRate = 0, swrChans = 0;
    bool swrFlushed = false;

    ~Impl() {
        swr_free(&swr);
        if (of) op_free(of);
        else if (input && !opus) ov_clear(&vf);
    }

    void resetPosition() {
        bufPos = bufFrames = 0;
        if (swr) swr_init(swr); // nothing of the old place carries over
        swrFlushed = false;
    }

    // Frames in the announced layout and rate; 0 at the end. Each link of a
    // chained stream is converted from its own channel count and rate.
    long readFrames(float* out, int frames) {
        for (int holes = 0; holes < 64; ++holes) {
            if (opus) {
                if (bufPos == bufFrames) {
                    int li = 0;
                    const int n = op_read_float(of, buf.data(), static_cast<int>(buf.size()), &li);
                    if (n == OP_HOLE) continue; // a gap in the data: go on after it
                    if (n <= 0) return 0;
                    bufChans = op_channel_count(of, li);
                    bufPos = 0;
                    bufFrames = static_cast<size_t>(n);
                }
                const size_t take = std::min(bufFrames - bufPos, static_cast<size_t>(frames));
                const float* f = buf.data() + bufPos * static_cast<size_t>(bufChans);
                const auto lc = static_cast<size_t>(bufChans);
                mapChannels([&](size_t i, int c) { return f[i * lc + static_cast<size_t>(c)]; }, bufChans, out, outChans, take);
                bufPos += take;
                return static_cast<long>(take);
            }
            const vorbis_info* vi = ov_info(&vf, -1);
            if (!vi || vi->channels < 1 || vi->rate < 1) return 0;
            if (vi->rate != outRate || swr) return resampled(out, frames);
            float** pcm = nullptr;
            int bitstream = 0;
            const long n = ov_read_float(&vf, &pcm, frames, &bitstream);
            if (n == OV_HOLE) continue;
            if (n <= 0) return 0;
            // The pcm is in the layout of the link it came from.
            const vorbis_info* now = ov_info(&vf, -1);
            if (!now || now->channels < 1) return 0;
            if (now->rate != outRate) {
                // A link at another rate began: convert what it gave, and the rest after it.
                if (!fitResampler(now->channels, static_cast<int>(now->rate))) return 0;
                return convert(out, frames, pcm, n);
            }
            mapChannels([&](size_t i, int c) { return pcm[c][i]; }, now->channels, out, outChans, static_cast<size_t>(n));
            return n;
        }
        return 0;
    }

    bool fitResampler(int lc, int lr) {
        if (swr && swrRate == lr && swrChans == lc) return true;
        // Whatever the old converter still held is lost at the link boundary (a few milliseconds).
        swr_free(&swr);
        AVChannelLayout in{}, o{};
        av_channel_layout_default(&in, lc);
        av_channel_layout_default(&o, outChans);
        const bool ok = swr_alloc_set_opts2(&swr, &o, AV_SAMPLE_FMT_FLT, outRate, &in, AV_SAMPLE_FMT_FLTP, lr, 0, nullptr) >= 0 &&
                        swr_init(swr) >= 0;
        av_channel_layout_uninit(&in);
        av_channel_layout_uninit(&o);
        if (!ok) swr_free(&swr);
        swrRate = lr, swrChans = lc, swrFlushed = false;
        return ok;
    }

    long convert(float* out, int frames, float** pcm, long n) {
        uint8_t* dst = reinterpret_cast<uint8_t*>(out);
        const int got = swr_convert(swr, &dst, frames, const_cast<const uint8_t**>(reinterpret_cast<uint8_t**>(pcm)), static_cast<int>(n));
        return std::max(got, 0);
    }

    long resampled(float* out, int frames) {
        uint8_t* dst = reinterpret_cast<uint8_t*>(out);
        for (int tries = 0; tries < 64; ++tries) {
            // What is already converted comes first.
            if (swr && swr_get_out_samples(swr, 0) >= frames) {
                const int got = swr_convert(swr, &dst, frames, nullptr, 0);
                if (got > 0) return got;
            }
            if (swrFlushed) return 0;
            const vorbis_info* vi = ov_info(&vf, -1);
            if (!vi || vi->channels < 1 || vi->rate < 1) return 0;
            float** pcm = nullptr;
            int bitstream = 0;
            // Only as much as fits the output once converted; the converter keeps any excess.
            const long want = std::max<long>(1, static_cast<long>(frames) * vi->rate / outRate / 2);
            const long n = ov_read_float(&vf, &pcm, static_cast<int>(want), &bitstream);
            if (n == OV_HOLE) continue;
            if (n <= 0) {
                swrFlushed = true;
                const int got = swr ? swr_convert(swr, &dst, frames, nullptr, 0) : 0;
                return std::max(got, 0);
            }
            const vorbis_info* now = ov_info(&vf, -1);
            if (!now || now->channels < 1) return 0;
            if (now->rate == outRate && (!swr || swr_get_out_samples(swr, 0) == 0)) {
                // Back at the announced rate: no converter needed any more.
                swr_free(&swr);
                mapChannels([&](size_t i, int c) { return pcm[c][i]; }, now->channels, out, outChans, static_cast<size_t>(n));
                return n;
            }
            if (!fitResampler(now->channels, static_cast<int>(now->rate))) return 0;
            if (const long got = convert(out, frames, pcm, n); got > 0) return got;
        }
        return 0;
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
    if (isOpus) {
        impl->plugin = Plugins::providerOf("opus");
        if (!impl->plugin) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    }
    input->seek(0, SEEK_SET);
    impl->input = std::move(input);
    MediaInput* ds = impl->input.get();
    DWORD rate = 0, ctype = 0;
    int srcChans = 0;
    std::string tags;
    int64_t length = -1;
    if (isOpus) {
        const OpusFileCallbacks cb{oRead, oSeek, oTell, nullptr};
        int err = 0;
        impl->of = op_open_callbacks(ds, &cb, nullptr, 0, &err);
        if (!impl->of) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
        srcChans = op_channel_count(impl->of, -1);
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
        srcChans = vi->channels;
        rate = static_cast<DWORD>(vi->rate);
        ctype = BASS_CTYPE_STREAM_OGG;
        length = ov_pcm_total(&impl->vf, -1);
        if (const vorbis_comment* vc = ov_comment(&impl->vf, -1)) tags = commentBlock(vc->user_comments, vc->comment_lengths, vc->comments);
    }
    if (srcChans < 1 || rate < 1) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    const DWORD chans = (flags & BASS_SAMPLE_MONO) ? 1 : static_cast<DWORD>(srcChans);
    if (!formatWithinLimits(rate, chans)) return failWith<Result>(BASS_ERROR_FORMAT, nullptr);
    impl->outChans = static_cast<int>(chans);
    impl->outRate = static_cast<int>(rate);
    if (isOpus) impl->buf.resize(kMaxBlockFrames * static_cast<size_t>(srcChans));
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
    const size_t ch = chans();
    size_t done = 0;
    while (done < frames && !eof_) {
        const int want = static_cast<int>(std::min(frames - done, kMaxBlockFrames));
        const long n = impl_->readFrames(out + done * ch, want);
        if (n <= 0) {
            eof_ = true;
            break;
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
    impl_->resetPosition();
    eof_ = false;
    return true;
}

void OggStream::onFree() {
    std::lock_guard lock(renderMutex_);
    impl_.reset();
}

} // namespace tavro::platform
