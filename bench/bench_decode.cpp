// Decoding speed of every compressed format against a minimal in-process
// libavformat/libavcodec loop on the same five-minute file, in the same run
// (the fair peer), and the time to open a five-minute MP3 and start playing it.
//
// Each repetition times both, in alternating order, by process CPU time; the
// figures are medians and the ratio is the median of the per-repetition
// ratios. The bias leans against us: our time includes the open (for Ogg with
// its scan of the pages for chained links), converting planar to interleaved
// float and copying into the caller's buffer, and any CPU the engine's idle
// threads use meanwhile; the loop only decodes and reads one sample per frame.
// The whole ffmpeg process on the same file is a second column only: its
// figure includes starting the program, which leans in our favour.
#include <bass.h>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

const std::string kDir = "/tmp/tavro-bench-media";

std::string makeFile(const std::string& name, const std::string& args, int seconds) {
    const std::string path = kDir + "/" + name;
    const std::string cmd = "mkdir -p " + kDir + " && [ -s " + path + " ] || ffmpeg -nostdin -v error -y -f lavfi -i " +
                            "\"aevalsrc='0.3*sin(2*PI*220*t*(1+0.1*sin(t)))+0.1*sin(2*PI*3000*t)|0.3*sin(2*PI*330*t)':s=48000:d=" +
                            std::to_string(seconds) + "\" " + args + " " + path;
    if (std::system(cmd.c_str()) != 0) return "";
    return path;
}

double cpuNow() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Frames decoded through the engine, as an application reads them.
double oursOnce(const std::string& path, std::vector<float>& buf, double& frames) {
    const double t0 = cpuNow();
    HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT);
    frames = 0;
    for (;;) {
        const DWORD got = BASS_ChannelGetData(h, buf.data(), static_cast<DWORD>(buf.size() * 4) | BASS_DATA_FLOAT);
        if (got == 0 || got == 0xFFFFFFFF) break;
        frames += got / 8.0;
    }
    BASS_StreamFree(h);
    return cpuNow() - t0;
}

