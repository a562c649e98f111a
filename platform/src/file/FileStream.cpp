#include "file/FileStream.hpp"

#include "core/Error.hpp"
#include "output/Device.hpp"
#include "plugin/Plugins.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tavro::platform {

namespace {

struct Family {
    std::string name;    // the plug-in family, or "" for a built-in format
    DWORD ctype = 0;
    bool known = false;
    bool mpegAudio = false; // timestamps after a seek are estimates
};

bool formatIs(const AVInputFormat* f, const char* name) {
    // Demuxer names may list several (e.g. "mov,mp4,m4a,3gp,3g2,mj2").
    const std::string all = std::string(",") + f->name + ",";
    return all.find(std::string(",") + name + ",") != std::string::npos;
}

Family classify(const AVInputFormat* f, const AVCodecParameters* par) {
    const AVCodecID c = par->codec_id;
    Family fam;
    fam.known = true;
    if (formatIs(f, "wav") || formatIs(f, "w64")) {
        fam.ctype = (c == AV_CODEC_ID_PCM_F32LE || c == AV_CODEC_ID_PCM_F64LE) ? BASS_CTYPE_STREAM_WAV_FLOAT
                    : (c >= AV_CODEC_ID_PCM_S16LE && c < AV_CODEC_ID_ADPCM_IMA_QT)
                        ? BASS_CTYPE_STREAM_WAV_PCM
                        : BASS_CTYPE_STREAM_WAV | (par->codec_tag & 0xFFFF);
    } else if (formatIs(f, "aiff")) {
        fam.ctype = BASS_CTYPE_STREAM_AIFF;
    } else if (formatIs(f, "mp3")) {
        fam.mpegAudio = true;
        fam.ctype = c == AV_CODEC_ID_MP1 ? BASS_CTYPE_STREAM_MP1 : c == AV_CODEC_ID_MP2 ? BASS_CTYPE_STREAM_MP2 : BASS_CTYPE_STREAM_MP3;
    } else if (formatIs(f, "ogg")) {
        if (c == AV_CODEC_ID_VORBIS) fam.ctype = BASS_CTYPE_STREAM_OGG;
        else if (c == AV_CODEC_ID_OPUS) fam.name = "opus", fam.ctype = BASS_CTYPE_STREAM_OPUS;
        else if (c == AV_CODEC_ID_FLAC) fam.name = "flac", fam.ctype = BASS_CTYPE_STREAM_FLAC_OGG;
        else fam.known = false;
    } else if (formatIs(f, "flac")) {
        fam.name = "flac", fam.ctype = BASS_CTYPE_STREAM_FLAC;
    } else if (formatIs(f, "mp4")) {
        fam.ctype = c == AV_CODEC_ID_ALAC ? BASS_CTYPE_STREAM_ALAC : BASS_CTYPE_STREAM_MP4;
    } else if (formatIs(f, "aac")) {
        fam.ctype = BASS_CTYPE_STREAM_AAC;
    } else if (formatIs(f, "caf")) {
        fam.ctype = c == AV_CODEC_ID_ALAC ? BASS_CTYPE_STREAM_ALAC : BASS_CTYPE_STREAM_CA;
    } else if (formatIs(f, "ac3") || formatIs(f, "eac3")) {
        fam.ctype = BASS_CTYPE_STREAM_AC3;
    } else if (formatIs(f, "wv")) {
        fam.name = "wavpack", fam.ctype = BASS_CTYPE_STREAM_WV;
    } else if (formatIs(f, "ape")) {
        fam.name = "ape", fam.ctype = BASS_CTYPE_STREAM_APE;
    } else if (formatIs(f, "dsf") || (formatIs(f, "iff") && (c >= AV_CODEC_ID_DSD_LSBF && c <= AV_CODEC_ID_DSD_MSBF_PLANAR))) {
        fam.name = "dsd", fam.ctype = BASS_CTYPE_STREAM_DSD;
    } else if (formatIs(f, "matroska") || formatIs(f, "webm")) {
        fam.name = "webm", fam.ctype = BASS_CTYPE_STREAM_WEBM;
    } else if (formatIs(f, "mpc") || formatIs(f, "mpc8")) {
        fam.name = "mpc", fam.ctype = BASS_CTYPE_STREAM_MPC;
    } else if (formatIs(f, "tta")) {
        fam.name = "tta", fam.ctype = BASS_CTYPE_STREAM_TTA;
    } else {
        fam.known = false; // tracker modules, video containers, playlists, ...
    }
    return fam;
}

std::string tagBlock(const AVDictionary* a, const AVDictionary* b = nullptr) {
    std::string out;
    for (const AVDictionary* d : {a, b}) {
        const AVDictionaryEntry* e = nullptr;
        while ((e = av_dict_get(d, "", e, AV_DICT_IGNORE_SUFFIX))) {
            out += e->key;
            out += '=';
            out += e->value;
            out += '\0';
        }
    }
    if (out.empty()) return out;
    out += '\0';
    return out;
}

uint32_t le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24); }

// APE tag items as "key=value" strings; the footer sits at the end of the
// file, before an ID3v1 record if there is one.
std::string apeTags(MediaInput& in, bool hasId3v1) {
    const int64_t end = in.size() - (hasId3v1 ? 128 : 0);
    auto footer = in.readAt(end - 32, 32);
    if (footer.size() != 32 || std::memcmp(footer.data(), "APETAGEX", 8) != 0) return {};
    const uint32_t size = le32(&footer[12]), count = le32(&footer[16]);
    if (size < 32 || size > 16 * 1024 * 1024 || static_cast<int64_t>(size) > end) return {};
    auto items = in.readAt(end - size, size - 32);
    std::string out;
    size_t p = 0;
    for (uint32_t i = 0; i < count && p + 8 < items.size(); ++i) {
        const uint32_t len = le32(&items[p]), flags = le32(&items[p + 4]);
        p += 8;
        const auto keyEnd = std::find(items.begin() + static_cast<std::ptrdiff_t>(p), items.end(), 0);
        if (keyEnd == items.end()) break;
        const std::string key(items.begin() + static_cast<std::ptrdiff_t>(p), keyEnd);
        p = static_cast<size_t>(keyEnd - items.begin()) + 1;
        if (len > items.size() - p) break;
        if (((flags >> 1) & 3) == 0) { // UTF-8 text
            out += key + "=" + std::string(items.begin() + static_cast<std::ptrdiff_t>(p), items.begin() + static_cast<std::ptrdiff_t>(p + len));
            out += '\0';
        }
        p += len;
    }
    if (!out.empty()) out += '\0';
    return out;
}

// Ogg Vorbis and Opus: the links of a chained file (streams one after the
// other, each with its own headers, rate and channels) and their length. The
// demuxer reads on through the links but times every one as if it were the
// first, so its duration is only the last link's; here each link is counted
// from its own last granule position, less the Opus pre-skip.
struct OggLinks {
    int64_t frames = -1; // all links at the given rate; -1 when one cannot be measured
    std::vector<int64_t> bytes;  // where each link's first page is
    std::vector<int64_t> starts; // its first frame in the stream; empty when one cannot be measured
    size_t count() const { return bytes.size(); }
};

// The index of the last of `sorted` at or before `v` (0 when none is).
size_t lastAtOrBefore(const std::vector<int64_t>& sorted, int64_t v) {
    const auto it = std::upper_bound(sorted.begin(), sorted.end(), v);
    return it == sorted.begin() ? 0 : static_cast<size_t>(it - sorted.begin()) - 1;
}

// `firstStart` is where the demuxer says the first link starts, in seconds:
// past 0 when the file was recorded from the middle of a stream, whose
// granule positions then count from the stream's start, not the file's.
OggLinks oggLinks(MediaInput& in, int rate, double firstStart) {
    OggLinks out;
    struct Link {
        uint32_t serial = 0;
        int rate = 0;
        int64_t preSkip = 0, last = -1;
    } cur;
    bool open = false, measured = true, groupHasAudio = false, prevBos = false;
    int64_t total = 0, groupAt = 0;
    auto close = [&] {
        if (!open) return;
        const int64_t before = out.count() == 1 && firstStart > 0 ? std::llround(firstStart * cur.rate) : cur.preSkip;
        const int64_t n = cur.last < 0 ? -1 : av_rescale(std::max<int64_t>(0, cur.last - before), rate, cur.rate);
        // Beyond any real length (a damaged granule position): counted by decoding instead.
        if (n < 0 || n > (int64_t(1) << 48) - total) measured = false;
        else total += n;
        open = false;
    };
    constexpr size_t kChunk = 64 * 1024, kMaxHeader = 27 + 255 + 19; // a page header and an identification header
    std::vector<uint8_t> buf;
    int64_t bufAt = 0, pos = 0;
    while (pos < in.size()) {
        if (pos < bufAt || pos + static_cast<int64_t>(kMaxHeader) > bufAt + static_cast<int64_t>(buf.size())) {
            buf = in.readAt(pos, kChunk);
            bufAt = pos;
            if (buf.size() < 27) break;
        }
        const uint8_t* p = buf.data() + (pos - bufAt);
        const size_t avail = buf.size() - static_cast<size_t>(pos - bufAt);
        if (std::memcmp(p, "OggS", 4) != 0) {
            // Lost sync (damage, or junk between links): on at the next capture pattern.
            const uint8_t* end = buf.data() + buf.size();
            constexpr std::string_view capture = "OggS";
            const uint8_t* next = std::search(p + 1, end, capture.begin(), capture.end());
            pos = next == end ? bufAt + static_cast<int64_t>(buf.size()) - 3 : bufAt + (next - buf.data());
            continue;
        }
        const size_t segs = p[26];
        if (avail < 27 + segs) break; // a page header cut off by the end of the file
        size_t body = 0;
        for (size_t i = 0; i < segs; ++i) body += p[27 + i];
        const uint8_t flags = p[5];
        int64_t granule = 0;
        for (int i = 7; i >= 0; --i) granule = granule << 8 | p[6 + i];
        const uint32_t serial = le32(p + 14);
        const uint8_t* b = p + 27 + segs;
        const size_t have = std::min(body, avail - 27 - segs);
        if (flags & 0x02) { // beginning of a stream: its identification header starts the body
            if (!prevBos) {
                groupHasAudio = false; // a new group of streams: the next link
                groupAt = pos;
            }
            int linkRate = 0;
            int64_t preSkip = 0;
            if (have >= 16 && b[0] == 1 && std::memcmp(b + 1, "vorbis", 6) == 0) {
                linkRate = static_cast<int>(le32(b + 12));
            } else if (have >= 19 && std::memcmp(b, "OpusHead", 8) == 0) {
                linkRate = 48000; // Opus always decodes at 48 kHz
                preSkip = b[10] | b[11] << 8;
            }
            if (linkRate > 0 && !groupHasAudio) {
                groupHasAudio = true;
                close();
                cur = Link{serial, linkRate, preSkip, -1};
                open = true;
                out.bytes.push_back(groupAt);
                out.starts.push_back(total);
            }
        } else if (open && serial == cur.serial && granule >= 0) {
            cur.last = granule;
        }
        prevBos = flags & 0x02;
        pos += static_cast<int64_t>(27 + segs + body);
    }
    close();
    if (measured && out.count() > 0) out.frames = total;
    else out.starts.clear();
    return out;
}

} // namespace