// The peer: demux, decode, look at the frames; nothing else.
double libavOnce(const std::string& path, double& frames, float& sink) {
    const double t0 = cpuNow();
    frames = 0;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return 0;
    avformat_find_stream_info(fmt, nullptr);
    const AVCodec* codec = nullptr;
    const int si = av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(ctx, fmt->streams[si]->codecpar);
    ctx->thread_count = 1;
    avcodec_open2(ctx, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    auto drain = [&] {
        while (avcodec_receive_frame(ctx, frame) == 0) {
            frames += frame->nb_samples;
            sink += reinterpret_cast<const float*>(frame->extended_data[0])[0];
            av_frame_unref(frame);
        }
    };
    while (av_read_frame(fmt, pkt) >= 0) {
        if (pkt->stream_index == si) avcodec_send_packet(ctx, pkt);
        av_packet_unref(pkt);
        drain();
    }
    avcodec_send_packet(ctx, nullptr);
    drain();
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    avformat_close_input(&fmt);
    return cpuNow() - t0;
}

// Seconds the ffmpeg program takes to decode the file to float PCM, start-up
// included (best of three).
double ffmpegProcessSeconds(const std::string& path) {
    double best = 1e9;
    for (int i = 0; i < 3; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        const std::string cmd = "ffmpeg -nostdin -v error -threads 1 -i " + path + " -f f32le -y /dev/null";
        if (std::system(cmd.c_str()) != 0) return 0;
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// The platform on the no-sound device, the plug-in loaded and the file made; "" when it cannot be.
std::string prepare(benchmark::State& state, const char* name, const char* args, const char* plugin) {
    BASS_Init(0, 48000, 0, nullptr, nullptr);
    if (plugin) BASS_PluginLoad(plugin, 0);
    const std::string path = makeFile(name, args, 300);
    if (path.empty()) state.SkipWithError("could not make the test file");
    return path;
}

void decodeAgainstLibav(benchmark::State& state, const char* name, const char* args, const char* plugin) {
    const std::string path = prepare(state, name, args, plugin);
    if (path.empty()) return;
    constexpr int kReps = 7;
    std::vector<float> buf(1 << 15);
    std::vector<double> ours, peer, ratio;
    double oursFrames = 0, peerFrames = 0;
    float sink = 0;
    for (auto _ : state) {
        for (int r = 0; r < kReps; ++r) {
            double a = 0, b = 0;
            if (r % 2) {
                b = libavOnce(path, peerFrames, sink);
                a = oursOnce(path, buf, oursFrames);
            } else {
                a = oursOnce(path, buf, oursFrames);
                b = libavOnce(path, peerFrames, sink);
            }
            ours.push_back(a);
            peer.push_back(b);
            if (b > 0) ratio.push_back(a / b);
        }
    }
    benchmark::DoNotOptimize(sink);
    state.counters["ours_cpu_s"] = median(ours);
    state.counters["libav_cpu_s"] = median(peer);
    state.counters["ratio_vs_libav"] = median(ratio);
    state.counters["ours_frames"] = oursFrames;
    state.counters["libav_frames"] = peerFrames;
    state.counters["ffmpeg_process_s"] = ffmpegProcessSeconds(path);
    BASS_PluginFree(0);
    BASS_Free();
}

// Sample-exact seeks: 40 positions spread over the file, each followed by a
// 4096-frame read, on a decoding stream; against libav seeking the same
// positions (av_seek_frame backwards, flush, decode up to the sample) on one
// open context. The bias leans against us: every Ogg seek reopens the
// demuxer (a fresh one is what seeks reliably once the last page has been
// read), which the peer never does, and we decode from a little before the
// target so that the first sample is exact (the codec's overlap and
// pre-roll), which the peer skips. It leans our way for MP3: our seeks go
// through the prescanned frame index, while libav's are estimated from the
// bit rate (cheap, not exact).
double oursSeeks(const std::string& path, const std::vector<double>& at, std::vector<float>& buf) {
    HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_STREAM_DECODE | BASS_SAMPLE_FLOAT | BASS_STREAM_PRESCAN);
    const double t0 = cpuNow();
    for (double sec : at) {
        BASS_ChannelSetPosition(h, BASS_ChannelSeconds2Bytes(h, sec), BASS_POS_BYTE);
        BASS_ChannelGetData(h, buf.data(), 4096 * 8 | BASS_DATA_FLOAT);
    }
    const double t = cpuNow() - t0;
    BASS_StreamFree(h);
    return t;
}

double libavSeeks(const std::string& path, const std::vector<double>& at, float& sink) {
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return 0;
    avformat_find_stream_info(fmt, nullptr);
    const AVCodec* codec = nullptr;
    const int si = av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    AVStream* st = fmt->streams[si];
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(ctx, st->codecpar);
    ctx->thread_count = 1;
    avcodec_open2(ctx, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const double t0 = cpuNow();
    for (double sec : at) {
        const int64_t target = static_cast<int64_t>(sec / av_q2d(st->time_base));
        av_seek_frame(fmt, si, target, AVSEEK_FLAG_BACKWARD);
        avcodec_flush_buffers(ctx);
        int64_t have = -1; // frames read past the target
        while (have < 4096 && av_read_frame(fmt, pkt) >= 0) {
            if (pkt->stream_index == si) avcodec_send_packet(ctx, pkt);
            av_packet_unref(pkt);
            while (avcodec_receive_frame(ctx, frame) == 0) {
                const int64_t end = frame->best_effort_timestamp + av_rescale_q(frame->nb_samples, AVRational{1, frame->sample_rate}, st->time_base);
                if (end > target) have = std::max<int64_t>(have, 0) + frame->nb_samples;
                sink += reinterpret_cast<const float*>(frame->extended_data[0])[0];
                av_frame_unref(frame);
            }
        }
    }
    const double t = cpuNow() - t0;
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    avformat_close_input(&fmt);
    return t;
}

void seekAgainstLibav(benchmark::State& state, const char* name, const char* args, const char* plugin) {
    const std::string path = prepare(state, name, args, plugin);
    if (path.empty()) return;
    std::vector<double> at;
    for (int i = 0; i < 40; ++i) at.push_back(std::fmod(i * 137.13, 290.0)); // jumps both ways
    std::vector<float> buf(4096 * 2);
    std::vector<double> ours, peer, ratio;
    float sink = 0;
    for (auto _ : state) {
        for (int r = 0; r < 5; ++r) {
            const double a = oursSeeks(path, at, buf), b = libavSeeks(path, at, sink);
            ours.push_back(a / at.size());
            peer.push_back(b / at.size());
            if (b > 0) ratio.push_back(a / b);
        }
    }
    benchmark::DoNotOptimize(sink);
    state.counters["ours_ms_per_seek"] = median(ours) * 1e3;
    state.counters["libav_ms_per_seek"] = median(peer) * 1e3;
    state.counters["ratio_vs_libav"] = median(ratio);
    BASS_PluginFree(0);
    BASS_Free();
}

// Every compressed format, decoded whole and sought, each against libav.
struct Format {
    const char* name;
    const char* file;
    const char* args;
    const char* plugin; // null for built-in formats
};
constexpr Format kFormats[] = {
    {"MP3", "five-minutes.mp3", "-c:a libmp3lame -b:a 192k", nullptr},
    {"FLAC", "five-minutes.flac", "-c:a flac", "bassflac"},
    {"AAC", "five-minutes.m4a", "-c:a aac -b:a 192k", nullptr},
    {"Vorbis", "five-minutes.ogg", "-c:a libvorbis -q:a 5", nullptr},
    {"Opus", "five-minutes.opus", "-c:a libopus -b:a 128k", "bassopus"},
};
[[maybe_unused]] const bool registered = [] {
    for (const auto& f : kFormats) {
        benchmark::RegisterBenchmark((std::string("BM_Decode") + f.name).c_str(),
                                     [f](benchmark::State& s) { decodeAgainstLibav(s, f.file, f.args, f.plugin); })
            ->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
        benchmark::RegisterBenchmark((std::string("BM_Seek") + f.name).c_str(),
                                     [f](benchmark::State& s) { seekAgainstLibav(s, f.file, f.args, f.plugin); })
            ->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
    }
    return true;
}();

// Open a five-minute MP3 (no prescan) and start it playing on the no-sound device.
void BM_OpenAndPlayMP3(benchmark::State& state) {
    BASS_Init(0, 44100, 0, nullptr, nullptr);
    const std::string path = makeFile("five-minutes.mp3", "-c:a libmp3lame -b:a 192k", 300);
    for (auto _ : state) {
        HSTREAM h = BASS_StreamCreateFile(FALSE, path.c_str(), 0, 0, BASS_SAMPLE_FLOAT);
        BASS_ChannelPlay(h, FALSE);
        state.PauseTiming();
        BASS_StreamFree(h);
        state.ResumeTiming();
    }
    BASS_Free();
}
BENCHMARK(BM_OpenAndPlayMP3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