struct Decoder {
    std::unique_ptr<MediaInput> input;
    AVFormatContext* fmt = nullptr;
    const AVCodec* codecDef = nullptr;
    AVCodecContext* codec = nullptr;
    SwrContext* swr = nullptr;
    // What the converter was built for: a frame in any other layout, rate or
    // sample format rebuilds it (concatenated files, radio, broken headers).
    AVChannelLayout swrInLayout{};
    int swrInRate = 0, swrInFormat = -1;
    AVChannelLayout outLayout{}; // the layout announced at open
    AVPacket* pkt = nullptr;
    AVFrame* frame = nullptr;
    int stream = -1;
    AVRational tb{1, 1};
    int rate = 0, outChans = 0;
    int64_t firstPts = AV_NOPTS_VALUE;
    bool draining = false;
    // A chained Ogg file: timestamps restart with every link, so positions are
    // only known by counting from the start.
    bool chained = false;
    bool ogg = false; // Ogg Vorbis or Opus
    Family family;
    DWORD origres = 0;
    HPLUGIN plugin = 0;
    struct IndexEntry {
        int64_t pos;
        uint64_t sample;
    };
    std::vector<IndexEntry> index;
    bool exact = true; // the sample count is known exactly (not an estimate after a seek)
    // A chained Ogg file's links: where each starts in the file and in the
    // stream (empty when a link's length could not be measured), and the link
    // the decoder was made for. The demuxer puts each link's header in the
    // stream's parameters as it reaches the link; every link gets a decoder
    // of its own, made from that header: one made for another link's channels
    // cannot decode it (an Opus decoder for stereo makes noise of a 5.1 link,
    // one for 5.1 drops a stereo link), and a link starts with no overlap
    // from the one before.
    std::vector<int64_t> linkBytes, linkStarts;
    // FFmpeg counts a Vorbis stream's first packet as 128 or more samples it
    // never outputs, so the padding it has cut from the last packet is that
    // much too long and the last samples of the stream were lost. Where the
    // length is known from the granule positions (all of the stream, or each
    // link), the stream is cut there instead.
    bool endByLength = false;
    const AVInputFormat* reopenFormat = nullptr;
    int64_t reopenStart = 0;
    int firstStream = -1; // the audio stream's index in the whole file
    size_t link = 0;
    size_t linkAt(int64_t bytePos) const { return lastAtOrBefore(linkBytes, bytePos); }
    int seekRetries = 0;
    int64_t firstPacketPos = -1; // where the first audio packet starts (the way back to sample 0)
    // Its timestamp: priming packets (the encoder delay of AAC in MP4) lie
    // before the stream's start time, and a seek to the start would skip them.
    int64_t firstPacketTs = AV_NOPTS_VALUE;

    // Streams of self-contained frames without a container: timestamps after
    // a seek are estimates, but a byte position reaches any frame exactly.
    bool rawFrames() const {
        return family.mpegAudio || family.ctype == BASS_CTYPE_STREAM_AAC || family.ctype == BASS_CTYPE_STREAM_AC3;
    }

    // A decoder in the state it has at open. Encoder delay and padding are
    // trimmed here, not by the decoder: the delay belongs to the start of the
    // stream only, and a decoder that has just been flushed for a seek cannot tell.
    // Whatever happens, `codec` is an open decoder or null after it (a
    // context that did not open cannot even be flushed).
    bool openCodec() {
        if (openCodecContext()) return true;
        avcodec_free_context(&codec);
        return false;
    }
    bool openCodecContext() {
        avcodec_free_context(&codec);
        // A link of a chained Ogg file may carry another codec (Vorbis, then Opus).
        const AVCodecID id = fmt->streams[stream]->codecpar->codec_id;
        if (chained && codecDef->id != id) {
            const AVCodec* other = avcodec_find_decoder(id);
            if (!other || (id != AV_CODEC_ID_VORBIS && id != AV_CODEC_ID_OPUS)) return false;
            codecDef = other;
        }
        codec = avcodec_alloc_context3(codecDef);
        if (!codec || avcodec_parameters_to_context(codec, fmt->streams[stream]->codecpar) < 0) return false;
        codec->pkt_timebase = fmt->streams[stream]->time_base;
        codec->flags2 |= AV_CODEC_FLAG2_SKIP_MANUAL;
        return avcodec_open2(codec, codecDef, nullptr) >= 0;
    }

    // Back to the first audio packet. Raw frame streams go there by byte: a
    // timestamp seek may land on an information frame before it. The decoder
    // starts afresh, so the start decodes exactly as it did the first time
    // (a flush leaves some decoders' state, such as a noise generator's, as it was).
    void rewind() {
        if (firstPacketPos >= 0 && rawFrames())
            av_seek_frame(fmt, stream, firstPacketPos, AVSEEK_FLAG_BYTE);
        else if (!ogg)
            av_seek_frame(fmt, stream, firstPacketTs != AV_NOPTS_VALUE ? std::min(firstPacketTs, streamStart()) : streamStart(),
                          AVSEEK_FLAG_BACKWARD);
        else if (!reopen())
            return;
        openCodec(); // without a decoder the stream ends
        link = 0;
        draining = false;
    }

    // To link k of a chained file: a demuxer opened on the file from the
    // link's first page on reads it as the first (a byte seek would make it
    // a second stream), and the later links as it reads on. Positions come
    // from the links' lengths, not from the demuxer's timestamps.
    bool seekToLink(size_t k) {
        draining = false;
        if (reopen(linkBytes[k]) && openCodec()) {
            link = k;
            return true;
        }
        // A link the demuxer cannot open (cut short): back at the start of
        // the file, where the stream can still be sought.
        rewind();
        return false;
    }
    // Where a packet lies in the whole file.
    int64_t filePos(const AVPacket* p) const { return p->pos < 0 ? -1 : p->pos + input->view(); }

    // A timestamp seek that goes back at least to `ts`.
    void seekBefore(int64_t ts) {
        if (ogg && !reopen()) return;
        av_seek_frame(fmt, stream, std::max(ts, streamStart()), AVSEEK_FLAG_BACKWARD);
    }

    // The Ogg demuxer, once it has read the last page, stamps the packets
    // after a seek with wrong timestamps; and in a chained file a timestamp
    // seek can land in any link. A demuxer opened afresh stands at the first page and
    // seeks right. Without a demuxer the stream ends (no decoder).
    bool reopen(int64_t fromByte = 0) {
        // What the demuxer was and where the stream starts outlive it: a
        // reopen that fails can be tried again.
        if (fmt) {
            reopenFormat = fmt->iformat;
            reopenStart = streamStart();
            if (firstStream < 0) firstStream = stream;
            avformat_close_input(&fmt);
        }
        if (fromByte == 0) stream = firstStream;
        const AVInputFormat* f = reopenFormat;
        const int64_t start = reopenStart;
        if (fromByte != input->view()) input->setView(fromByte);
        AVIOContext* pb = input->avio();
        fmt = avformat_alloc_context();
        if (fmt && pb && avio_seek(pb, 0, SEEK_SET) == 0) {
            fmt->pb = pb;
            fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
            if (avformat_open_input(&fmt, nullptr, f, nullptr) < 0) fmt = nullptr; // freed by the failed open
            else {
                // A link of a chained file may hold other streams beside its
                // audio (video): its audio stream is taken wherever it lies.
                const auto audio = [&](int i) { return i >= 0 && i < static_cast<int>(fmt->nb_streams) && fmt->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO; };
                if (!audio(stream) && fromByte > 0) stream = av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
                if (audio(stream)) {
                    for (unsigned i = 0; i < fmt->nb_streams; ++i)
                        if (static_cast<int>(i) != stream) fmt->streams[i]->discard = AVDISCARD_ALL;
                    // Measured once, at open: the fresh demuxer has not looked for it.
                    fmt->streams[stream]->start_time = start;
                    return true;
                }
            }
        }
        if (fmt) avformat_close_input(&fmt);
        avcodec_free_context(&codec);
        return false;
    }

    ~Decoder() {
        av_frame_free(&frame);
        av_packet_free(&pkt);
        swr_free(&swr);
        av_channel_layout_uninit(&swrInLayout);
        av_channel_layout_uninit(&outLayout);
        avcodec_free_context(&codec);
        if (fmt) avformat_close_input(&fmt);
    }

    // Samples to drop from a frame: the encoder delay at the start of the
    // stream (flushing for a seek loses the decoder's own note of it, so the
    // container's figure stands in), and padding at the very end.
    void trimOf(const AVFrame* f, bool atStart, uint32_t& start, uint32_t& end) const {
        bool marked = false;
        if (const AVFrameSideData* sd = av_frame_get_side_data(f, AV_FRAME_DATA_SKIP_SAMPLES); sd && sd->size >= 8) {
            start = le32(sd->data);
            end = endByLength ? 0 : le32(sd->data + 4);
            marked = start > 0;
        }
        if (!atStart) {
            if (!(chained && marked)) start = 0; // each link of a chained file has a pre-skip of its own
        } else if (!marked) start = static_cast<uint32_t>(std::max(0, fmt->streams[stream]->codecpar->initial_padding));
    }

    // Makes the converter fit this frame: its own layout, rate and sample
    // format in, the announced layout at the announced rate out. False when
    // the frame cannot be converted (it is then skipped).
    bool fitConverter(const AVFrame* f) {
        const int inRate = f->sample_rate > 0 ? f->sample_rate : rate;
        AVChannelLayout in{};
        if (f->ch_layout.nb_channels < 1) return false;
        if (f->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_default(&in, f->ch_layout.nb_channels);
        else if (av_channel_layout_copy(&in, &f->ch_layout) < 0) return false;
        if (swr && inRate == swrInRate && f->format == swrInFormat && av_channel_layout_compare(&in, &swrInLayout) == 0) {
            av_channel_layout_uninit(&in);
            return true;
        }
        swr_free(&swr);
        av_channel_layout_uninit(&swrInLayout);
        swrInFormat = -1;
        int err = swr_alloc_set_opts2(&swr, &outLayout, AV_SAMPLE_FMT_FLT, rate, &in,
                                      static_cast<AVSampleFormat>(f->format), inRate, 0, nullptr);
        // A surround part folded into fewer channels is scaled so that its
        // sum cannot pass full scale: the output would clip it.
        if (err >= 0 && outLayout.nb_channels < in.nb_channels) err = av_opt_set_double(swr, "rematrix_maxval", 1.0, 0);
        if (err >= 0 && outLayout.nb_channels == 1 && in.nb_channels > 1) {
            // Mono is the average of all channels, not the library's surround downmix.
            std::vector<double> matrix(static_cast<size_t>(in.nb_channels), 1.0 / in.nb_channels);
            err = swr_set_matrix(swr, matrix.data(), in.nb_channels);
        }
        if (err < 0 || swr_init(swr) < 0) {
            swr_free(&swr);
            av_channel_layout_uninit(&in);
            return false;
        }
        swrInLayout = in;
        swrInRate = inRate;
        swrInFormat = f->format;
        return true;
    }

    int64_t streamStart() const {
        const AVStream* st = fmt->streams[stream];
        return st->start_time != AV_NOPTS_VALUE ? st->start_time : 0;
    }
};

std::shared_ptr<FileStream> FileStream::open(std::unique_ptr<MediaInput> input, DWORD flags, std::shared_ptr<Device> device) {
    using Result = std::shared_ptr<FileStream>;
    // The demuxers' own diagnostics would go to stderr from any thread.
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_QUIET);
        return true;
    }();
    (void)quiet;
    auto dec = std::make_unique<Decoder>();
    dec->input = std::move(input);
    if (dec->input->size() <= 0) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    AVIOContext* avio = dec->input->avio();
    dec->fmt = avformat_alloc_context();
    if (!avio || !dec->fmt) return failWith<Result>(BASS_ERROR_MEM, nullptr);
    dec->fmt->pb = avio;
    dec->fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
    if (avformat_open_input(&dec->fmt, nullptr, nullptr, nullptr) < 0) {
        dec->fmt = nullptr; // freed by the failed open
        return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    }
    // A weak guess from a few bytes is how random data gets taken for audio.
    if (dec->fmt->probe_score < AVPROBE_SCORE_MAX / 4) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    if (avformat_find_stream_info(dec->fmt, nullptr) < 0) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    const AVCodec* codec = nullptr;
    dec->stream = av_find_best_stream(dec->fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (dec->stream == AVERROR_DECODER_NOT_FOUND) return failWith<Result>(BASS_ERROR_CODEC, nullptr);
    if (dec->stream < 0) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    AVStream* st = dec->fmt->streams[dec->stream];
    // Everything else is not ours to decode.
    for (unsigned i = 0; i < dec->fmt->nb_streams; ++i)
        if (static_cast<int>(i) != dec->stream) dec->fmt->streams[i]->discard = AVDISCARD_ALL;
    dec->family = classify(dec->fmt->iformat, st->codecpar);
    if (!dec->family.known) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    if (!dec->family.name.empty()) {
        dec->plugin = Plugins::providerOf(dec->family.name);
        if (!dec->plugin) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    }
    const int chans = st->codecpar->ch_layout.nb_channels;
    if (chans < 1 || st->codecpar->sample_rate < 1) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    const int announced = (flags & BASS_SAMPLE_MONO) ? 1 : chans;
    if (!formatWithinLimits(static_cast<uint64_t>(st->codecpar->sample_rate), static_cast<uint64_t>(announced)))
        return failWith<Result>(BASS_ERROR_FORMAT, nullptr);
    dec->codecDef = codec;
    if (!dec->openCodec()) return failWith<Result>(BASS_ERROR_CODEC, nullptr);
    dec->tb = st->time_base;
    dec->rate = dec->codec->sample_rate;
    dec->outChans = (flags & BASS_SAMPLE_MONO) ? 1 : dec->codec->ch_layout.nb_channels;
    if (!formatWithinLimits(static_cast<uint64_t>(dec->rate), static_cast<uint64_t>(dec->outChans)))
        return failWith<Result>(BASS_ERROR_FORMAT, nullptr);
    const int bits = st->codecpar->bits_per_raw_sample ? st->codecpar->bits_per_raw_sample : st->codecpar->bits_per_coded_sample;
    const auto sf = static_cast<AVSampleFormat>(st->codecpar->format);
    dec->origres = (sf == AV_SAMPLE_FMT_FLT || sf == AV_SAMPLE_FMT_FLTP || sf == AV_SAMPLE_FMT_DBL || sf == AV_SAMPLE_FMT_DBLP)
                       ? 32
                       : static_cast<DWORD>(bits > 0 ? bits : 16);

    if (dec->outChans == 1) dec->outLayout = AV_CHANNEL_LAYOUT_MONO;
    else if (dec->codec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_default(&dec->outLayout, dec->outChans);
    else if (av_channel_layout_copy(&dec->outLayout, &dec->codec->ch_layout) < 0) return failWith<Result>(BASS_ERROR_MEM, nullptr);
    dec->pkt = av_packet_alloc();
    dec->frame = av_frame_alloc();
    if (!dec->pkt || !dec->frame) return failWith<Result>(BASS_ERROR_MEM, nullptr);

    std::shared_ptr<FileStream> fs(new FileStream(std::move(dec), flags, std::move(device)));
    Decoder& d = *fs->dec_;
    // The first frame proves the data decodes and fixes where sample 0 is.
    fs->knowPosition_ = true;
    fs->fromStart_ = true;
    if (!fs->decodeFrame()) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);

    // Length: exact from the container for most formats; MPEG audio and raw
    // AAC only by counting (prescan).
    const AVStream* s = d.fmt->streams[d.stream];
    int64_t len = -1;
    if (s->duration != AV_NOPTS_VALUE && s->duration > 0)
        len = av_rescale_q(s->duration - (d.firstPts - d.streamStart()), d.tb, AVRational{1, d.rate});
    else if (d.fmt->duration != AV_NOPTS_VALUE && d.fmt->duration > 0)
        len = av_rescale_q(d.fmt->duration, AVRational{1, AV_TIME_BASE}, AVRational{1, d.rate});
    // A duration guessed from the bit rate is no end to stop at; a declared
    // one is (it cuts codec padding that the container trims, as in MP4).
    bool estimated = d.fmt->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE || d.family.mpegAudio ||
                           d.family.ctype == BASS_CTYPE_STREAM_AAC || d.family.ctype == BASS_CTYPE_STREAM_AC3;
    if (formatIs(d.fmt->iformat, "ogg") && (s->codecpar->codec_id == AV_CODEC_ID_VORBIS || s->codecpar->codec_id == AV_CODEC_ID_OPUS)) {
        d.ogg = true;
        const OggLinks links = oggLinks(*d.input, d.rate, s->start_time != AV_NOPTS_VALUE ? s->start_time * av_q2d(s->time_base) : 0.0);
        const bool vorbis = s->codecpar->codec_id == AV_CODEC_ID_VORBIS;
        // Lengths counted from the granule positions are exact, whatever
        // the demuxer made of the duration.
        if (links.frames >= 0 && (links.count() > 1 || vorbis)) estimated = false;
        if (links.count() > 1) {
            d.chained = true;
            len = links.frames;
            d.linkBytes = links.bytes;
            d.linkStarts = links.starts;
            d.endByLength = vorbis && !d.linkStarts.empty();
        } else if (vorbis && links.frames > 0) {
            len = links.frames; // the last granule position: every sample, the last ones included
            d.endByLength = true;
        } else if (len > 0) {
            // The last granule position counts the Opus pre-skip too.
            len = std::max<int64_t>(0, len - std::max(0, s->codecpar->initial_padding));
        }
    }
    if (!estimated) fs->containerLength_ = len;
    fs->length_.store(len);
    const bool pcm = formatIs(d.fmt->iformat, "wav") || formatIs(d.fmt->iformat, "aiff");
    if ((flags & BASS_STREAM_PRESCAN) && !pcm) {
        if (!fs->scan()) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr);
    }

    // Tags.
    MediaInput& in = *d.input;
    const auto tail = in.readAt(in.size() - 128, 128);
    const bool id3v1 = tail.size() == 128 && std::memcmp(tail.data(), "TAG", 3) == 0;
    if (id3v1) fs->tags_[BASS_TAG_ID3] = std::string(tail.begin(), tail.end());
    const auto head = in.readAt(0, 10);
    if (head.size() == 10 && std::memcmp(head.data(), "ID3", 3) == 0) {
        const uint32_t size = (head[6] & 0x7F) << 21 | (head[7] & 0x7F) << 14 | (head[8] & 0x7F) << 7 | (head[9] & 0x7F);
        // Only a whole block: readers take its length from its header.
        const size_t want = size + 10 + ((head[5] & 0x10) ? 10 : 0);
        const auto block = in.readAt(0, want);
        if (block.size() == want) fs->tags_[BASS_TAG_ID3V2] = std::string(block.begin(), block.end());
    }
    if (auto ape = apeTags(in, id3v1); !ape.empty()) fs->tags_[BASS_TAG_APE] = ape;
    const AVInputFormat* f = d.fmt->iformat;
    if (!d.fmt) return failWith<Result>(BASS_ERROR_FILEFORM, nullptr); // lost in the prescan
    // The prescan may have opened the demuxer again: not `s`.
    std::string block = tagBlock(d.fmt->metadata, d.fmt->streams[d.stream]->metadata);
    if (!block.empty()) {
        if (formatIs(f, "ogg") || formatIs(f, "flac")) fs->tags_[BASS_TAG_OGG] = block;
        else if (formatIs(f, "mp4")) fs->tags_[BASS_TAG_MP4] = block;
        else if (formatIs(f, "wav")) fs->tags_[BASS_TAG_RIFF_INFO] = block;
    }
    return succeedWith(fs);
}

FileStream::FileStream(std::unique_ptr<Decoder> dec, DWORD flags, std::shared_ptr<Device> device)
    : Channel(static_cast<DWORD>(dec->rate), static_cast<DWORD>(dec->outChans), flags, dec->family.ctype, std::move(device)),
      dec_(std::move(dec)) {}

FileStream::~FileStream() = default;

void FileStream::fillInfo(BASS_CHANNELINFO& info) const {
    Channel::fillInfo(info);
    if (dec_) {
        info.origres = dec_->origres;
        info.plugin = dec_->plugin;
    }
}

const char* FileStream::tags(DWORD type) const {
    auto it = tags_.find(type);
    return it == tags_.end() ? nullptr : it->second.c_str();
}

bool FileStream::decodeFrame() {
    Decoder& d = *dec_;
    if (!d.codec) return false; // a decoder that could not be made again
    // Bounded so corrupt data can never spin forever.
    for (int guard = 0; guard < 100000; ++guard) {
        int r = avcodec_receive_frame(d.codec, d.frame);
        if (r == 0) {
            const int n = d.frame->nb_samples;
            const int64_t ts = d.frame->best_effort_timestamp;
            uint32_t skipStart = 0, skipEnd = 0;
            d.trimOf(d.frame, fromStart_, skipStart, skipEnd);
            fromStart_ = false;
            if (d.firstPts == AV_NOPTS_VALUE)
                d.firstPts = (ts != AV_NOPTS_VALUE ? ts : 0) + av_rescale_q(skipStart, AVRational{1, d.rate}, d.tb);
            if (!knowPosition_) {
                if (ts != AV_NOPTS_VALUE) {
                    const int64_t idx = av_rescale_q(ts - d.firstPts, d.tb, AVRational{1, d.rate});
                    // Landed on the first packet: what lies before the start is its pre-skip.
                    if (idx < 0) skipStart = std::max(skipStart, static_cast<uint32_t>(std::min<int64_t>(-idx, n)));
                    nextSample_ = static_cast<uint64_t>(std::max<int64_t>(0, idx));
                    // Landed after the target: the container's seek was coarse, go further back.
                    if (nextSample_ > discardUntil_ && d.seekRetries < 6) {
                        ++d.seekRetries;
                        const int64_t back = av_rescale_q(static_cast<int64_t>(d.rate) << d.seekRetries, AVRational{1, d.rate}, d.tb);
                        const int64_t target = d.firstPts + av_rescale_q(static_cast<int64_t>(discardUntil_), AVRational{1, d.rate}, d.tb) - back;
                        av_frame_unref(d.frame);
                        d.seekBefore(target);
                        if (!d.codec) return false;
                        avcodec_flush_buffers(d.codec);
                        d.draining = false;
                        continue;
                    }
                }
                knowPosition_ = true;
            }
            if (!d.fitConverter(d.frame)) {
                av_frame_unref(d.frame);
                continue;
            }
            const int outMax = swr_get_out_samples(d.swr, n);
            const size_t base = pending_.size();
            pending_.resize(base + static_cast<size_t>(std::max(outMax, n)) * static_cast<size_t>(d.outChans));
            uint8_t* outPtr = reinterpret_cast<uint8_t*>(pending_.data() + base);
            const int got = swr_convert(d.swr, &outPtr, std::max(outMax, n), const_cast<const uint8_t**>(d.frame->extended_data), n);
            av_frame_unref(d.frame);
            if (got < 0) {
                pending_.resize(base);
                continue;
            }
            const size_t oc = static_cast<size_t>(d.outChans);
            const size_t head = std::min<size_t>(skipStart, static_cast<size_t>(got));
            size_t keep = static_cast<size_t>(got) - head - std::min<size_t>(skipEnd, static_cast<size_t>(got) - head);
            // A link of a chained file ends where the next one starts.
            if (d.chained && d.link + 1 < d.linkStarts.size()) {
                const auto end = static_cast<uint64_t>(d.linkStarts[d.link + 1]);
                keep = nextSample_ >= end ? 0 : static_cast<size_t>(std::min<uint64_t>(keep, end - nextSample_));
            }
            pending_.resize(base + (head + keep) * oc);
            pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(base),
                           pending_.begin() + static_cast<std::ptrdiff_t>(base + head * oc));
            // Exact seeks decode from a little earlier and drop up to the target.
            const uint64_t idx = nextSample_;
            nextSample_ += keep;
            const int got2 = static_cast<int>(keep);
            if (idx < discardUntil_) {
                const size_t drop = static_cast<size_t>(std::min<uint64_t>(discardUntil_ - idx, static_cast<uint64_t>(got2)));
                pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(base),
                               pending_.begin() + static_cast<std::ptrdiff_t>(base + drop * static_cast<size_t>(d.outChans)));
            }
            return true;
        }
        if (r == AVERROR_EOF) {
            // The demuxer stopped before the last link of a chained file (it
            // does not follow a link of another codec): on from the next one.
            if (d.chained && d.link + 1 < d.linkBytes.size() && d.seekToLink(d.link + 1)) continue;
            return false;
        }
        if (r != AVERROR(EAGAIN)) continue; // a broken frame: skip it
        if (d.draining) return false;
        r = av_read_frame(d.fmt, d.pkt);
        if (r < 0) {
            d.draining = true;
            avcodec_send_packet(d.codec, nullptr);
            continue;
        }
        if (d.pkt->stream_index == d.stream) {
            if (d.firstPacketPos < 0) d.firstPacketPos = d.pkt->pos;
            if (d.firstPacketTs == AV_NOPTS_VALUE) d.firstPacketTs = d.pkt->dts != AV_NOPTS_VALUE ? d.pkt->dts : d.pkt->pts;
            // The previous link's frames have all been received: the decoder
            // is only asked for a packet once it has none left to give.
            if (d.chained && d.pkt->pos >= 0 && d.linkAt(d.filePos(d.pkt)) != d.link) {
                d.link = d.linkAt(d.filePos(d.pkt));
                if (!d.openCodec()) {
                    // A link no decoder takes: on from the next one, or the
                    // stream ends here, back at the start for a later seek.
                    av_packet_unref(d.pkt);
                    if (d.link + 1 < d.linkBytes.size() && d.seekToLink(d.link + 1)) continue;
                    d.rewind();
                    return false;
                }
            }
            avcodec_send_packet(d.codec, d.pkt); // bad packets are skipped
        }
        av_packet_unref(d.pkt);
    }
    return false;
}

size_t FileStream::produce(float* out, size_t frames) {
    if (!dec_) return 0;
    const size_t ch = chans();
    size_t done = 0;
    while (done < frames) {
        size_t avail = pendingFrames();
        if (containerLength_ >= 0 && knowPosition_) {
            const uint64_t at = nextSample_ - avail, end = static_cast<uint64_t>(containerLength_);
            if (at >= end) {
                eof_ = true;
                break;
            }
            avail = static_cast<size_t>(std::min<uint64_t>(avail, end - at));
        }
        if (avail > 0) {
            const size_t n = std::min(avail, frames - done);
            std::memcpy(out + done * ch, pending_.data() + pendingPos_ * ch, n * ch * sizeof(float));
            pendingPos_ += n;
            done += n;
            continue;
        }
        pending_.clear();
        pendingPos_ = 0;
        if (eof_) break;
        if (!decodeFrame()) {
            eof_ = true;
            // Having counted every sample, the length is now exact.
            if (dec_->exact && (containerLength_ < 0 || static_cast<int64_t>(nextSample_) < containerLength_))
                length_.store(static_cast<int64_t>(nextSample_));
            break;
        }
    }
    return done;
}

bool FileStream::scan() {
    Decoder& d = *dec_;
    d.rewind();
    if (!d.codec) return false;
    d.index.clear();
    uint64_t count = 0;
    for (;;) {
        const int r = av_read_frame(d.fmt, d.pkt);
        if (r < 0) {
            avcodec_send_packet(d.codec, nullptr);
        } else if (d.pkt->stream_index != d.stream) {
            av_packet_unref(d.pkt);
            continue;
        } else {
            if (d.rawFrames()) d.index.push_back({d.pkt->pos, count});
            avcodec_send_packet(d.codec, d.pkt);
            av_packet_unref(d.pkt);
        }
        while (avcodec_receive_frame(d.codec, d.frame) == 0) {
            uint64_t n = static_cast<uint64_t>(d.frame->nb_samples);
            uint32_t skipStart = 0, skipEnd = 0;
            d.trimOf(d.frame, count == 0, skipStart, skipEnd);
            n -= std::min<uint64_t>(n, uint64_t(skipStart) + skipEnd);
            count += n;
            av_frame_unref(d.frame);
        }
        if (r < 0) break;
    }
    if (containerLength_ >= 0) count = std::min<uint64_t>(count, static_cast<uint64_t>(containerLength_));
    length_.store(static_cast<int64_t>(count));
    restartAt(0);
    return count > 0;
}

void FileStream::restartAt(uint64_t frame) {
    Decoder& d = *dec_;
    if (!d.codec) return; // a decoder that could not be made again: the stream stays ended
    const uint64_t target = frame;
    pending_.clear();
    pendingPos_ = 0;
    eof_ = false;
    fromStart_ = false;
    d.draining = false;
    d.seekRetries = 0;
    discardUntil_ = frame;
    // Decode from a few frames before the target: MPEG audio frames borrow
    // bits from their predecessors, other codecs need a preroll.
    constexpr size_t kPrerollPackets = 8;
    if (!d.index.empty() && frame > 0) {
        auto it = std::upper_bound(d.index.begin(), d.index.end(), frame,
                                   [](uint64_t f, const Decoder::IndexEntry& e) { return f < e.sample; });
        size_t k = static_cast<size_t>(it - d.index.begin());
        k = k > kPrerollPackets ? k - kPrerollPackets : 0;
        if (k == 0) frame = 0; // near the start: decode from the start (discarding up to the target)
        else if (d.index[k].pos >= 0) {
            av_seek_frame(d.fmt, d.stream, d.index[k].pos, AVSEEK_FLAG_BYTE);
            avcodec_flush_buffers(d.codec);
            nextSample_ = d.index[k].sample;
            knowPosition_ = true;
            d.exact = true;
            return;
        }
    }
    if (d.chained) {
        // A link's timestamps say nothing about where it is in the file: go
        // to the start of the link that holds the frame (known when every
        // link was measured), or of the file, and decode forward from there.
        const size_t k = lastAtOrBefore(d.linkStarts, static_cast<int64_t>(frame));
        if (k > 0 && d.seekToLink(k)) {
            nextSample_ = static_cast<uint64_t>(d.linkStarts[k]);
            knowPosition_ = true;
            d.exact = true;
            return;
        }
        frame = 0;
    }
    if (frame == 0) {
        d.rewind();
        discardUntil_ = target;
        nextSample_ = 0;
        knowPosition_ = true;
        fromStart_ = true;
        d.exact = true;
        return;
    }
    const AVStream* st = d.fmt->streams[d.stream];
    int64_t ts = d.firstPts + av_rescale_q(static_cast<int64_t>(frame), AVRational{1, d.rate}, d.tb);
    // Transform codecs rebuild their first block after a flush from overlap
    // they no longer have: start a little early and let those frames go.
    const bool pcm = formatIs(d.fmt->iformat, "wav") || formatIs(d.fmt->iformat, "aiff");
    const int64_t preroll = pcm ? 0 : std::max<int64_t>(st->codecpar->seek_preroll, d.rate / 10);
    ts -= av_rescale_q(preroll, AVRational{1, d.rate}, d.tb);
    d.seekBefore(ts);
    if (d.codec) avcodec_flush_buffers(d.codec);
    knowPosition_ = false;
    // MPEG audio timestamps after a seek are estimated from the byte position.
    d.exact = !d.rawFrames();
}

bool FileStream::seekSource(uint64_t frame, DWORD mode) {
    if (!dec_) return fail(BASS_ERROR_HANDLE);
    // A scan rewinds the decoder: what is pending is measured after it.
    if ((mode & BASS_POS_SCAN) && dec_->index.empty() && dec_->rawFrames()) scan();
    const size_t avail = pendingFrames();
    const uint64_t current = nextSample_ - avail;
    if ((mode & BASS_POS_DECODETO) && frame >= current && knowPosition_) {
        // Decode up to the target rather than seek.
        const uint64_t skip = std::min<uint64_t>(frame - current, avail);
        pendingPos_ += static_cast<size_t>(skip);
        discardUntil_ = frame;
        eof_ = false;
        return true;
    }
    if (frame == current && knowPosition_ && !eof_) return true;
    restartAt(frame);
    return true;
}

void FileStream::onFree() {
    std::lock_guard lock(renderMutex_);
    dec_.reset();
    pending_.clear();
    pending_.shrink_to_fit();
}

} // namespace tavro::platform
